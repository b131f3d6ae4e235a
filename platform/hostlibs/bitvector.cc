/*
 * bitvector.cc -- fixed-size bit vectors stored as 64-bit words.
 *
 * Bit n lives in words[n / 64] at position n % 64.  Bits at or past numBits
 * are never set through this interface, and NextBit ignores them anyway in
 * case a caller wrote the words directly.
 */
#include "hostlibs.h"

#include <cstdlib>
#include <cstring>

namespace {

constexpr uint32_t kWordBits = 64;

inline uint64_t BitMask(uint32_t n) {
   return uint64_t{1} << (n % kWordBits);
}

}  // namespace

extern "C" {

HOSTLIBS_EXPORT BitVector *BitVector_Alloc(uint32_t numBits) {
   const uint64_t numWords = (uint64_t{numBits} + kWordBits - 1) / kWordBits;
   const uint64_t bytes = sizeof(BitVector) + numWords * sizeof(uint64_t);
   if (bytes > SIZE_MAX) {
      return nullptr;
   }
   BitVector *bv = static_cast<BitVector *>(std::calloc(1, static_cast<size_t>(bytes)));
   if (bv == nullptr) {
      return nullptr;
   }
   bv->numBits = numBits;
   bv->numWords = static_cast<uint32_t>(numWords);
   return bv;
}

HOSTLIBS_EXPORT void BitVector_Free(BitVector *bv) {
   std::free(bv);
}

HOSTLIBS_EXPORT void BitVector_ClearAll(BitVector *bv) {
   if (bv != nullptr && bv->numWords > 0) {
      std::memset(bv->words, 0, size_t{bv->numWords} * sizeof(uint64_t));
   }
}

HOSTLIBS_EXPORT void BitVector_Set(BitVector *bv, uint32_t n) {
   if (bv != nullptr && n < bv->numBits) {
      bv->words[n / kWordBits] |= BitMask(n);
   }
}

HOSTLIBS_EXPORT void BitVector_Clear(BitVector *bv, uint32_t n) {
   if (bv != nullptr && n < bv->numBits) {
      bv->words[n / kWordBits] &= ~BitMask(n);
   }
}

HOSTLIBS_EXPORT bool BitVector_Test(const BitVector *bv, uint32_t n) {
   return bv != nullptr && n < bv->numBits && (bv->words[n / kWordBits] & BitMask(n)) != 0;
}

HOSTLIBS_EXPORT uint32_t BitVector_NextBit(const BitVector *bv, uint32_t from) {
   if (bv == nullptr || from >= bv->numBits) {
      return BITVECTOR_NOT_FOUND;
   }
   uint32_t w = from / kWordBits;
   /* Drop the bits below `from` in its own word, then skip empty words. */
   uint64_t word = bv->words[w] & (~uint64_t{0} << (from % kWordBits));
   while (word == 0) {
      if (++w >= bv->numWords) {
         return BITVECTOR_NOT_FOUND;
      }
      word = bv->words[w];
   }
   const uint64_t bit = uint64_t{w} * kWordBits + static_cast<uint64_t>(__builtin_ctzll(word));
   return bit < bv->numBits ? static_cast<uint32_t>(bit) : BITVECTOR_NOT_FOUND;
}

}  // extern "C"
