// Word sums many lanes at a time: a lane add wraps at 32 bits exactly like
// the scalar sum, and addition is order-free, so the lanes are folded only
// at the end.  Loads and stores go through memcpy, which compiles to
// unaligned vector moves.  On x86-64 the loops are also built for AVX2 and
// the wider build is picked at load time where the processor has it.
#include "data/word_sum.h"

#include <cstring>

#if defined(__x86_64__) && defined(__GNUC__) && !defined(__SANITIZE_THREAD__)
#define DVS_WORD_SUM_CLONES __attribute__((target_clones("avx2", "default")))
#else
#define DVS_WORD_SUM_CLONES
#endif

namespace dvs::data {
namespace {

// Eight 32-bit lanes; where the build has no 32-byte registers the compiler
// splits each operation in two.
using Lanes = WideLanes;
constexpr size_t kLaneBytes = sizeof(Lanes);

inline uint32_t LoadWord(const uint8_t *p) {
   uint32_t w;
   std::memcpy(&w, p, sizeof w);
   return w;
}

}  // namespace

bool HasWideVectors() {
#if DVS_HAVE_WIDE_VECTORS
   static const bool wide = __builtin_cpu_supports("avx2");
   return wide;
#else
   return false;
#endif
}

DVS_WORD_SUM_CLONES uint32_t SumWords(const uint8_t *p, size_t words) {
   const size_t bytes = words * 4;
   Lanes a = {}, b = {}, x, y;
   size_t i = 0;
   for (; i + 2 * kLaneBytes <= bytes; i += 2 * kLaneBytes) {
      std::memcpy(&x, p + i, kLaneBytes);
      std::memcpy(&y, p + i + kLaneBytes, kLaneBytes);
      a += x;
      b += y;
   }
   a += b;
   uint32_t sum = 0;
   for (size_t lane = 0; lane < kLaneBytes / 4; ++lane) {
      sum += a[lane];
   }
   for (; i < bytes; i += 4) {
      sum += LoadWord(p + i);
   }
   return sum;
}

DVS_WORD_SUM_CLONES uint32_t CopySumWords(uint8_t *dst, const uint8_t *src, size_t words) {
   WideWordSum sum;
   sum.Copy(dst, src, words);
   return sum.Total();
}

}  // namespace dvs::data
