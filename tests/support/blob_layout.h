// Property blobs built by hand from the byte layout, independently of the
// library: length, checksum, version 1, reserved; records of serialLen =
// (dataLen + 146) & ~3 holding serialLen, name[128], flag, dataLen, data and
// padding; four zero bytes.  With the checksum written out from its
// definition.
#ifndef TESTS_SUPPORT_BLOB_LAYOUT_H
#define TESTS_SUPPORT_BLOB_LAYOUT_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/le_bytes.h"

namespace testsupport {

// The checksum written out from its definition: 32-bit words from byte 32
// up to the last whole word of the header length, then any trailing bytes.
inline uint32_t RefChecksum(const uint8_t *b) {
   int32_t len = (int32_t)GetU32(b, 0), words = len / 4;
   uint32_t sum = 0;
   for (int32_t w = 8; w < words; ++w)
      sum += GetU32(b, 4 * w);
   if (len % 4 != 0)
      for (int32_t i = words * 4 > 32 ? words * 4 : 32; i < len; ++i)
         sum += b[i];
   return sum;
}

struct Rec {
   std::string name;
   uint32_t flag;
   std::string data;
};

// A blob built by hand, with a mask of the bytes whose contents are fixed
// (not the checksum, the reserved header bytes, name tails or padding).
struct Blob {
   std::vector<uint8_t> bytes;
   std::vector<bool> defined;
   uint8_t *p() { return bytes.data(); }
   uint32_t size() const { return (uint32_t)bytes.size(); }
   void Reseal() { PutU32(p(), 4, RefChecksum(p())); }
};

inline Blob MakeBlob(const std::vector<Rec> &recs) {
   size_t size = 16;
   for (const Rec &r : recs)
      size += (r.data.size() + 146) & ~size_t{3};
   Blob b{std::vector<uint8_t>(size, 0), std::vector<bool>(size, true)};
   PutU32(b.p(), 0, (uint32_t)size);
   PutU16(b.p(), 8, 1);
   for (size_t i : {4, 5, 6, 7, 10, 11})
      b.defined[i] = false;
   size_t off = 12;
   for (const Rec &r : recs) {
      uint32_t serialLen = (uint32_t)((r.data.size() + 146) & ~size_t{3});
      PutU32(b.p(), off, serialLen);
      std::memcpy(b.p() + off + 4, r.name.c_str(), r.name.size() + 1);
      PutU32(b.p(), off + 132, r.flag);
      PutU32(b.p(), off + 136, (uint32_t)r.data.size());
      std::memcpy(b.p() + off + 140, r.data.data(), r.data.size());
      for (size_t i = off + 5 + r.name.size(); i < off + 132; ++i)
         b.defined[i] = false;
      for (size_t i = off + 140 + r.data.size(); i < off + serialLen; ++i)
         b.defined[i] = false;
      off += serialLen;
   }
   b.Reseal();
   return b;
}

// A written blob must equal the hand-built one on every fixed byte and carry
// the checksum of the bytes actually written.
inline void ExpectBlobMatches(const void *actual, uint32_t len, const Blob &want) {
   ASSERT_EQ(len, want.size());
   const uint8_t *a = static_cast<const uint8_t *>(actual);
   for (size_t i = 0; i < len; ++i) {
      if (!want.defined[i])
         continue;
      ASSERT_EQ(a[i], want.bytes[i]) << "byte " << i;
   }
   EXPECT_EQ(GetU32(a, 4), RefChecksum(a));
}

}  // namespace testsupport

#endif  // TESTS_SUPPORT_BLOB_LAYOUT_H
