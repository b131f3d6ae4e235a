// Byte-exact blobs and the checksum, checked against hand-built layouts.
#include "data_test_support.h"

using namespace dvstest;

namespace {

class GoldenTest : public DataTest {};

TEST_F(GoldenTest, ChecksumSumsWordsFromByte32ThenTrailingBytes) {
   uint8_t b[64] = {};
   PutU32(b, 0, 16);
   EXPECT_EQ(DVSDataChecksum(b), 0u);
   for (int i = 4; i < 32; ++i)
      b[i] = 0xee;  // never summed
   PutU32(b, 32, 0x11223344);
   PutU32(b, 36, 0x01010101);
   b[40] = 0x77;
   const struct {
      uint32_t len, sum;
   } cases[] = {
      {40, 0x12233445},                // words at 32 and 36; byte 40 lies past the end
      {38, 0x11223344 + 0x01 + 0x01},  // word at 32, bytes 36 and 37
      {34, 0x44 + 0x33},               // no whole word past 32: bytes 32 and 33
      {30, 0},                         // nothing past byte 32 at all
      {41, 0x12233445 + 0x77},
   };
   for (const auto &c : cases) {
      PutU32(b, 0, c.len);
      EXPECT_EQ(DVSDataChecksum(b), c.sum) << c.len;
   }
   // 32-bit wrap-around; trailing bytes count as unsigned.
   PutU32(b, 0, 41);
   PutU32(b, 32, 0xffffffff);
   PutU32(b, 36, 2);
   b[40] = 0xf0;
   EXPECT_EQ(DVSDataChecksum(b), 1u + 0xf0u);

   // In a 160-byte blob only name bytes 16..19 (at 32) and the flag (at 144)
   // are non-zero; edits below byte 32 leave the sum alone, later ones do not.
   Blob one = MakeBlob({{"0123456789abcdefWXYZ", 0x20, ""}});
   ASSERT_EQ(one.size(), 160u);
   const uint32_t sum = DVSDataChecksum(one.p());
   EXPECT_EQ(sum, 0x5a595857u + 0x20u);
   for (size_t i = 4; i < one.size(); ++i) {
      if (i == 8 || i == 9)
         continue;
      Blob c = one;
      c.bytes[i] ^= 0x5a;
      EXPECT_EQ(DVSDataChecksum(c.p()) == sum, i < 32) << "byte " << i;
   }
}

// A length field that is negative as a signed 32-bit value covers nothing:
// the sum is 0 and no byte past the 12-byte header is read (the buffer below
// is exactly the header, so ASan reports any read beyond it).  A length of
// 0x80000000 once overflowed the word bound and read far past the buffer.
TEST_F(GoldenTest, ChecksumOfNegativeLengthReadsOnlyTheHeader) {
   for (uint32_t len : {0x80000000u, 0x80000003u, 0xfffffff0u, 0xffffffffu, 0x80000021u}) {
      auto header = std::make_unique<uint8_t[]>(DVSDATA_HEADER_SIZE);
      std::fill_n(header.get(), DVSDATA_HEADER_SIZE, 0xab);
      PutU32(header.get(), 0, len);
      EXPECT_EQ(DVSDataChecksum(header.get()), 0u) << std::hex << len;

      // The readers refuse such a header before they sum anything.
      Blob b = MakeBlob({{"p", 0x20, "v"}});
      PutU32(b.bytes.data(), 0, len);
      DVSDataHandle h = nullptr;
      EXPECT_EQ(DVSData_Deserialize(&h, b.p(), b.size(), malloc, free), STATUS_BAD_PARAM);
      char v[4];
      EXPECT_EQ(DVSData_DeserializeGetPropVal(b.p(), b.size(), "p", v, sizeof v),
                STATUS_BAD_PARAM);
   }
}

// An empty list, then one record with an empty value.
TEST_F(GoldenTest, SmallListsSerializeToTheExpectedBytes) {
   List l;
   for (const std::vector<Rec> &recs : {std::vector<Rec>{}, std::vector<Rec>{{"a", 0x20, ""}}}) {
      for (const Rec &r : recs)
         l.Add(r.name, r.data, r.flag);
      void *blob = nullptr;
      uint32_t len = 0;
      ASSERT_EQ(DVSData_Serialize(l.h, &blob, &len, 6), STATUS_OK);
      ExpectBlobMatches(blob, len, MakeBlob(recs));
      DVSData_FreeAssocData(l.h, blob);
   }
}

TEST_F(GoldenTest, MultiRecordListSingleEntryAndRoundTrip) {
   std::string big(301, '\0');
   for (size_t i = 0; i < big.size(); ++i)
      big[i] = char(i * 7);
   const std::vector<Rec> recs = {{"com.ostrel.common.port.alias", 0x18, "uplink-1"},
                                  {"switchVersion", 0x10, std::string("\x06\0\0\0", 4)},
                                  {std::string(127, 'z'), 0x80000020, big},
                                  {"empty", 0x4, ""}};
   List l;
   for (const Rec &r : recs)
      l.Add(r.name, r.data, r.flag);
   const Blob want = MakeBlob(recs);
   ASSERT_EQ(want.size(), 12u + 152 + 148 + 444 + 144 + 4);
   EXPECT_EQ(DVSData_SerializedSize(l.h, 6), want.size());

   void *blob = nullptr;
   uint32_t len = 0;
   ASSERT_EQ(DVSData_Serialize(l.h, &blob, &len, 6), STATUS_OK);
   ExpectBlobMatches(blob, len, want);

   // Reading it back gives the same names, flags, values, order and size.
   DVSDataHandle h2 = nullptr;
   ASSERT_EQ(DVSData_Deserialize(&h2, blob, len, TestAlloc, TestFree), STATUS_OK);
   DVSData_FreeAssocData(l.h, blob);
   List copy(h2);
   EXPECT_EQ(Names(copy.h), Names(l.h));
   size_t i = 0;
   for (DVSDataEntry *e = copy.h->head; e; e = e->next, ++i)
      EXPECT_EQ(e->flag, recs[i].flag);
   for (const Rec &r : recs)
      EXPECT_EQ(Value(copy.h, r.name.c_str()), r.data) << r.name;
   blob = nullptr;
   ASSERT_EQ(DVSData_SerializeExTypeProp(copy.h, &blob, &len, 0), STATUS_OK);
   ExpectBlobMatches(blob, len, want);
   DVSData_FreeAssocData(copy.h, blob);

   // A single entry makes a blob of one record, and only into a new buffer.
   for (i = 1; i <= 2; ++i) {
      blob = nullptr;
      len = 1234;
      ASSERT_EQ(DVSData_SerializeEntry(l.h, recs[i].name.c_str(), &blob, &len), STATUS_OK);
      ExpectBlobMatches(blob, len, MakeBlob({recs[i]}));
      DVSData_FreeAssocData(l.h, blob);
   }
   std::vector<uint8_t> buf(4096, 0xcc);
   blob = buf.data();
   len = 4096;
   EXPECT_EQ(DVSData_SerializeEntry(l.h, "empty", &blob, &len), STATUS_LIMIT_EXCEEDED);
   blob = nullptr;
   EXPECT_EQ(DVSData_SerializeEntry(l.h, "absent", &blob, &len), STATUS_NOT_FOUND);
   EXPECT_EQ(len, 0u);
   EXPECT_EQ(blob, nullptr);
}

}  // namespace
