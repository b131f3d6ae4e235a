// Stored documents written behind the library's back and read with Get:
// the edges of what a document may be (byte order mark, end of text,
// integer range, surrogate escapes, nesting depth), which the reader must
// keep as they are.
#include <configstore.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

namespace configstore {
namespace {

class StoredDocumentTest : public ::testing::Test {
  protected:
   void SetUp() override {
      char tmpl[] = "/tmp/stored_document_test.XXXXXX";
      ASSERT_NE(mkdtemp(tmpl), nullptr);
      dir_ = tmpl;
      setenv(kPathEnv, (dir_ + "/store.db").c_str(), 1);
      ASSERT_EQ(GetStore(0, &store_), kSuccess);
      Object *o = nullptr;
      ASSERT_EQ(CreateObject("g", "o", "c", "x", "{}", &o), kSuccess);
      EXPECT_EQ(Set(store_, o, kSourceExternal), kSuccess);
      DestroyConfigStoreObject(o);
   }
   void TearDown() override {
      DestroyStore(store_);
      std::error_code ec;
      std::filesystem::remove_all(dir_, ec);
   }

   // Replaces the stored document of "x" with `doc` (which may hold NULs)
   // and reads it back: the Get code, and the value "v" as an integer
   // when the document was read.
   int32_t Read(const std::string &doc, int64_t *v = nullptr) {
      Store(doc);
      Object *o = nullptr;
      const int32_t rc = Get(store_, "g", "o", "c", "x", &o);
      if (rc == kSuccess && v != nullptr) {
         EXPECT_EQ(GetValueLong(o, "v", v), kSuccess);
      }
      DestroyConfigStoreObject(o);
      return rc;
   }

   // The document read with GetInstancesWithout, leaving out "k": the
   // code, and the object's sub-object keys in *keys when it was read.
   int32_t ReadWithoutK(const std::string &doc, std::vector<std::string> *keys = nullptr) {
      Store(doc);
      static const char *const kDrop[] = {"k", nullptr};
      FilterSpec *filter = nullptr;
      EXPECT_EQ(CreateFilterSpecObject("g", "o", "c", "", &filter), kSuccess);
      Object **objs = nullptr;
      uint32_t n = 0;
      const int32_t rc = GetInstancesWithout(store_, filter, kDrop, &objs, &n);
      DestroyFilterSpecObject(filter);
      if (rc == kSuccess && keys != nullptr && n == 1) {
         keys->clear();
         for (const char *key : {"k", "m", "n"}) {
            Object *sub = nullptr;
            if (GetSubObject(objs[0], key, "a", &sub) == kSuccess) {
               keys->push_back(key);
            }
         }
      }
      for (uint32_t i = 0; i < n; i++) {
         DestroyConfigStoreObject(objs[i]);
      }
      free(objs);
      return rc;
   }

   void Store(const std::string &doc) {
      sqlite3 *db = nullptr;
      sqlite3_stmt *stmt = nullptr;
      EXPECT_EQ(sqlite3_open((dir_ + "/store.db").c_str(), &db), SQLITE_OK);
      EXPECT_EQ(sqlite3_prepare_v2(db, "UPDATE objects SET doc = ?1", -1, &stmt, nullptr),
                SQLITE_OK);
      sqlite3_bind_text(stmt, 1, doc.data(), static_cast<int>(doc.size()), SQLITE_STATIC);
      EXPECT_EQ(sqlite3_step(stmt), SQLITE_DONE);
      sqlite3_finalize(stmt);
      sqlite3_close(db);
   }

