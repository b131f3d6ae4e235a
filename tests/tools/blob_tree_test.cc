// Decoding and rendering of property blobs by dvsctl_core.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "blob_tree.h"
#include "property_list.h"

namespace dvsctl {
namespace {

Bytes InnerBlob() {
   return PropertyListBuilder()
      .AppendString("com.ostrel.common.alias", "dvs-demo", 0x20)
      .AppendU32("com.ostrel.etherswitch.mtu", 9000, 0x20)
      .Serialize();
}

// An outer list with text, a small integer, a long binary value, a nested
// list and an empty nested list.
Bytes OuterBlob() {
   Bytes binary(100);
   for (size_t i = 0; i < binary.size(); ++i) {
      binary[i] = static_cast<uint8_t>(i);
   }
   return PropertyListBuilder()
      .AppendString("className", "ether\"switch", 0x10)
      .AppendU32("maxPorts", 128, 0x10)
      .Append("table", binary, 0x10)
      .Append("globalPropList", InnerBlob(), 0x10)
      .Append("hostPropList", PropertyListBuilder().Serialize(), 0x10)
      .Serialize();
}

BlobTree Decoded(const Bytes &blob) {
   BlobTree tree;
   EXPECT_EQ(DecodeBlobTree(blob, tree), STATUS_OK);
   return tree;
}

bool HasLine(const std::string &text, const std::string &line) {
   return ("\n" + text).find("\n" + line + "\n") != std::string::npos;
}

TEST(BlobTree, TextShowsHeaderValuesAndNestedRecords) {
   const Bytes blob = OuterBlob();
   const BlobTree tree = Decoded(blob);
   const std::string text = RenderText(tree);

   uint32_t checksum;
   std::memcpy(&checksum, blob.data() + 4, sizeof checksum);
   char header[80];
   std::snprintf(header, sizeof header, "blob: length %zu, 5 records, checksum 0x%08x", blob.size(),
                 checksum);
   EXPECT_TRUE(HasLine(text, header)) << text;

   // Names padded to the longest sibling, lengths right-aligned.
   EXPECT_TRUE(HasLine(text, "  className       flag 0x00000010  len  13  \"ether\\\"switch\""))
      << text;
   EXPECT_TRUE(HasLine(text, "  maxPorts        flag 0x00000010  len   4  80 00 00 00")) << text;
   EXPECT_NE(text.find("len 100  00 01 02"), std::string::npos) << text;
   EXPECT_NE(text.find(" 3e 3f ...\n"), std::string::npos) << "hex cut after 64 bytes\n" << text;
   EXPECT_EQ(text.find(" 40 "), std::string::npos) << text;

   // Nested records sit two spaces deeper, right under their property.
   const size_t global = text.find("  globalPropList  flag 0x00000010  len 316  blob, 2 records");
   const size_t alias =
      text.find("\n    com.ostrel.common.alias     flag 0x00000020  len 9  \"dvs-demo\"\n");
   const size_t mtu =
      text.find("\n    com.ostrel.etherswitch.mtu  flag 0x00000020  len 4  28 23 00 00\n");
   const size_t host = text.find("  hostPropList    flag 0x00000010  len  16  blob, 0 records");
   ASSERT_NE(global, std::string::npos) << text;
   EXPECT_TRUE(global < alias && alias < mtu && mtu < host) << text;

   TextOptions full;
   full.hexLimit = 0;
   const std::string fullText = RenderText(tree, full);
   EXPECT_NE(fullText.find(" 62 63\n"), std::string::npos) << fullText;
   EXPECT_EQ(fullText.find("..."), std::string::npos) << fullText;
}

TEST(BlobTree, JsonCarriesEveryFieldAndWholeValues) {
   const Bytes blob = OuterBlob();
   const auto json = RenderJson(Decoded(blob));

   EXPECT_EQ(json["length"], blob.size());
   const auto &props = json["properties"];
   ASSERT_EQ(props.size(), 5u);
   EXPECT_EQ(props[0]["name"], "className");
   EXPECT_EQ(props[0]["flag"], 0x10);
   EXPECT_EQ(props[0]["length"], 13);
   EXPECT_EQ(props[0]["text"], "ether\"switch");
   EXPECT_EQ(props[1]["hex"], "80000000");
   EXPECT_EQ(props[2]["hex"].get<std::string>().size(), 200u) << "JSON hex is never cut";
   EXPECT_FALSE(props[2].contains("text"));

   const auto &nested = props[3]["properties"];
   ASSERT_EQ(nested.size(), 2u);
   EXPECT_EQ(nested[0]["name"], "com.ostrel.common.alias");
   EXPECT_EQ(nested[0]["text"], "dvs-demo");
   EXPECT_EQ(nested[1]["hex"], "28230000");
   EXPECT_FALSE(props[3].contains("hex"));
   EXPECT_TRUE(props[4]["properties"].empty());
   EXPECT_FALSE(json.contains("hidden"));
}

TEST(BlobTree, ClassifiesAmbiguousValues) {
   Bytes damagedInner = InnerBlob();
   damagedInner[200] ^= 1;  // a name byte the checksum covers
   Bytes paddedInner = InnerBlob();
   paddedInner.push_back(0);  // header length differs from the value length

   const auto json = RenderJson(Decoded(PropertyListBuilder()
                                           .Append("inner", Bytes{'a', 'b', 0, 'c'}, 0x20)
                                           .Append("twoNuls", Bytes{'a', 0, 0}, 0x20)
                                           .Append("empty", Bytes{}, 0x20)
                                           .Append("lastByte", Bytes{'a', 'b', 1}, 0x20)
                                           .Append("noNul", Bytes{'x', 'y'}, 0x20)
                                           .Append("damaged", damagedInner, 0x20)
                                           .Append("padded", paddedInner, 0x20)
                                           .Serialize()));
   const auto &props = json["properties"];
   EXPECT_EQ(props[0]["hex"], "61620063");
   EXPECT_EQ(props[1]["hex"], "610000");
   EXPECT_EQ(props[2]["text"], "");
   EXPECT_EQ(props[3]["hex"], "616201");
   EXPECT_EQ(props[4]["text"], "xy");
   EXPECT_TRUE(props[5].contains("hex")) << "a damaged inner blob is shown as bytes";
   EXPECT_TRUE(props[6].contains("hex")) << "a blob with trailing bytes is not nested";
}

TEST(BlobTree, RejectsDamagedBlobsAndShowsOddRecordsSafely) {
   Bytes blob = OuterBlob();
   BlobTree tree;
   blob[blob.size() / 2] ^= 0x40;
   EXPECT_EQ(DecodeBlobTree(blob, tree), STATUS_BAD_CHECKSUM);
   EXPECT_NE(DecodeBlobTree(Bytes(blob.begin(), blob.begin() + 20), tree), STATUS_OK);
   EXPECT_NE(DecodeBlobTree(Bytes{}, tree), STATUS_OK);

   // No type mask selects a record with flag 0; say so rather than hide it.
   // Names from the file may hold control characters or invalid UTF-8.
   const BlobTree odd = Decoded(PropertyListBuilder()
                                   .AppendU32("tab\there\\", 1, 0x20)
                                   .AppendU32("unseen", 2, 0)
                                   .AppendU32("bad\x82", 3, 0x20)
                                   .Serialize());
   EXPECT_EQ(odd.properties.size(), 2u);
   const std::string text = RenderText(odd);
   EXPECT_NE(text.find("2 records, checksum 0x"), std::string::npos) << text;
   EXPECT_NE(text.find(", 1 with flag 0 not shown"), std::string::npos) << text;
   EXPECT_NE(text.find("\n  tab\\x09here\\\\  flag"), std::string::npos) << text;
   EXPECT_NE(text.find("\n  bad\\x82        flag"), std::string::npos) << text;
   EXPECT_EQ(RenderJson(odd)["hidden"], 1);
   std::string json;
   EXPECT_NO_THROW(json = RenderJsonText(odd));
   EXPECT_NE(json.find("\"bad\xef\xbf\xbd\""), std::string::npos) << json;
}

}  // namespace
}  // namespace dvsctl
