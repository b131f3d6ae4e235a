// The one-pass checksum of nested blobs: the same checksum as the plain sum
// on any bytes, and a remembered sum for a value only when it is the true
// sum of exactly that value, whatever damage the blob has.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "data/nested_sums.h"
#include "tests/support/blob_layout.h"

namespace {

using testsupport::Blob;
using testsupport::MakeBlob;
using testsupport::Rec;

std::string Bytes(const Blob &b) {
   return std::string(reinterpret_cast<const char *>(b.bytes.data()), b.bytes.size());
}

// Word sum written out plainly, for comparison.
uint32_t RefWordSum(const uint8_t *p, uint32_t len) {
   uint32_t sum = 0;
   for (uint32_t i = 0; i + 4 <= len; i += 4) {
      sum += testsupport::GetU32(p, i);
   }
   return sum;
}

// A host blob of switch blobs of port blobs, with values of every padding
// and a switch record that is not a blob.
Blob HostBlob(int switches, int ports) {
   std::vector<Rec> host;
   for (int s = 0; s < switches; s++) {
      std::vector<Rec> sw = {{"switchVersion", 16, std::string(4, 's')},
                             {"className", 16, std::string("vswitch\0", 8)}};
      for (int p = 0; p < ports; p++) {
         // Every other port is large enough to have its sum remembered.
         std::vector<Rec> port;
         for (int i = 0; i < 5; i++) {
            const size_t len = i == 4 && p % 2 == 0 ? 1200u : static_cast<size_t>(i + p + s);
            port.push_back({"prop" + std::to_string(i), 16, std::string(len, static_cast<char>('a' + i))});
         }
         sw.push_back({"port" + std::to_string(p), 16, Bytes(MakeBlob(port))});
      }
      host.push_back({"sw" + std::to_string(s), 16, Bytes(MakeBlob(sw))});
   }
   host.push_back({"odd", 16, std::string(21, 'o')});
   return MakeBlob(host);
}

// Every value the blob's bytes could describe (a length word right before
// it, as a record has): when Find gives a sum, it is the true one.
void ExpectSumsTrue(const dvs::data::NestedSums &sums, const uint8_t *blob, uint32_t len,
                    int *found) {
   for (uint32_t off = 4; off + 16 <= len; off += 4) {
      const uint32_t vlen = testsupport::GetU32(blob, off - 4);
      if (vlen > len - off) {
         continue;
      }
      if (const uint32_t *sum = sums.Find(blob + off, vlen)) {
         EXPECT_EQ(*sum, RefWordSum(blob + off, vlen)) << "value at " << off << " of " << vlen;
         ++*found;
      }
   }
}

TEST(NestedSumsTest, ChecksumAndValueSumsHoldOnAnyBytes) {
   const Blob good = HostBlob(2, 3);
   dvs::data::NestedSums sums;
   ASSERT_EQ(sums.Checksum(good.bytes.data(), good.size()), testsupport::RefChecksum(good.bytes.data()));
   int found = 0;
   ExpectSumsTrue(sums, good.bytes.data(), good.size(), &found);
   EXPECT_EQ(found, 2 + 2 * 2) << "each switch blob and each large port blob";

   // Damage: any byte changed (lengths, names, markers), the header's
   // length made shorter, odd, or past the records.
   std::mt19937 rng(7);
   for (int round = 0; round < 400; round++) {
      Blob bad = good;
      const int flips = 1 + static_cast<int>(rng() % 4);
      for (int i = 0; i < flips; i++) {
         bad.bytes[rng() % bad.size()] ^= static_cast<uint8_t>(1u << (rng() % 8));
      }
      uint32_t length = bad.size();
      if (round % 3 == 0) {
         length = 16 + static_cast<uint32_t>(rng() % (bad.size() - 15));
         testsupport::PutU32(bad.p(), 0, length);
      }
      dvs::data::NestedSums damaged;
      ASSERT_EQ(damaged.Checksum(bad.bytes.data(), length), testsupport::RefChecksum(bad.bytes.data()))
         << "round " << round;
      ExpectSumsTrue(damaged, bad.bytes.data(), length, &found);
   }
   // A length that reads as negative sums nothing, as the plain checksum.
   Blob huge = good;
   testsupport::PutU32(huge.p(), 0, 0x80000010u);
   EXPECT_EQ(sums.Checksum(huge.bytes.data(), 0x80000010u), 0u);
   EXPECT_EQ(sums.Find(good.bytes.data() + 152, 16), nullptr) << "a new pass forgets the old";
}

TEST(NestedSumsTest, LookupsInAnyOrderAndChecksumsFromSums) {
   const Blob host = HostBlob(3, 4);
   const uint8_t *b = host.bytes.data();
   dvs::data::NestedSums sums;
   sums.Checksum(b, host.size());
   // The values in blob order, then backwards: both find each one.
   std::vector<std::pair<uint32_t, uint32_t>> values;
   for (uint32_t off = 12; off < host.size() - 4;) {
      const uint32_t serial = testsupport::GetU32(b, off), dataLen = testsupport::GetU32(b, off + 136);
      if (dataLen >= 16 && dataLen % 4 == 0) {
         values.emplace_back(off + 140, dataLen);
      }
      off += serial;
   }
   ASSERT_EQ(values.size(), 3u);
   // Inside a switch blob: a large port blob's sum is there, a small one's
   // is left to its reader.
   int large = 0, small = 0;
   const uint8_t *sw = b + values[1].first;
   for (uint32_t off = 12; off < values[1].second - 4;) {
      const uint32_t serial = testsupport::GetU32(sw, off), dataLen = testsupport::GetU32(sw, off + 136);
      if (dataLen >= 16) {
         const uint32_t *sum = sums.Find(sw + off + 140, dataLen);
         if (dataLen >= 1024) {
            ASSERT_NE(sum, nullptr);
            EXPECT_EQ(*sum, RefWordSum(sw + off + 140, dataLen));
            ++large;
         } else {
            EXPECT_EQ(sum, nullptr);
            ++small;
         }
      }
      off += serial;
   }
   EXPECT_EQ(std::make_pair(large, small), std::make_pair(2, 2));
   for (int pass = 0; pass < 2; pass++) {
      for (size_t i = 0; i < values.size(); i++) {
         const auto &[off, len] = values[pass == 0 ? i : values.size() - 1 - i];
         const uint32_t *sum = sums.Find(b + off, len);
         ASSERT_NE(sum, nullptr);
         uint32_t checksum = 0;
         ASSERT_TRUE(dvs::data::ChecksumFromWordSum(b + off, len, *sum, &checksum));
         EXPECT_EQ(checksum, testsupport::RefChecksum(b + off));
         EXPECT_EQ(sums.Find(b + off, len - 4), nullptr) << "the length must match too";
      }
   }

   // A checksum from a sum needs the header's length to be the value's
   // length and a whole number of words; short blobs sum nothing.
   Blob empty = MakeBlob({});
   uint32_t checksum = 1;
   EXPECT_TRUE(dvs::data::ChecksumFromWordSum(empty.p(), 16, RefWordSum(empty.p(), 16), &checksum));
   EXPECT_EQ(checksum, 0u);
   Blob one = MakeBlob({{"a", 16, "xyz"}});
   EXPECT_FALSE(dvs::data::ChecksumFromWordSum(one.p(), one.size() + 4, 0, &checksum));
   testsupport::PutU32(one.p(), 0, one.size() - 1);
   EXPECT_FALSE(dvs::data::ChecksumFromWordSum(one.p(), one.size() - 1, 0, &checksum));
}

}  // namespace
