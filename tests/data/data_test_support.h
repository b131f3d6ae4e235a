// Helpers shared by the property-list and blob tests: a counting allocator
// with failure injection, and the shared blob builder, checksum and stdout
// capture.
#ifndef DATA_TEST_SUPPORT_H
#define DATA_TEST_SUPPORT_H

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <dvsdata.h>

#include "tests/support/blob_layout.h"
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

using testsupport::Blob;
using testsupport::ExpectBlobMatches;
using testsupport::MakeBlob;
using testsupport::Rec;
using testsupport::RefChecksum;

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
