// Helpers shared by the property-list and blob tests: a counting allocator
// with failure injection, a blob builder that follows the byte layout
// independently of the library, an independent checksum and stdout capture.
#ifndef DATA_TEST_SUPPORT_H
#define DATA_TEST_SUPPORT_H

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <dvsdata.h>

#include "tests/support/le_bytes.h"
#include "tests/support/temp_dir.h"

namespace dvstest {

using Names_t = std::vector<std::string>;

// Every list under test allocates through here.  Blocks are filled with a
// pattern so that nothing passes by relying on zeroed memory; the n-th call
// can be made to fail; live blocks are counted to catch leaks.
struct AllocState {
   long calls = 0, outstanding = 0, failAt = 0;  // failAt: absolute call number, 0 = never
   bool injected = false;
};
inline AllocState g_alloc;

inline void *TestAlloc(size_t size) {
   if (++g_alloc.calls == g_alloc.failAt) {
      g_alloc.injected = true;
      return nullptr;
   }
   if (size > (size_t{1} << 30))
      return nullptr;  // only an unchecked length asks this much
   void *p = std::malloc(size ? size : 1);
   std::memset(p, 0xa5, size);
   ++g_alloc.outstanding;
   return p;
}
inline void TestFree(void *p) {
   if (p)
      --g_alloc.outstanding;
   std::free(p);
}
inline void FailNthFromNow(long n) {
   g_alloc.failAt = g_alloc.calls + n;
   g_alloc.injected = false;
}
inline void Disarm() {
   g_alloc.failAt = 0;
}

// Owns a list for the length of a test.
struct List {
   DVSDataHandle h = nullptr;
   List() { EXPECT_EQ(DVSData_Alloc(&h, TestAlloc, TestFree), STATUS_OK); }
   explicit List(DVSDataHandle owned) : h(owned) {}
   ~List() { DVSData_Free(h); }
   void Add(const std::string &name, const std::string &value, uint32_t flag = 0x20) {
      ASSERT_EQ(DVSData_Append(h, name.c_str(), value.data(), (uint32_t)value.size(), flag),
                STATUS_OK);
   }
};

// The names of a list in order, after checking that serialSize, the record
// lengths and the tail agree with its entries.
inline Names_t Names(DVSDataHandle h) {
   Names_t names;
   uint32_t total = DVSDATA_MIN_BLOB_SIZE;
   DVSDataEntry *last = nullptr;
   for (DVSDataEntry *e = h->head; e; last = e, e = e->next) {
      names.push_back(e->name);
      EXPECT_EQ(e->serialLen, (e->dataLen + 146) & ~3u) << e->name;
      total += e->serialLen;
   }
   EXPECT_EQ(h->serialSize, total);
   EXPECT_EQ(h->tail, last);
   return names;
}

inline std::string Value(DVSDataHandle h, const char *name) {
   DVSDataEntry *e = nullptr;
   if (DVSData_Lookup(h, name, &e) != STATUS_OK)
      return "<absent>";
   void *data = nullptr;
   uint32_t n = DVSData_Data(e, &data);
   return std::string(static_cast<const char *>(data), n);
}

using testsupport::GetU32;
using testsupport::PutU16;
using testsupport::PutU32;

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

using testsupport::CapturedStdout;

inline std::string Fmt(const char *fmt, unsigned a, unsigned b = 0) {
   char buf[256];
   return std::string(buf, std::snprintf(buf, sizeof buf, fmt, a, b));
}

// Silences the family, resets the allocator and fails a test that leaks.
class DataTest : public testing::Test {
  protected:
   void SetUp() override { dvsdata_debug = -1, g_alloc = AllocState{}; }
   void TearDown() override {
      dvsdata_debug = -1;
      EXPECT_EQ(g_alloc.outstanding, 0) << "blocks leaked";
   }
};

}  // namespace dvstest

#endif