   std::string dir_;
   configstore::Store *store_ = nullptr;
};

std::string Nested(int levels) {
   std::string s = "{";
   for (int i = 0; i < levels; ++i) {
      s += "\"subobjects\":{\"k\":[{";
   }
   s += "\"values\":{\"v\":[1]}";
   for (int i = 0; i < levels; ++i) {
      s += "}]}";
   }
   return s + "}";
}

TEST_F(StoredDocumentTest, TextEdges) {
   int64_t v = 1;
   EXPECT_EQ(Read("\xEF\xBB\xBF{\"values\":{\"v\":-0}}", &v), kSuccess);
   EXPECT_EQ(v, 0);
   EXPECT_EQ(Read(std::string("{\"values\":{\"v\":7}}\0trailing", 28), &v), kSuccess);
   EXPECT_EQ(v, 7);
   EXPECT_EQ(Read(std::string("{\"values\":{\"v\":\"a\0b\"}}", 22)), kBadJson);
   EXPECT_EQ(Read(" {} \n"), kSuccess);
   EXPECT_EQ(Read("{} {}"), kBadJson);
   EXPECT_EQ(Read("{}]"), kBadJson);
   EXPECT_EQ(Read("[]"), kBadJson);
   EXPECT_EQ(Read(""), kBadJson);
}

TEST_F(StoredDocumentTest, ValueEdges) {
   int64_t v = 0;
   EXPECT_EQ(Read("{\"values\":{\"v\":-9223372036854775808}}", &v), kSuccess);
   EXPECT_EQ(v, INT64_MIN);
   EXPECT_EQ(Read("{\"values\":{\"v\":9223372036854775808}}"), kBadJson);
   EXPECT_EQ(Read("{\"values\":{\"v\":-9223372036854775809}}"), kBadJson);
   EXPECT_EQ(Read("{\"values\":{\"v\":1.0}}"), kBadJson);
   EXPECT_EQ(Read("{\"values\":{\"v\":1e2}}"), kBadJson);
   EXPECT_EQ(Read("{\"values\":{\"v\":[1,\"a\"]}}"), kBadJson);
   EXPECT_EQ(Read("{\"values\":{\"v\":null}}"), kBadJson);
   EXPECT_EQ(Read("{\"values\":{\"s\":\"\\ud83d\\ude00\"}}"), kSuccess);
   EXPECT_EQ(Read("{\"values\":{\"s\":\"\\ud800\"}}"), kBadJson);
   EXPECT_EQ(Read("{\"values\":{\"s\":\"\\udc00\"}}"), kBadJson);
   EXPECT_EQ(Read("{\"values\":{\"s\":\"\x01\"}}"), kBadJson);
   EXPECT_EQ(Read("{\"values\":{\"s\":\"\xC0\xAF\"}}"), kBadJson);
   // A repeated name keeps its last value.
   EXPECT_EQ(Read("{\"values\":{\"v\":1,\"v\":2}}", &v), kSuccess);
   EXPECT_EQ(v, 2);
}

TEST_F(StoredDocumentTest, ShapeEdges) {
   EXPECT_EQ(Read(Nested(512)), kSuccess);
   EXPECT_EQ(Read(Nested(513)), kBadJson);
   EXPECT_EQ(Read("{\"subobjects\":{\"k\":[{\"id\":\"a\"},{\"id\":\"a\"}]}}"), kBadJson);
   EXPECT_EQ(Read("{\"subobjects\":{\"k\":[{\"id\":1}]}}"), kBadJson);
   EXPECT_EQ(Read("{\"id\":\"a\"}"), kBadJson);
   EXPECT_EQ(Read("{\"subobjects\":{\"k\":[{\"values\":{\"v\":1},\"id\":\"a\"}]}}"), kSuccess);
}

// A key left out by GetInstancesWithout is gone from the object, the
// other keys stay, and whatever would make Get refuse the document still
// does when it lies inside the key left out.
TEST_F(StoredDocumentTest, KeysLeftOutAreStillChecked) {
   std::vector<std::string> keys;
   const std::string good = "{\"subobjects\":{\"m\":[{\"id\":\"a\"}],\"k\":[{\"id\":\"a\","
                            "\"values\":{\"v\":1}},{\"id\":\"b\"}],\"n\":[{\"id\":\"a\"}]}}";
   ASSERT_EQ(Read(good), kSuccess);
   ASSERT_EQ(ReadWithoutK(good, &keys), kSuccess);
   EXPECT_EQ(keys, (std::vector<std::string>{"m", "n"}));

   for (const std::string &inK :
        {std::string("[{\"id\":\"a\"},{\"id\":\"a\"}]"), std::string("[{\"id\":1}]"),
         std::string("[{\"values\":{\"v\":1.5}}]"), std::string("[{\"other\":{}}]"),
         std::string("[7]"), std::string("{}")}) {
      const std::string doc = "{\"subobjects\":{\"m\":[{\"id\":\"a\"}],\"k\":" + inK + "}}";
      EXPECT_EQ(Read(doc), kBadJson) << inK;
      EXPECT_EQ(ReadWithoutK(doc), kBadJson) << inK;
   }
   // Every rule holds inside the entries left out, at any level below
   // them too: each text is read, or refused, alike either way.
   const std::pair<const char *, int32_t> kEntries[] = {
      {R"([{"id":"a","subobjects":{"x":[{"id":"q"},{"id":"q"}]}}])", kBadJson},
      {R"([{"id":"a","subobjects":{"x":[{"id":"q"}],"x":[{"id":"q"}]}}])", kSuccess},
      {R"([{"id":"a","subobjects":{"x":[]}}])", kSuccess},
      {R"([{"id":"a","subobjects":{"":[{"id":"q"}]}}])", kBadJson},
      {R"([{"id":"a","subobjects":{"x":{}}}])", kBadJson},
      {R"([{"values":{"l":[1,"a"]}}])", kBadJson},
      {R"([{"values":{"l":["a",1]}}])", kBadJson},
      {R"([{"values":{"l":[true]}}])", kBadJson},
      {R"([{"values":{"l":[],"m":["a","b"],"n":[1,-2]}}])", kSuccess},
      {R"([{"values":{"v":null}}])", kBadJson},
      {R"([{"values":{"v":{}}}])", kBadJson},
      {R"([{"values":{"v":true,"s":"a\u00e9\n"}}])", kSuccess},
      {R"([{"values":{"s":"\ud800"}}])", kBadJson},
      {R"([{"values":{"v":9223372036854775808}}])", kBadJson},
      {R"([{"values":{"v":-9223372036854775808}}])", kSuccess},
      {R"([{"values":{"":1}}])", kBadJson},
      {R"([{"values":{"v":1.5},"values":{"v":1}}])", kBadJson},
      {R"([{"values":{"v":1},"values":{"v":2}}])", kSuccess},
      {R"([{},{}])", kBadJson},
      {R"([{"id":"a"},{"id":"b","id":"a"}])", kBadJson},
      {R"([{"values":[]}])", kBadJson},
   };
   for (const auto &[inK, want] : kEntries) {
      const std::string doc = std::string("{\"subobjects\":{\"k\":") + inK + "}}";
      EXPECT_EQ(Read(doc), want) << inK;
      EXPECT_EQ(ReadWithoutK(doc), want) << inK;
   }
   // Long arrays too: a repeat of an early id far down, or of a late one.
   auto entries = [](std::vector<int> ids) {
      std::string text = "[";
      for (int id : ids) {
         text += (text.size() > 1 ? ",{\"id\":\"e" : "{\"id\":\"e") + std::to_string(id) + "\"}";
      }
      return text + "]";
   };
   const std::pair<std::vector<int>, int32_t> kLong[] = {
      {{0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11}, kSuccess},
      {{0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 2, 11}, kBadJson},
      {{0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 9}, kBadJson},
      {{0, 1, 2, 3, 4, 5, 6, 7, 7}, kBadJson},
   };
   for (const auto &[ids, want] : kLong) {
      const std::string inK = entries(ids);
      const std::string nested = "[{\"id\":\"a\",\"subobjects\":{\"x\":" + inK + "}}]";
      for (const std::string &k : {inK, nested}) {
         const std::string doc = "{\"subobjects\":{\"k\":" + k + "}}";
         EXPECT_EQ(Read(doc), want) << k;
         EXPECT_EQ(ReadWithoutK(doc), want) << k;
      }
   }
   // Depth counts inside the key left out as anywhere else.
   std::string deep = Nested(512), tooDeep = Nested(513);
   EXPECT_EQ(ReadWithoutK(deep), kSuccess);
   EXPECT_EQ(ReadWithoutK(tooDeep), kBadJson);
}

}  // namespace
}  // namespace configstore
