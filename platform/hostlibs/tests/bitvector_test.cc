#include "hostlibs.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

using Bits = std::vector<uint32_t>;

Bits SetBits(const BitVector *bv, uint32_t from = 0) {
   Bits bits;
   for (uint32_t b = BitVector_NextBit(bv, from); b != BITVECTOR_NOT_FOUND;
        b = BitVector_NextBit(bv, b + 1)) {
      if (b < from || bits.size() > bv->numBits)
         break;  // broken NextBit: fail, don't spin
      bits.push_back(b);
   }
   return bits;
}

TEST(BitVector, NextBitAcrossWords) {
   BitVector *bv = BitVector_Alloc(200);
   ASSERT_NE(bv, nullptr);
   EXPECT_EQ(BitVector_NextBit(bv, 0), BITVECTOR_NOT_FOUND);
   for (uint32_t b : {0u, 63u, 64u, 127u, 128u, 199u, 200u})
      BitVector_Set(bv, b);
   EXPECT_EQ(bv->words[3], uint64_t{1} << (199 - 192));  // 200 is past the end
   EXPECT_EQ(SetBits(bv), (Bits{0, 63, 64, 127, 128, 199}));
   EXPECT_EQ(SetBits(bv, 65), (Bits{127, 128, 199}));
   EXPECT_EQ(BitVector_NextBit(bv, 1), 63u);
   EXPECT_EQ(BitVector_NextBit(bv, 200), BITVECTOR_NOT_FOUND);
   EXPECT_FALSE(BitVector_Test(bv, 200));

   BitVector_Clear(bv, 64);
   BitVector_Clear(bv, 127);
   EXPECT_TRUE(BitVector_Test(bv, 63) && !BitVector_Test(bv, 64));
   EXPECT_EQ(BitVector_NextBit(bv, 64), 128u);  // skips an emptied word
   BitVector_ClearAll(bv);
   EXPECT_EQ(BitVector_NextBit(bv, 0), BITVECTOR_NOT_FOUND);
   bv->words[3] = uint64_t{1} << 63;  // stray bit 255, past the end
   EXPECT_EQ(BitVector_NextBit(bv, 150), BITVECTOR_NOT_FOUND);
   BitVector_Free(bv);

   bv = BitVector_Alloc(64);  // exactly one word
   ASSERT_NE(bv, nullptr);
   BitVector_Set(bv, 63);
   EXPECT_EQ(SetBits(bv, 10), (Bits{63}));
   BitVector_Free(bv);
   EXPECT_EQ(BitVector_NextBit(nullptr, 0), BITVECTOR_NOT_FOUND);
}

}  // namespace
