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

namespace {

// What a streamed listing hands over and throws.  The documents are added
// here, or listed on the helper (a listing answering listRc) when
// onHelper; take stops taking after stopAfter documents.
struct Streamed {
   std::vector<std::string> texts;  // each tree handed over, serialized
   std::vector<std::string> instances;
   std::string failure;  // what Stream threw, as text
   int32_t listRc = 0;
};

Streamed StreamAll(std::vector<StoredDocument> docs, bool onHelper, size_t stopAfter = SIZE_MAX,
                   int32_t listRc = 0) {
   Streamed out;
   DocumentBatch batch(nullptr);
   auto list = [&docs, &batch, listRc] {
      for (StoredDocument &d : docs) {
         batch.Add(std::move(d));
         std::this_thread::yield();
      }
      return listRc;
   };
   if (!onHelper || !batch.ListOnHelper(list)) {
      list();
      batch.Complete();
   }
   try {
      batch.Stream([&out, stopAfter](ParsedDocument &&d) {
         out.texts.push_back(SerializeDocument(*d.tree->Root()));
         out.instances.push_back(d.instance);
         return out.texts.size() < stopAfter;
      });
   } catch (const DocumentError &e) {
      out.failure = e.what();
      batch.Stop();
   }
   out.listRc = batch.ListResult();
   return out;
}

TEST(DocumentBatchTest, StreamedDocumentsComeInListingOrderWithTheFirstFailure) {
   for (bool onHelper : {false, true}) {
      SCOPED_TRACE(onHelper ? "listed on the helper" : "listed here");
      for (const auto &docs : {Listing(48, 60), Listing(3, 2), Listing(0, 0)}) {
         const Streamed got = StreamAll(docs, onHelper);
         EXPECT_EQ(got.failure, "");
         ASSERT_EQ(got.texts.size(), docs.size());
         for (size_t i = 0; i < docs.size(); i++) {
            EXPECT_EQ(got.instances[i], docs[i].instance);
            EXPECT_EQ(got.texts[i], SerializeDocument(*ParseDocument(docs[i].doc)->Root())) << i;
         }
      }
      // Every document before the first bad one is handed over, none
      // after it, and the failure is that document's, whichever thread
      // parsed which.
      const std::string empty = ParseFailure("{\"values\":{\"\":1}}");
      for (size_t first : {0u, 1u, 30u, 47u}) {
         auto docs = Listing(48, 60);
         docs[first].doc = "{\"values\":{\"\":1}}";
         for (size_t later = first + 1; later < docs.size(); later++) {
            docs[later].doc = "{\"bogus\":{}}";
         }
         const Streamed got = StreamAll(docs, onHelper);
         EXPECT_EQ(got.failure, empty) << first;
         EXPECT_EQ(got.texts.size(), first);
      }
      // A taker that stops still hears of a bad document after it.
      auto docs = Listing(48, 60);
      docs[40].doc = "{\"values\":{\"\":1}}";
      Streamed got = StreamAll(docs, onHelper, 5);
      EXPECT_EQ(got.texts.size(), 5u);
      EXPECT_EQ(got.failure, empty);
      got = StreamAll(Listing(48, 60), onHelper, 5);
      EXPECT_EQ(got.texts.size(), 5u);
      EXPECT_EQ(got.failure, "");
   }
   // A listing that fails answers its code after whatever it read, bad
   // documents included.
   Streamed got = StreamAll(Listing(20, 60), true, SIZE_MAX, 7);
   EXPECT_EQ(got.listRc, 7);
   EXPECT_EQ(got.texts.size(), 20u);
   auto docs = Listing(20, 60);
   docs[2].doc = "{";
   got = StreamAll(docs, true, SIZE_MAX, 7);
   EXPECT_EQ(got.listRc, 7);
   EXPECT_NE(got.failure, "");
}

}  // namespace
