// A listing's documents parsed as they are read: large listings are
// shared with a helper thread, and what comes back must be exactly what
// parsing one document after the other gives, failures included.
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "document.h"
#include "document_batch.h"

namespace {

using configstore::detail::DocumentBatch;
using configstore::detail::DocumentError;
using configstore::detail::kParallelParseBytes;
using configstore::detail::ParseDocument;
using configstore::detail::ParsedDocument;
using configstore::detail::SerializeDocument;
using configstore::detail::StoredDocument;

// A switch-like document: a few values and `ports` port entries, each
// with a value of its own and a nested settings object, so that every
// document differs from the others.
std::string SwitchDocument(int n, int ports) {
   std::string doc = "{\"values\":{\"uuid\":\"sw-" + std::to_string(n) +
                     "\",\"max_ports\":" + std::to_string(ports) +
                     ",\"on\":true,\"keys\":[\"a\",\"b\"]},\"subobjects\":{\"ports\":[";
   for (int p = 0; p < ports; p++) {
      doc += p == 0 ? "" : ",";
      doc += "{\"id\":\"" + std::to_string(p) + "\",\"values\":{\"key\":\"port-" +
             std::to_string(n * 1000 + p) + "\",\"vlan\":" + std::to_string(p % 4095) +
             "},\"subobjects\":{\"shaping\":[{\"values\":{\"peak\":" + std::to_string(n + p) +
             "}}]}}";
   }
   return doc + "],\"product\":[{\"values\":{\"class\":\"vswitch\"}}]}}";
}

std::vector<StoredDocument> Listing(int count, int ports) {
   std::vector<StoredDocument> docs;
   for (int n = 0; n < count; n++) {
      docs.push_back({"sw-" + std::to_string(n), SwitchDocument(n, ports)});
   }
   return docs;
}

size_t Bytes(const std::vector<StoredDocument> &docs) {
   size_t bytes = 0;
   for (const StoredDocument &d : docs) {
      bytes += d.doc.size();
   }
   return bytes;
}

// The listing through a batch, as a store read gives it.
std::vector<ParsedDocument> ParseAll(std::vector<StoredDocument> docs,
                                     const char *const *drop = nullptr) {
   DocumentBatch batch(drop);
   for (StoredDocument &d : docs) {
      batch.Add(std::move(d));
   }
   return batch.Finish();
}

// Every tree, in order, against the document parsed on its own.
void ExpectSameAsOneByOne(const std::vector<StoredDocument> &docs, const char *const *drop) {
   const auto parsed = ParseAll(docs, drop);
   ASSERT_EQ(parsed.size(), docs.size());
   for (size_t i = 0; i < docs.size(); i++) {
      EXPECT_EQ(parsed[i].instance, docs[i].instance);
      ASSERT_NE(parsed[i].tree, nullptr) << i;
      EXPECT_EQ(SerializeDocument(*parsed[i].tree->Root()),
                SerializeDocument(*ParseDocument(docs[i].doc, drop)->Root()))
         << "document " << i;
   }
}

TEST(DocumentBatchTest, TreesComeBackInListingOrderAsEachDocumentAlone) {
   const auto large = Listing(48, 60);
   ASSERT_GE(Bytes(large), kParallelParseBytes) << "the listing must take the helper";
   ExpectSameAsOneByOne(large, nullptr);
   static const char *const kDropPorts[] = {"ports", nullptr};
   ExpectSameAsOneByOne(large, kDropPorts);

   const auto small = Listing(3, 2);
   ASSERT_LT(Bytes(small), kParallelParseBytes);
   ExpectSameAsOneByOne(small, nullptr);
   EXPECT_TRUE(ParseAll({}).empty());
   ExpectSameAsOneByOne(Listing(1, 4000), nullptr);  // one large document
}

// What parsing one document throws, as text ("" when nothing).
std::string ParseFailure(const std::string &doc) {
   try {
      ParseDocument(doc);
   } catch (const DocumentError &e) {
      return e.what();
   }
   return "";
}

// What the batch throws, as text ("" when nothing).
std::string Failure(const std::vector<StoredDocument> &docs) {
   try {
      ParseAll(docs);
   } catch (const DocumentError &e) {
      return e.what();
   }
   return "";
}

TEST(DocumentBatchTest, TheFirstBadDocumentInListingOrderIsTheFailure) {
   // One document fails one way; every document after it fails another,
   // faster, way.  Whichever thread meets a failure first, the failure
   // reported is the one a parse in order stops at.
   const std::string empty = ParseFailure("{\"values\":{\"\":1}}");
   const std::string unknown = ParseFailure("{\"bogus\":{}}");
   ASSERT_NE(empty, unknown);
   for (size_t first : {0u, 1u, 20u, 46u, 47u}) {
      for (int round = 0; round < 10; round++) {
         auto docs = Listing(48, 60);
         docs[first].doc = "{\"values\":{\"\":1}}";
         for (size_t later = first + 1; later < docs.size(); later++) {
            docs[later].doc = "{\"bogus\":{}}";
         }
         ASSERT_EQ(Failure(docs), empty) << "first bad document " << first;
      }
   }
   // A failure anywhere means no trees at all.
   auto docs = Listing(48, 60);
   docs[30].doc = "{\"values\":";
   EXPECT_NE(Failure(docs), "");
}

TEST(DocumentBatchTest, ABatchLeftUnfinishedStopsItsHelper) {
   // A listing that fails on the way: the batch goes with documents
   // parsed, documents waiting, a helper waiting for more, and a bad
   // document among them or not; nothing must hang, leak or throw.
   for (bool bad : {false, true}) {
      for (size_t added : {0u, 5u, 47u}) {
         DocumentBatch batch(nullptr);
         auto docs = Listing(48, 60);
         if (bad) {
            docs[3].doc = "{";
         }
         for (size_t i = 0; i < added; i++) {
            batch.Add(std::move(docs[i]));
         }
      }
   }
   // The helper waits for documents while they come in slowly; the
   // result is the same.
   DocumentBatch batch(nullptr);
   auto docs = Listing(24, 120);
   ASSERT_GE(Bytes(docs), kParallelParseBytes);
   for (StoredDocument &d : docs) {
      batch.Add(StoredDocument(d));
      std::this_thread::sleep_for(std::chrono::microseconds(200));
   }
   const auto parsed = batch.Finish();
   ASSERT_EQ(parsed.size(), docs.size());
   for (size_t i = 0; i < docs.size(); i++) {
      EXPECT_EQ(SerializeDocument(*parsed[i].tree->Root()),
                SerializeDocument(*ParseDocument(docs[i].doc)->Root()));
   }
}

}  // namespace
