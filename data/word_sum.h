// Wrapping sums of native 32-bit words, the arithmetic of the blob
// checksum, with a variant that sums while it copies so that a writer
// touches each byte once.
#ifndef DVS_DATA_WORD_SUM_H
#define DVS_DATA_WORD_SUM_H

#include <cstddef>
#include <cstdint>

namespace dvs::data {

// Sum of the `words` words starting at p (no alignment needed).
uint32_t SumWords(const uint8_t *p, size_t words);

// Copies `words` words from src to dst (no alignment needed, no overlap)
// and returns their sum.
uint32_t CopySumWords(uint8_t *dst, const uint8_t *src, size_t words);

}  // namespace dvs::data

#endif  // DVS_DATA_WORD_SUM_H
