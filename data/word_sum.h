// Wrapping sums of native 32-bit words, the arithmetic of the blob
// checksum, with a variant that sums while it copies so that a writer
// touches each byte once.
#ifndef DVS_DATA_WORD_SUM_H
#define DVS_DATA_WORD_SUM_H

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace dvs::data {

// Sum of the `words` words starting at p (no alignment needed).
uint32_t SumWords(const uint8_t *p, size_t words);

// Copies `words` words from src to dst (no alignment needed, no overlap)
// and returns their sum.
uint32_t CopySumWords(uint8_t *dst, const uint8_t *src, size_t words);

// Vector lanes for the running sum: four 32-bit lanes (SSE2, every x86-64)
// or eight (AVX2).  The wide one is only used inside functions built for
// AVX2 (see DVS_WIDE_VECTORS); elsewhere the compiler would split each
// operation and run slower than the narrow lanes.
typedef uint32_t NarrowLanes __attribute__((vector_size(16)));
typedef uint32_t WideLanes __attribute__((vector_size(32)));

#if defined(__x86_64__) && defined(__GNUC__)
// Marks a function built for AVX2; call it only when HasWideVectors().
#define DVS_WIDE_VECTORS __attribute__((target("avx2")))
#define DVS_HAVE_WIDE_VECTORS 1
#else
#define DVS_WIDE_VECTORS
#define DVS_HAVE_WIDE_VECTORS 0
#endif

// Whether this processor runs the DVS_WIDE_VECTORS builds.
bool HasWideVectors();

// A running sum for copying many short pieces (the records of a list):
// the lanes are kept across pieces and folded once at the end, so a piece
// costs little more than its copy.
template <typename Lanes>
class BasicWordSum {
  public:
   // Copies `words` words from src to dst and adds them to the sum.
   __attribute__((always_inline)) void Copy(uint8_t *dst, const uint8_t *src, size_t words) {
      const size_t bytes = words * 4;
      size_t i = 0;
      for (; i + 2 * kLaneBytes <= bytes; i += 2 * kLaneBytes) {
         Lanes x, y;
         std::memcpy(&x, src + i, kLaneBytes);
         std::memcpy(&y, src + i + kLaneBytes, kLaneBytes);
         std::memcpy(dst + i, &x, kLaneBytes);
         std::memcpy(dst + i + kLaneBytes, &y, kLaneBytes);
         a_ += x;
         b_ += y;
      }
      if (i + kLaneBytes <= bytes) {
         Lanes x;
         std::memcpy(&x, src + i, kLaneBytes);
         std::memcpy(dst + i, &x, kLaneBytes);
         a_ += x;
         i += kLaneBytes;
      }
      if (kLaneBytes > kNarrowBytes && i + kNarrowBytes <= bytes) {
         NarrowLanes x;
         std::memcpy(&x, src + i, kNarrowBytes);
         std::memcpy(dst + i, &x, kNarrowBytes);
         n_ += x;
         i += kNarrowBytes;
      }
      for (; i < bytes; i += 4) {
         uint32_t w;
         std::memcpy(&w, src + i, sizeof w);
         std::memcpy(dst + i, &w, sizeof w);
         rest_ += w;
      }
   }

   void Add(uint32_t value) { rest_ += value; }

   __attribute__((always_inline)) uint32_t Total() const {
      const Lanes s = a_ + b_;
      uint32_t total = rest_ + n_[0] + n_[1] + n_[2] + n_[3];
      for (size_t lane = 0; lane < kLaneBytes / 4; ++lane) {
         total += s[lane];
      }
      return total;
   }

  private:
   static constexpr size_t kLaneBytes = sizeof(Lanes);
   static constexpr size_t kNarrowBytes = sizeof(NarrowLanes);
   Lanes a_ = {};
   Lanes b_ = {};
   NarrowLanes n_ = {};  // a last half-width step of the wide lanes
   uint32_t rest_ = 0;
};

using WordSum = BasicWordSum<NarrowLanes>;
using WideWordSum = BasicWordSum<WideLanes>;

}  // namespace dvs::data

#endif  // DVS_DATA_WORD_SUM_H
