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

// A running sum for copying many short pieces (the records of a list):
// the lanes are kept across pieces and folded once at the end, so a piece
// costs little more than its copy.
class WordSum {
  public:
   // Copies `words` words from src to dst and adds them to the sum.
   void Copy(uint8_t *dst, const uint8_t *src, size_t words) {
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
      for (; i < bytes; i += 4) {
         uint32_t w;
         std::memcpy(&w, src + i, sizeof w);
         std::memcpy(dst + i, &w, sizeof w);
         rest_ += w;
      }
   }

   void Add(uint32_t value) { rest_ += value; }

   uint32_t Total() const {
      const Lanes s = a_ + b_;
      return rest_ + s[0] + s[1] + s[2] + s[3];
   }

  private:
   typedef uint32_t Lanes __attribute__((vector_size(16)));
   static constexpr size_t kLaneBytes = sizeof(Lanes);
   Lanes a_ = {};
   Lanes b_ = {};
   uint32_t rest_ = 0;
};

}  // namespace dvs::data

#endif  // DVS_DATA_WORD_SUM_H
