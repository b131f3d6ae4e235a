// Damaged blobs: the readers must refuse them without reading past the
// buffer, leaking a partial list, or touching the caller's handle.  Every
// read goes through a heap copy of exactly the given length so that the
// sanitizer build reports any overread.
#include "data_test_support.h"

#include <memory>

using namespace dvstest;

namespace {

class MalformedBlobTest : public DataTest {};

DVSData g_sentinelList;

struct Statuses {
   ReturnStatus list, value, valueOwn;
};

// Reads the first len bytes of src with both readers; for the value reader
// looks up an absent name (so the whole blob is walked) and `own`.
Statuses ReadBoth(const uint8_t *src, uint32_t len, const char *own = "a") {
   std::unique_ptr<uint8_t[]> buf(new uint8_t[len]);
   std::memcpy(buf.get(), src, len);
   Statuses s{};
   DVSDataHandle h = &g_sentinelList;
   long before = g_alloc.outstanding;
   s.list = DVSData_Deserialize(&h, buf.get(), len, TestAlloc, TestFree);
   if (s.list == STATUS_OK) {
      Names(h);  // a list that was built must be consistent
      DVSData_Free(h);
   } else {
      EXPECT_EQ(h, &g_sentinelList);
   }
   EXPECT_EQ(g_alloc.outstanding, before);
   char val[512];
   s.value = DVSData_DeserializeGetPropVal(buf.get(), len, "zzz", val, sizeof val);
   s.valueOwn = DVSData_DeserializeGetPropVal(buf.get(), len, own, val, sizeof val);
   return s;
}

Blob ThreeRecords() {
   return MakeBlob({{"a", 0x20, "hello"},
                    {std::string(100, 'b'), 0x18, std::string(300, '\x7f')},
                    {"c", 0x80000010, ""}});
}

TEST_F(MalformedBlobTest, EveryTruncationIsRefused) {
   Blob b = ThreeRecords();
   ASSERT_EQ(ReadBoth(b.p(), b.size()).list, STATUS_OK);
   for (uint32_t len = 0; len < b.size(); ++len) {
      Statuses s = ReadBoth(b.p(), len);
      EXPECT_EQ(s.list, STATUS_BAD_PARAM) << len;
      EXPECT_EQ(s.value, STATUS_BAD_PARAM) << len;
   }
   // A header that claims more than the buffer holds.
   for (uint32_t claimed : {b.size() + 4, 0x80000000u, 0xffffffffu}) {
      Blob c = b;
      PutU32(c.p(), 0, claimed);
      Statuses s = ReadBoth(c.p(), c.size());
      EXPECT_EQ(s.list, STATUS_BAD_PARAM) << claimed;
      EXPECT_EQ(s.value, STATUS_BAD_PARAM) << claimed;
   }
}

TEST_F(MalformedBlobTest, SingleByteDamageAnywhereIsSurvived) {
   const Blob b = ThreeRecords();
   int accepted = 0, refused = 0;
   for (uint32_t off = 0; off < b.size(); ++off) {
      for (uint8_t x : {0x01, 0x80, 0xff}) {
         Blob c = b;
         c.bytes[off] ^= x;
         // Re-seal so that damage past the header reaches the record walk.
         if ((off < 4 || off > 7) && GetU32(c.p(), 0) <= c.size())
            c.Reseal();
         Statuses s = ReadBoth(c.p(), c.size());
         (s.list == STATUS_OK ? accepted : refused)++;
         // Damage to the checksum or version is always caught.
         EXPECT_TRUE(s.list != STATUS_OK || off < 4 || off >= 10) << off;
      }
   }
   // Damage to values and names is legitimately accepted; damage to lengths
   // is not, so both outcomes must have occurred.
   EXPECT_GT(accepted, 0);
   EXPECT_GT(refused, 0);
}

TEST_F(MalformedBlobTest, RecordsThatDoNotHoldTheirOwnFieldsAreRefused) {
   struct Damage {
      const char *what;
      void (*edit)(uint8_t *rec);
   };
   const Damage damages[] = {
      {"serialLen 4", [](uint8_t *r) { PutU32(r, 0, 4); }},
      {"serialLen 139", [](uint8_t *r) { PutU32(r, 0, 139); }},
      {"serialLen huge", [](uint8_t *r) { PutU32(r, 0, 0xfffffff0u); }},
      {"dataLen one past the record", [](uint8_t *r) { PutU32(r, 136, GetU32(r, 0) - 140 + 1); }},
      {"dataLen wrapping 140 + dataLen", [](uint8_t *r) { PutU32(r, 136, 0xfffffff0u); }},
      {"name without NUL", [](uint8_t *r) { std::memset(r + 4, 'n', 128); }},
   };
   const std::string noNul(128, 'n');
   for (const Damage &d : damages) {
      const bool nameDamage = &d == &damages[5];
      for (size_t rec : {0, 1}) {
         SCOPED_TRACE(std::string(d.what) + (rec ? " in the second record" : " in the first"));
         Blob b = MakeBlob({{"a", 0x20, "hello"}, {"b", 0x20, "world!!"}});
         ASSERT_EQ(b.size(), 12u + 148 + 152 + 4);
         d.edit(b.p() + (rec ? 160 : 12));
         b.Reseal();
         const char *own = nameDamage ? noNul.c_str() : rec ? "b" : "a";
         Statuses s{};
         dvsdata_debug = 0;
         std::string out = CapturedStdout([&] { s = ReadBoth(b.p(), b.size(), own); });
         dvsdata_debug = -1;
         EXPECT_EQ(s.list, STATUS_BAD_PARAM);
         EXPECT_EQ(s.value, STATUS_BAD_PARAM);
         EXPECT_EQ(s.valueOwn, STATUS_BAD_PARAM);
         EXPECT_EQ(out.rfind("bad data: ", 0), 0u) << out;
      }
   }
}

}  // namespace
