// The blob readers (their checks, order, messages and masks) and the
// writers' filters and buffer handling.
#include "data_test_support.h"

using namespace dvstest;

namespace {

class BlobTest : public DataTest {};

DVSData g_sentinelList;

struct Outcome {
   ReturnStatus st;
   std::string out, val;
};

// Reads into a list at a debug level; a failed read leaves the handle alone.
Outcome ReadList(uint8_t *p, uint32_t len, int level) {
   DVSDataHandle h = &g_sentinelList;
   Outcome o{};
   dvsdata_debug = level;
   o.out = CapturedStdout([&] { o.st = DVSData_Deserialize(&h, p, len, TestAlloc, TestFree); });
   dvsdata_debug = -1;
   if (o.st == STATUS_OK)
      DVSData_Free(h);
   else
      EXPECT_EQ(h, &g_sentinelList);
   return o;
}

Outcome ReadValue(uint8_t *p, uint32_t len, int level, const char *name = "zzz",
                  uint32_t size = 8) {
   char buf[8];
   std::memset(buf, '#', sizeof buf);
   Outcome o{};
   dvsdata_debug = level;
   o.out = CapturedStdout([&] { o.st = DVSData_DeserializeGetPropVal(p, len, name, buf, size); });
   dvsdata_debug = -1;
   o.val = std::string(buf, sizeof buf);
   return o;
}

TEST_F(BlobTest, ReadersCheckInOrderWithTheirMessages) {
   const Blob base = MakeBlob({{"a", 0x20, "hello"}, {"b", 0x20, "xy"}});
   ASSERT_EQ(base.size(), 312u);
   const uint32_t sum = GetU32(base.bytes.data(), 4);
   const std::string chk = Fmt("bad chksum: expected 0x%x, actual 0x%x\n", sum ^ 1, sum),
                     bufMin = "bad data: buffer size 15 smaller than minimum header size\n",
                     hdrMin = "bad data: data size 12 in header smaller than minimum header size\n",
                     shorter = "bad data: buffer size 311 smaller than size 312 in header\n",
                     ver = "Bad data: expected header version 1, actual 2\n",
                     tooLong = "bad data: data length smaller than data block size 1000\n",
                     marker = "bad data: not end with 4 (zero) marker bytes\n";
   const ReturnStatus P = STATUS_BAD_PARAM, C = STATUS_BAD_CHECKSUM;
   const struct {
      const char *what;
      void (*edit)(Blob &);
      uint32_t len;
      ReturnStatus listSt;
      std::string listMsg;
      ReturnStatus valSt;
      std::string valMsg;
   } cases[] = {
      {"short buffer", [](Blob &) {}, 15, P, bufMin, P, bufMin},
      {"short buffer first", [](Blob &b) { PutU32(b.p(), 0, 12); }, 15, P, bufMin, P, bufMin},
      {"header length 12", [](Blob &b) { PutU32(b.p(), 0, 12); }, 312, P, hdrMin, P, hdrMin},
      {"buffer shorter than header", [](Blob &) {}, 311, P, shorter, P, shorter},
      {"version 2, bad checksum", [](Blob &b) { PutU16(b.p(), 8, 2), b.bytes[4] ^= 1; }, 312, P,
       ver, C, chk},
      {"version 2", [](Blob &b) { PutU16(b.p(), 8, 2); }, 312, P, ver, P,
       "Unsupported DVS data version 2\n"},
      {"bad checksum", [](Blob &b) { b.bytes[4] ^= 1; }, 312, C, chk, C, chk},
      {"first record too long", [](Blob &b) { PutU32(b.p(), 12, 1000); }, 312, P, tooLong, P,
       tooLong},
      {"second record too long", [](Blob &b) { PutU32(b.p(), 160, 1000), b.Reseal(); }, 312, P,
       tooLong, P, tooLong},
      // The last record fills the rest exactly: no room for the end marker.
      {"no end marker", [](Blob &b) { PutU32(b.p(), 0, 308), b.Reseal(); }, 312, P, marker, P,
       marker},
   };
   for (const auto &c : cases) {
      SCOPED_TRACE(c.what);
      Blob b = base;
      c.edit(b);
      Outcome l = ReadList(b.p(), c.len, 0), v = ReadValue(b.p(), c.len, 0);
      EXPECT_EQ(l.st, c.listSt);
      EXPECT_EQ(l.out, c.listMsg);
      EXPECT_EQ(v.st, c.valSt);
      EXPECT_EQ(v.out, c.valMsg);
      EXPECT_EQ(ReadList(b.p(), c.len, -1).out + ReadValue(b.p(), c.len, -1).out, "");
   }
   Blob ok = base;  // the blob itself reads, silently at level 0
   EXPECT_EQ(ReadList(ok.p(), ok.size(), 0).out, "");
   EXPECT_EQ(ReadValue(ok.p(), ok.size(), 0, "b").st, STATUS_OK);
}

TEST_F(BlobTest, ValueReaderTakesTheFirstMatchWhateverItsFlag) {
   Blob b = MakeBlob({{"a", 0x1, "hello"}, {"b", 0x20, "wo"}, {"a", 0x20, "second"}});
   Outcome o = ReadValue(b.p(), b.size(), 0, "a", 5);  // exactly dataLen bytes
   EXPECT_EQ(o.st, STATUS_OK);
   EXPECT_EQ(o.val + o.out, "hello###");
   EXPECT_EQ(ReadValue(b.p(), b.size(), 0, "b").val, "wo######");
   o = ReadValue(b.p(), b.size(), 0, "a", 4);
   EXPECT_EQ(o.st, STATUS_LIMIT_EXCEEDED);
   EXPECT_EQ(o.out,
             "propVal buffer of size 4 not sufficient to store value of size 5 for property a\n");
   o = ReadValue(b.p(), b.size(), 0, "c");
   EXPECT_EQ(o.st, STATUS_NOT_FOUND);
   EXPECT_EQ(o.out, "");
   // An empty blob, or records ended early by a zero length, hold nothing
   // more; the list reader takes what precedes the zero.
   Blob empty = MakeBlob({});
   EXPECT_EQ(ReadValue(empty.p(), empty.size(), 0, "a").st, STATUS_NOT_FOUND);
   PutU32(b.p(), 12 + 148, 0);
   b.Reseal();
   EXPECT_EQ(ReadValue(b.p(), b.size(), 0, "b").st, STATUS_NOT_FOUND);
   DVSDataHandle h = nullptr;
   ASSERT_EQ(DVSData_DeserializeWithPropType(&h, b.p(), b.size(), TestAlloc, TestFree, 0x1),
             STATUS_OK);
   List l(h);
   EXPECT_EQ(Names(l.h), Names_t{"a"});
}

TEST_F(BlobTest, DeserializeMasksSelectRecordsByFlag) {
   Blob b = MakeBlob({{"one", 0x1, "1"},
                      {"x100", 0x100, "2"},
                      {"high", 0x80000000, "3"},
                      {"t20", 0x20, "4"},
                      {"t04", 0x4, "5"},
                      {"two", 0x2, "6"}});
   auto read = [&](uint32_t mask) {
      DVSDataHandle h = nullptr;
      EXPECT_EQ(DVSData_DeserializeWithPropType(&h, b.p(), b.size(), TestAlloc, TestFree, mask),
                STATUS_OK);
      List l(h);
      return Names(l.h);
   };
   DVSDataHandle h = nullptr;
   ASSERT_EQ(DVSData_Deserialize(&h, b.p(), b.size(), TestAlloc, TestFree), STATUS_OK);
   List l(h);
   EXPECT_EQ(Names(l.h), (Names_t{"high", "t20", "t04"}));
   EXPECT_EQ(Value(l.h, "t04"), "5");
   EXPECT_EQ(read(0), Names_t{});
   EXPECT_EQ(read(0x100), Names_t{"x100"});
   EXPECT_EQ(read(0x3), (Names_t{"one", "two"}));
}

// Runs a writer into a new buffer and returns the blob's bytes.
template <class W>
std::vector<uint8_t> Written(DVSDataHandle h, W w) {
   void *blob = nullptr;
   uint32_t len = 0;
   EXPECT_EQ(w(&blob, &len), STATUS_OK);
   std::vector<uint8_t> out((uint8_t *)blob, (uint8_t *)blob + (blob ? len : 0));
   DVSData_FreeAssocData(h, blob);
   return out;
}

TEST_F(BlobTest, NameFilterDropsVolatileButKeepsThePersistedPortProperty) {
   const std::string persist = "com.ostrel.common.port.volatile.persist";
   List l;
   l.Add("com.ostrel.a.volatile.b", "1");
   l.Add(persist, "22");
   l.Add("volatile", "333");
   l.Add("x.volatile.", "4444", 0x10);
   l.Add("y.volatile." + persist, "55555");
   l.Add("plain", "", 0x18);
   Blob want = MakeBlob({{persist, 0x20, "22"},
                         {"volatile", 0x20, "333"},
                         {"y.volatile." + persist, 0x20, "55555"},
                         {"plain", 0x18, ""}});
   EXPECT_EQ(DVSData_SerializedSizeExNamedProp(l.h, 6, ".volatile."), want.size());
   EXPECT_EQ(DVSData_SerializedSizeExNamedProp(l.h, 6, nullptr), l.h->serialSize);
   std::vector<uint8_t> got = Written(l.h, [&](void **b, uint32_t *n) {
      return DVSData_SerializeExNamedProp(l.h, b, n, 6, ".volatile.");
   });
   ExpectBlobMatches(got.data(), (uint32_t)got.size(), want);

   // A caller buffer needs only the filtered size; one byte less is refused
   // before anything is written.
   std::vector<uint8_t> buf(want.size(), 0xcc);
   void *p = buf.data();
   uint32_t len = want.size() - 1;
   EXPECT_EQ(DVSData_SerializeExNamedProp(l.h, &p, &len, 6, ".volatile."), STATUS_LIMIT_EXCEEDED);
   EXPECT_EQ(buf, std::vector<uint8_t>(want.size(), 0xcc));
   len = want.size();
   EXPECT_EQ(DVSData_SerializeExNamedProp(l.h, &p, &len, 6, ".volatile."), STATUS_OK);
   ExpectBlobMatches(buf.data(), len, want);
}

TEST_F(BlobTest, TypeFilterDropsFlagsSharingABitWithTheMask) {
   List l;
   l.Add("sw", "1", 0x10);
   l.Add("sw2", "2", 0x18);
   l.Add("port", "3", 0x20);
   l.Add("t4", "4", 0x4);
   l.Add("hi", "5", 0x80000000);
   auto write = [&](uint32_t mask) {
      return Written(
         l.h, [&](void **b, uint32_t *n) { return DVSData_SerializeExTypeProp(l.h, b, n, mask); });
   };
   std::vector<uint8_t> got = write(0x10);
   ExpectBlobMatches(got.data(), (uint32_t)got.size(),
                     MakeBlob({{"port", 0x20, "3"}, {"t4", 0x4, "4"}, {"hi", 0x80000000, "5"}}));
   EXPECT_EQ(write(0).size(), l.h->serialSize);
   got = write(0x80000008);
   ExpectBlobMatches(got.data(), (uint32_t)got.size(),
                     MakeBlob({{"sw", 0x10, "1"}, {"port", 0x20, "3"}, {"t4", 0x4, "4"}}));
}

TEST_F(BlobTest, WholeListWriterBuffersAndVersions) {
   List l;
   l.Add("a", "abc");
   std::vector<uint8_t> buf(l.h->serialSize + 8, 0xcc);
   void *p = buf.data();
   uint32_t len = l.h->serialSize - 1;
   EXPECT_EQ(DVSData_Serialize(l.h, &p, &len, 6), STATUS_LIMIT_EXCEEDED);
   EXPECT_EQ(buf, std::vector<uint8_t>(buf.size(), 0xcc));
   len = (uint32_t)buf.size();  // larger than needed: len becomes the blob's
   EXPECT_EQ(DVSData_Serialize(l.h, &p, &len, 6), STATUS_OK);
   EXPECT_EQ(len, l.h->serialSize);
   EXPECT_EQ(buf[len], 0xcc);

   // Old switch versions are warned about at level 0 but written all the same.
   for (uint32_t version : {0u, 3u, 4u}) {
      for (int level : {-1, 0}) {
         dvsdata_debug = level;
         std::vector<uint8_t> got;
         std::string out = CapturedStdout([&] {
            got = Written(
               l.h, [&](void **b, uint32_t *n) { return DVSData_Serialize(l.h, b, n, version); });
         });
         bool warn = level == 0 && version <= 3;
         EXPECT_EQ(out, warn ? Fmt("DVS version %d is smaller than 6.0.\n", version) : "");
         ExpectBlobMatches(got.data(), (uint32_t)got.size(), MakeBlob({{"a", 0x20, "abc"}}));
      }
   }

   // A serialSize that disagrees with the entries is refused and the new
   // buffer released; one too small must stop the copy before it overruns.
   l.Add("b", "");
   const uint32_t good = l.h->serialSize;  // 16 + 148 + 144
   const char *why = "DVSData length changed during serialization, buflen = %u, lenRemaining = %u";
   dvsdata_debug = 0;
   for (uint32_t bad : {good + 8, good - 4}) {
      void *blob = nullptr;
      l.h->serialSize = bad;
      std::string out = CapturedStdout(
         [&] { EXPECT_EQ(DVSData_Serialize(l.h, &blob, &len, 6), STATUS_LIMIT_EXCEEDED); });
      EXPECT_EQ(out, Fmt(why, bad, bad > good ? 12 : 144) +
                        (bad > good ? ", name NULL, size 0\n" : ", name b, size 144\n"));
      EXPECT_EQ(blob, nullptr);
   }
   l.h->serialSize = good;
}

}  // namespace
