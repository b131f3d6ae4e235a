#include "configstore.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <regex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "etcd_cluster.h"

namespace {

using namespace configstore;

constexpr const char *kGroup = "net";
constexpr const char *kObj = "dvswitch";
constexpr const char *kComp = "ports";

struct StoreDel {
   void operator()(Store *s) const { DestroyStore(s); }
};
struct ObjDel {
   void operator()(Object *o) const { DestroyConfigStoreObject(o); }
};
struct FilterDel {
   void operator()(FilterSpec *f) const { DestroyFilterSpecObject(f); }
};
using StorePtr = std::unique_ptr<Store, StoreDel>;
using ObjPtr = std::unique_ptr<Object, ObjDel>;
using FilterPtr = std::unique_ptr<FilterSpec, FilterDel>;

/* Owns an object array handed out by the library. */
struct ObjArray {
   ~ObjArray() {
      for (uint32_t i = 0; items && i < count; i++)
         DestroyConfigStoreObject(items[i]);
      free(items);
   }
   Object **items = nullptr;
   uint32_t count = 0;
};

FilterPtr Filter(const char *a, const char *b, const char *c, const char *d) {
   FilterSpec *f = nullptr;
   EXPECT_EQ(CreateFilterSpecObject(a, b, c, d, &f), kSuccess);
   return FilterPtr(f);
}

std::optional<std::string> Str(Object *o, const char *key) {
   char *v = nullptr;
   if (GetValueStr(o, key, &v) != kSuccess)
      return std::nullopt;
   std::string s = v;
   free(v);
   return s;
}

std::vector<std::string> Values(const ObjArray &a, const char *key) {
   std::vector<std::string> out;
   for (uint32_t i = 0; i < a.count; i++)
      out.push_back(Str(a.items[i], key).value_or("<none>"));
   return out;
}

std::vector<std::string> SubKeys(Object *parent, const char *key) {
   ObjArray a;
   auto f = Filter(key, "", "", "");
   int32_t rc = GetSubObjectInstances(parent, f.get(), &a.items, &a.count);
   EXPECT_TRUE(rc == kSuccess || rc == kNotFound) << rc;
   return Values(a, "key");
}

/* One single-member etcd cluster for every etcd case of the suite, started
   by the first of them and stopped when the suite ends. */
class SharedEtcd : public ::testing::Environment {
  public:
   static configstore_test::EtcdCluster *Get() {
      if (!cluster_) {
         cluster_ = std::make_unique<configstore_test::EtcdCluster>();
         if (!cluster_->Start(1, kRequestLimit))
            fprintf(stderr, "etcd did not start: %s\n", cluster_->Error().c_str());
      }
      return cluster_.get();
   }
   void TearDown() override { cluster_.reset(); }
   /* Small, so that the size-limit case stays fast. */
   static constexpr long kRequestLimit = 1L << 20;

  private:
   static std::unique_ptr<configstore_test::EtcdCluster> cluster_;
};
std::unique_ptr<configstore_test::EtcdCluster> SharedEtcd::cluster_;
const auto *const kEtcdEnv = ::testing::AddGlobalTestEnvironment(new SharedEtcd);

/* Sets environment variables for one test and puts the old values back. */
class EnvGuard {
  public:
   ~EnvGuard() {
      for (auto &[name, old] : saved_)
         old ? setenv(name.c_str(), old->c_str(), 1) : unsetenv(name.c_str());
   }
   void Set(const char *name, const std::string &value) {
      if (saved_.count(name) == 0) {
         const char *v = getenv(name);
         saved_[name] = v ? std::optional<std::string>(v) : std::nullopt;
      }
      setenv(name, value.c_str(), 1);
   }

  private:
   std::map<std::string, std::optional<std::string>> saved_;
};

/* A store of its own for each test: a fresh SQLite file, or a fresh key
   prefix of the shared etcd cluster. */
class StoreFixture : public ::testing::Test {
  protected:
   virtual bool UseEtcd() const { return false; }
   void SetUp() override {
      char tmpl[] = "/tmp/configstore_test.XXXXXX";
      ASSERT_NE(mkdtemp(tmpl), nullptr);
      dir_ = tmpl;
      path_ = dir_ + "/store.db";
      env_.Set(kPathEnv, path_);
      env_.Set(kUrlEnv, "");
      if (UseEtcd()) {
         auto *cluster = SharedEtcd::Get();
         ASSERT_TRUE(cluster->Error().empty()) << cluster->Error();
         static int serial = 0;
         std::string endpoints;
         for (const auto &e : cluster->Endpoints())
            endpoints += (endpoints.empty() ? "" : ",") + e;
         url_ = "etcd://" + endpoints + "/t" + std::to_string(getpid()) + "-" +
                std::to_string(serial++);
         env_.Set(kUrlEnv, url_);
         env_.Set(kHostEnv, "host-a");
      }
   }
   void TearDown() override {
      std::error_code ec;
      std::filesystem::remove_all(dir_, ec);
   }

   static StorePtr Open() {
      Store *s = nullptr;
      EXPECT_EQ(GetStore(0, &s), kSuccess);
      return StorePtr(s);
   }

   /* Writes top-level instance `id` carrying "value" = `value`. */
   static int32_t Put(Store *s, const char *id, const char *value,
                      const char *source = kSourceExternal) {
      Object *o = nullptr;
      int32_t rc = CreateObject(kGroup, kObj, kComp, id, "{}", &o);
      if (rc != kSuccess)
         return rc;
      ObjPtr obj(o);
      SetValueStr(o, "name", id);
      SetValueStr(o, "value", value);
      return Set(s, o, source);
   }

   /* The live "value" of instance `id`, or nullopt when the object is absent. */
   static std::optional<std::string> Fetch(Store *s, const char *id) {
      Object *o = nullptr;
      int32_t rc = Get(s, kGroup, kObj, kComp, id, &o);
      EXPECT_TRUE(rc == kSuccess || rc == kNotFound) << id << ": " << rc;
      if (rc != kSuccess)
         return std::nullopt;
      ObjPtr obj(o);
      return Str(o, "value").value_or("<no value>");
   }

   std::string dir_, path_, url_;
   EnvGuard env_;
};

/* The suite every backend must pass. */
class ConfigStoreTest : public StoreFixture, public ::testing::WithParamInterface<std::string> {
  protected:
   bool UseEtcd() const override { return GetParam() == "etcd"; }
};
INSTANTIATE_TEST_SUITE_P(Backends, ConfigStoreTest, ::testing::Values("sqlite", "etcd"),
                         [](const auto &info) { return info.param; });

/* What only a store file has. */
class SqliteStoreTest : public StoreFixture {};

TEST_P(ConfigStoreTest, LiveAndDesiredDocuments) {
   auto s = Open();
   EXPECT_EQ(Fetch(s.get(), "a"), std::nullopt);
   ASSERT_EQ(Put(s.get(), "a", "live-a"), kSuccess);
   ASSERT_EQ(Put(s.get(), "b", "live-b"), kSuccess);
   ASSERT_EQ(Put(s.get(), "a", "want-a", kSourceUser), kSuccess);
   ASSERT_EQ(Put(s.get(), "u", "want-u", kSourceUser), kSuccess);
   ASSERT_EQ(Put(s.get(), "a", "live-a2"), kSuccess);  // overwrite

   // A second connection sees the live documents only; "u" exists only as desired.
   auto other = Open();
   EXPECT_EQ(Fetch(other.get(), "a"), "live-a2");
   EXPECT_EQ(Fetch(other.get(), "b"), "live-b");
   EXPECT_EQ(Fetch(other.get(), "u"), std::nullopt);

   ObjArray all;
   ASSERT_EQ(
      GetInstances(other.get(), Filter(kGroup, kObj, kComp, "").get(), &all.items, &all.count),
      kSuccess);
   auto names = Values(all, "name");
   EXPECT_EQ(std::multiset<std::string>(names.begin(), names.end()),
             (std::multiset<std::string>{"a", "b"}));
   ObjArray one;
   ASSERT_EQ(
      GetInstances(other.get(), Filter(kGroup, kObj, kComp, "b").get(), &one.items, &one.count),
      kSuccess);
   EXPECT_EQ(Values(one, "value"), std::vector<std::string>{"live-b"});

   ObjArray desired;
   ASSERT_EQ(GetDesiredUserConfigInstances(kGroup, kObj, kComp, &desired.items, &desired.count),
             kSuccess);
   auto want = Values(desired, "value");
   EXPECT_EQ(std::multiset<std::string>(want.begin(), want.end()),
             (std::multiset<std::string>{"want-a", "want-u"}));

   // Delete drops both documents of one instance and nothing else.
   EXPECT_EQ(Delete(s.get(), kGroup, kObj, kComp, "a"), kSuccess);
   EXPECT_EQ(Fetch(other.get(), "a"), std::nullopt);
   EXPECT_EQ(Fetch(other.get(), "b"), "live-b");
   EXPECT_EQ(Delete(s.get(), kGroup, kObj, kComp, "a"), kNotFound);
   ObjArray after;
   ASSERT_EQ(GetDesiredUserConfigInstances(kGroup, kObj, kComp, &after.items, &after.count),
             kSuccess);
   EXPECT_EQ(Values(after, "value"), std::vector<std::string>{"want-u"});
}

// A list overwritten by another value, or emptied, keeps none of its old
// elements, in memory and once stored.
TEST_P(ConfigStoreTest, OverwrittenListsKeepNoOldElements) {
   Object *o = nullptr;
   ASSERT_EQ(CreateObject(kGroup, kObj, kComp, "lists", "{}", &o), kSuccess);
   ObjPtr obj(o);
   auto names = [](Object *x, const char *key) {
      char **v = nullptr;
      uint32_t n = 0;
      std::vector<std::string> out;
      if (GetValueStringArray(x, key, &v, &n) != kSuccess) {
         out.push_back("(not a string list)");
         return out;
      }
      out.assign(v, v + n);
      DestroyStringArrayValue(v, n);
      return out;
   };
   using Names = std::vector<std::string>;
   ASSERT_EQ(AppendValueString(o, "a", "x"), kSuccess);
   ASSERT_EQ(AppendValueString(o, "a", "y"), kSuccess);
   ASSERT_EQ(SetValueEmptyList(o, "a"), kSuccess);
   EXPECT_EQ(names(o, "a"), Names{});
   ASSERT_EQ(AppendValueString(o, "a", "z"), kSuccess);
   EXPECT_EQ(names(o, "a"), Names{"z"});

   ASSERT_EQ(AppendValueInt(o, "b", 1), kSuccess);
   ASSERT_EQ(SetValueStr(o, "b", "plain"), kSuccess);
   EXPECT_EQ(AppendValueInt(o, "b", 2), kTypeMismatch);
   ASSERT_EQ(SetValueEmptyList(o, "b"), kSuccess);
   ASSERT_EQ(AppendValueString(o, "b", "now text"), kSuccess);
   EXPECT_EQ(names(o, "b"), Names{"now text"});

   ASSERT_EQ(Set(Open().get(), o, kSourceExternal), kSuccess);
   auto s = Open();
   Object *back = nullptr;
   ASSERT_EQ(Get(s.get(), kGroup, kObj, kComp, "lists", &back), kSuccess);
   ObjPtr backObj(back);
   EXPECT_EQ(names(back, "a"), Names{"z"});
   EXPECT_EQ(names(back, "b"), Names{"now text"});
   // A list read from the store changes like one made in memory.
   ASSERT_EQ(SetValueEmptyList(back, "a"), kSuccess);
   ASSERT_EQ(AppendValueString(back, "a", "again"), kSuccess);
   EXPECT_EQ(names(back, "a"), Names{"again"});
}

TEST_P(ConfigStoreTest, TypedValuesAndRanges) {
   Object *o = nullptr;
   ASSERT_EQ(CreateObject(kGroup, kObj, kComp, "v", "{}", &o), kSuccess);
   ObjPtr obj(o);
   ASSERT_EQ(SetValueStr(o, "s", "text"), kSuccess);
   ASSERT_EQ(SetValueInt(o, "neg", -1), kSuccess);
   ASSERT_EQ(SetValueUint32(o, "big", 70000), kSuccess);
   ASSERT_EQ(SetValueUint32(o, "max32", UINT32_MAX), kSuccess);
   ASSERT_EQ(SetValueUint16(o, "port", 65535), kSuccess);
   ASSERT_EQ(SetValueLong(o, "huge", int64_t{1} << 40), kSuccess);
   ASSERT_EQ(SetValueLong(o, "min64", INT64_MIN), kSuccess);
   ASSERT_EQ(SetValueBool(o, "flag", true), kSuccess);
   ASSERT_EQ(SetValueEmptyList(o, "empty"), kSuccess);
   ASSERT_EQ(AppendValueString(o, "names", "x"), kSuccess);  // creates the list
   ASSERT_EQ(AppendValueString(o, "names", "y"), kSuccess);
   ASSERT_EQ(AppendValueInt(o, "nums", 5), kSuccess);
   ASSERT_EQ(SetValueStr(o, "gone", "soon"), kSuccess);
   ASSERT_EQ(RemoveValue(o, "gone"), kSuccess);
   EXPECT_EQ(RemoveValue(o, "gone"), kNotFound);
   EXPECT_EQ(AppendValueString(o, "s", "z"), kTypeMismatch);  // not a list

   // Everything is checked before storing and again after a reopen.
   auto check = [](Object *x, const char *when) {
      SCOPED_TRACE(when);
      int32_t i = 0;
      uint32_t u = 0;
      uint16_t h = 0;
      int64_t l = 0;
      bool b = false;
      EXPECT_EQ(Str(x, "s"), "text");
      EXPECT_EQ(GetValueInt(x, "neg", &i), kSuccess);
      EXPECT_EQ(i, -1);
      EXPECT_EQ(GetValueUint32(x, "neg", &u), kTypeMismatch);
      EXPECT_EQ(GetValueUint16(x, "big", &h), kTypeMismatch);
      EXPECT_EQ(GetValueInt(x, "big", &i), kSuccess);
      EXPECT_EQ(i, 70000);
      EXPECT_EQ(GetValueUint32(x, "max32", &u), kSuccess);
      EXPECT_EQ(u, UINT32_MAX);
      EXPECT_EQ(GetValueInt(x, "max32", &i), kTypeMismatch);
      EXPECT_EQ(GetValueUint16(x, "port", &h), kSuccess);
      EXPECT_EQ(h, 65535);
      EXPECT_EQ(GetValueInt(x, "huge", &i), kTypeMismatch);
      EXPECT_EQ(GetValueLong(x, "huge", &l), kSuccess);
      EXPECT_EQ(l, int64_t{1} << 40);
      EXPECT_EQ(GetValueLong(x, "min64", &l), kSuccess);
      EXPECT_EQ(l, INT64_MIN);
      EXPECT_EQ(GetValueBool(x, "flag", &b), kSuccess);
      EXPECT_TRUE(b);
      // Wrong kinds.
      EXPECT_EQ(GetValueInt(x, "s", &i), kTypeMismatch);
      EXPECT_EQ(GetValueInt(x, "flag", &i), kTypeMismatch);
      EXPECT_EQ(GetValueBool(x, "neg", &b), kTypeMismatch);
      EXPECT_EQ(GetValueInt(x, "nums", &i), kTypeMismatch);
      char *str = nullptr;
      EXPECT_EQ(GetValueStr(x, "neg", &str), kTypeMismatch);
      // Absent values.
      EXPECT_EQ(GetValueInt(x, "gone", &i), kNotFound);
      EXPECT_EQ(GetValueStr(x, "gone", &str), kNotFound);
      // Lists.
      char **arr = nullptr;
      uint32_t n = 99;
      ASSERT_EQ(GetValueStringArray(x, "empty", &arr, &n), kSuccess);
      EXPECT_EQ(n, 0u);
      DestroyStringArrayValue(arr, n);
      ASSERT_EQ(GetValueStringArray(x, "names", &arr, &n), kSuccess);
      ASSERT_EQ(n, 2u);
      EXPECT_STREQ(arr[0], "x");
      EXPECT_STREQ(arr[1], "y");
      DestroyStringArrayValue(arr, n);
      EXPECT_EQ(GetValueStringArray(x, "s", &arr, &n), kTypeMismatch);
      EXPECT_EQ(GetValueStringArray(x, "gone", &arr, &n), kNotFound);
   };
   check(o, "in memory");
   auto s = Open();
   ASSERT_EQ(Set(s.get(), o, kSourceExternal), kSuccess);
   StorePtr again = Open();
   Object *back = nullptr;
   ASSERT_EQ(Get(again.get(), kGroup, kObj, kComp, "v", &back), kSuccess);
   ObjPtr backPtr(back);
   check(back, "after reopen");

   // A value may change kind when set again.
   ASSERT_EQ(SetValueInt(back, "s", 3), kSuccess);
   int32_t i = 0;
   EXPECT_EQ(GetValueInt(back, "s", &i), kSuccess);
   EXPECT_EQ(i, 3);
}

// One store handle writes a large document and then small ones: each is
// stored as its own text, nothing of the one before it left behind.
TEST_P(ConfigStoreTest, DocumentsWrittenInTurnKeepTheirOwnText) {
   auto s = Open();
   const std::string big(70000, 'b');
   const char *texts[] = {big.c_str(), "x", "quote \" and \u00e9", ""};
   int n = 0;
   for (const char *text : texts) {
      Object *o = nullptr;
      const std::string id = "turn" + std::to_string(n++);
      ASSERT_EQ(CreateObject(kGroup, kObj, kComp, id.c_str(), "{}", &o), kSuccess);
      ObjPtr obj(o);
      ASSERT_EQ(SetValueStr(o, "v", text), kSuccess);
      ASSERT_EQ(Set(s.get(), o, kSourceExternal), kSuccess);
   }
   auto again = Open();
   n = 0;
   for (const char *text : texts) {
      const std::string id = "turn" + std::to_string(n++);
      Object *back = nullptr;
      ASSERT_EQ(Get(again.get(), kGroup, kObj, kComp, id.c_str(), &back), kSuccess) << id;
      ObjPtr backObj(back);
      EXPECT_EQ(Str(back, "v"), text) << id;
   }
}

TEST_P(ConfigStoreTest, StringsNeedingEscapesSurviveReopen) {
   // Quotes, backslashes, every control character, DEL and 2-, 3- and
   // 4-byte UTF-8, as a value, a list element, a sub-object key and an id.
   std::string text = "q\"b\\s/";
   for (char c = 1; c < 0x20; c++)
      text += c;
   text +=
      "\x7f"
      "\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80 end";
   const std::string key = "k\"\\\n\xc3\xa9";
   Object *o = nullptr;
   ASSERT_EQ(CreateObject(kGroup, kObj, kComp, "esc", "{}", &o), kSuccess);
   ObjPtr obj(o);
   Object *sub = nullptr;
   ASSERT_EQ(SetValueStr(o, key.c_str(), text.c_str()), kSuccess);
   ASSERT_EQ(AppendValueString(o, "list", text.c_str()), kSuccess);
   ASSERT_EQ(CreateSubObject(o, key.c_str(), text.c_str(), &sub), kSuccess);
   ASSERT_EQ(SetValueStr(sub, "v", text.c_str()), kSuccess);
   ASSERT_EQ(Set(Open().get(), o, kSourceExternal), kSuccess);

   auto s = Open();
   Object *back = nullptr;
   ASSERT_EQ(Get(s.get(), kGroup, kObj, kComp, "esc", &back), kSuccess);
   ObjPtr backObj(back);
   EXPECT_EQ(Str(back, key.c_str()), text);
   char **items = nullptr;
   uint32_t count = 0;
   ASSERT_EQ(GetValueStringArray(back, "list", &items, &count), kSuccess);
   ASSERT_EQ(count, 1u);
   EXPECT_EQ(std::string(items[0]), text);
   DestroyStringArrayValue(items, count);
   ASSERT_EQ(GetSubObject(back, key.c_str(), text.c_str(), &sub), kSuccess);
   ObjPtr subObj(sub);
   EXPECT_EQ(Str(sub, "v"), text);

   // The writer passes runs of plain text eight bytes at a time: a byte
   // needing care is escaped (or checked) wherever it stands in a long text.
   const std::string plain = "0123456789abcdefghijklm";
   std::vector<std::string> placed;
   for (const char *odd : {"\"", "\\", "\x01", "\x1f", "\n", "\x7f", "\xc3\xa9", "\xf0\x9f\x98\x80"}) {
      for (size_t at = 0; at <= plain.size(); at++) {
         placed.push_back(plain.substr(0, at) + odd + plain.substr(at));
      }
   }
   Object *many = nullptr;
   ASSERT_EQ(CreateObject(kGroup, kObj, kComp, "placed", "{}", &many), kSuccess);
   ObjPtr manyObj(many);
   for (const std::string &t : placed) {
      ASSERT_EQ(AppendValueString(many, "list", t.c_str()), kSuccess);
   }
   ASSERT_EQ(Set(s.get(), many, kSourceExternal), kSuccess);
   ASSERT_EQ(Get(s.get(), kGroup, kObj, kComp, "placed", &back), kSuccess);
   ObjPtr placedBack(back);
   ASSERT_EQ(GetValueStringArray(back, "list", &items, &count), kSuccess);
   ASSERT_EQ(count, placed.size());
   for (uint32_t i = 0; i < count; i++) {
      EXPECT_EQ(std::string(items[i]), placed[i]) << i;
   }
   DestroyStringArrayValue(items, count);

   // Text that is not UTF-8 (a cut-off sequence, a lone continuation byte,
   // an overlong form, a surrogate) cannot be stored as JSON, also after a
   // long plain run.
   for (std::string bad : {"a\xc3", "\x80", "\xc0\xaf", "\xed\xa0\x80"}) {
      for (const std::string &text : {bad, plain + bad, plain.substr(0, 9) + bad + plain}) {
         ASSERT_EQ(SetValueStr(o, "bad", text.c_str()), kSuccess);
         EXPECT_EQ(Set(s.get(), o, kSourceExternal), kBadJson) << text;
      }
   }
}

TEST_P(ConfigStoreTest, NestedSubObjectsKeepCreationOrder) {
   Object *root = nullptr;
   ASSERT_EQ(CreateObject(kGroup, kObj, kComp, "sw0", "{}", &root), kSuccess);
   ObjPtr rootPtr(root);

   // Generated ids are random, so a store sorting by id would reorder them.
   std::vector<std::string> ids = {"p9", "p1", "p5"};
   for (int i = 0; i < 12; i++) {
      char *id = nullptr;
      ASSERT_EQ(GenerateInstanceId(&id), kSuccess);
      ids.push_back(id);
      free(id);
   }
   for (const auto &id : ids) {
      Object *port = nullptr;
      ASSERT_EQ(CreateSubObject(root, "port", id.c_str(), &port), kSuccess);
      ASSERT_EQ(SetValueStr(port, "alias", ("alias-" + id).c_str()), kSuccess);
   }
   Object *p1 = nullptr, *q = nullptr, *deep = nullptr, *settings = nullptr;
   ASSERT_EQ(GetSubObject(root, "port", "p1", &p1), kSuccess);
   ASSERT_EQ(CreateSubObject(p1, "queue", "q1", &q), kSuccess);
   ASSERT_EQ(SetValueStr(q, "key", "custom"), kSuccess);  // explicit key is kept
   ASSERT_EQ(CreateSubObject(q, "shaper", nullptr, &deep), kSuccess);
   ASSERT_EQ(SetValueUint32(deep, "rate", 1000), kSuccess);
   ASSERT_EQ(CreateSubObject(root, "settings", "", &settings), kSuccess);
   ASSERT_EQ(SetValueBool(settings, "enabled", true), kSuccess);

   auto check = [&ids](Object *r, const char *when) {
      SCOPED_TRACE(when);
      EXPECT_EQ(SubKeys(r, "port"), ids);
      Object *p = nullptr, *qq = nullptr, *d = nullptr, *st = nullptr;
      ASSERT_EQ(GetSubObject(r, "port", "p5", &p), kSuccess);
      EXPECT_EQ(Str(p, "alias"), "alias-p5");
      EXPECT_EQ(Str(p, "key"), "p5");
      // The id stands for a string value: reading it as anything else is
      // a type mismatch, as for a stored string.
      int32_t asInt = 0;
      bool asBool = false;
      char **asList = nullptr;
      uint32_t n = 0;
      EXPECT_EQ(GetValueInt(p, "key", &asInt), kTypeMismatch);
      EXPECT_EQ(GetValueBool(p, "key", &asBool), kTypeMismatch);
      EXPECT_EQ(GetValueStringArray(p, "key", &asList, &n), kTypeMismatch);
      ASSERT_EQ(GetSubObject(r, "port", ids.back().c_str(), &p), kSuccess);
      EXPECT_EQ(Str(p, "key"), ids.back());  // longer than a string keeps in itself
      ASSERT_EQ(GetSubObject(r, "port", "p1", &p), kSuccess);
      EXPECT_EQ(SubKeys(p, "queue"), std::vector<std::string>{"custom"});
      ASSERT_EQ(GetSubObject(p, "queue", "q1", &qq), kSuccess);
      ASSERT_EQ(GetSubObject(qq, "shaper", nullptr, &d), kSuccess);
      uint32_t rate = 0;
      EXPECT_EQ(GetValueUint32(d, "rate", &rate), kSuccess);
      EXPECT_EQ(rate, 1000u);
      for (const char *none : {static_cast<const char *>(nullptr), ""}) {
         ASSERT_EQ(GetSubObject(r, "settings", none, &st), kSuccess);
         bool on = false;
         EXPECT_EQ(GetValueBool(st, "enabled", &on), kSuccess);
         EXPECT_TRUE(on);
      }
      EXPECT_EQ(GetSubObject(r, "port", "p404", &p), kNotFound);
      EXPECT_EQ(GetSubObject(r, "nothing", nullptr, &p), kNotFound);
   };
   check(root, "in memory");
   auto s = Open();
   ASSERT_EQ(Set(s.get(), root, kSourceExternal), kSuccess);
   auto again = Open();
   Object *back = nullptr;
   ASSERT_EQ(Get(again.get(), kGroup, kObj, kComp, "sw0", &back), kSuccess);
   ObjPtr backPtr(back);
   check(back, "after reopen");
}

TEST_P(ConfigStoreTest, SubObjectHandlesNeverDangle) {
   Object *root = nullptr;
   ASSERT_EQ(CreateObject(kGroup, kObj, kComp, "sw0", "{}", &root), kSuccess);
   ObjPtr rootPtr(root);
   Object *keep = nullptr, *doomed = nullptr, *tmp = nullptr;
   ASSERT_EQ(CreateSubObject(root, "port", "first", &doomed), kSuccess);
   ASSERT_EQ(CreateSubObject(root, "port", "keep", &keep), kSuccess);
   ASSERT_EQ(SetValueStr(keep, "alias", "kept"), kSuccess);
   for (int i = 0; i < 200; i++)  // enough to move any backing storage around
      ASSERT_EQ(CreateSubObject(root, "port", ("x" + std::to_string(i)).c_str(), &tmp), kSuccess);
   ASSERT_EQ(DeleteSubObject(root, "port", "first"), kSuccess);
   EXPECT_EQ(DeleteSubObject(root, "port", "first"), kNotFound);
   EXPECT_EQ(Str(keep, "alias"), "kept");
   EXPECT_EQ(SetValueStr(keep, "alias", "still"), kSuccess);
   ASSERT_EQ(GetSubObject(root, "port", "keep", &tmp), kSuccess);
   EXPECT_EQ(Str(tmp, "alias"), "still");

   // A handle to a deleted sub-object answers, but no longer reaches the tree.
   char *v = nullptr;
   EXPECT_EQ(GetValueStr(doomed, "alias", &v), kNotFound);
   EXPECT_EQ(SetValueStr(doomed, "alias", "ghost"), kNotFound);
   EXPECT_EQ(GetSubObject(root, "port", "first", &tmp), kNotFound);

   // Many fetches, never released by the caller: LeakSanitizer must stay quiet.
   for (int i = 0; i < 500; i++)
      ASSERT_EQ(GetSubObject(root, "port", "x7", &tmp), kSuccess);

   ASSERT_EQ(DeleteSubObjectInstances(root, Filter("port", "", "", "").get()), kSuccess);
   EXPECT_TRUE(SubKeys(root, "port").empty());
   EXPECT_EQ(GetValueStr(keep, "alias", &v), kNotFound);
}

// SetValueEmptyList on a key that holds sub-objects empties the key: every
// instance goes at once, in memory, in the stored document and after a
// reopen, and every handle into them answers kNotFound from then on.
TEST_P(ConfigStoreTest, EmptyListDropsTheInstancesOfItsKey) {
   Object *root = nullptr;
   ASSERT_EQ(CreateObject(kGroup, kObj, kComp, "sw0", "{}", &root), kSuccess);
   ObjPtr rootPtr(root);
   Object *settings = nullptr, *a = nullptr, *b = nullptr, *deep = nullptr, *other = nullptr;
   ASSERT_EQ(CreateSubObject(root, "settings", nullptr, &settings), kSuccess);
   for (const char *id : {"a", "b", "c"}) {
      Object *inst = nullptr;
      ASSERT_EQ(CreateSubObject(settings, "pvlans", id, &inst), kSuccess);
      ASSERT_EQ(SetValueUint16(inst, "primary_id", 10), kSuccess);
   }
   ASSERT_EQ(CreateSubObject(settings, "pvlans", "a", &a), kSuccess);  // existing one
   ASSERT_EQ(GetSubObject(settings, "pvlans", "b", &b), kSuccess);
   ASSERT_EQ(CreateSubObject(a, "extra", "x", &deep), kSuccess);
   ASSERT_EQ(CreateSubObject(settings, "other", "o", &other), kSuccess);
   ObjArray listed;  // elements belong to the tree: only the array is freed
   ASSERT_EQ(GetSubObjectInstances(settings, Filter("pvlans", "", "", "").get(), &listed.items,
                                   &listed.count),
             kSuccess);
   std::vector<Object *> dead = {a, b, deep};
   dead.insert(dead.end(), listed.items, listed.items + listed.count);
   listed.count = 0;
   auto s = Open();
   ASSERT_EQ(Set(s.get(), root, kSourceExternal), kSuccess);

   ASSERT_EQ(SetValueEmptyList(settings, "pvlans"), kSuccess);
   EXPECT_TRUE(SubKeys(settings, "pvlans").empty());
   EXPECT_EQ(SubKeys(settings, "other"), std::vector<std::string>{"o"});
   for (Object *h : dead) {
      char *v = nullptr;
      uint16_t n = 0;
      Object *sub = nullptr;
      ObjArray subs;
      EXPECT_EQ(GetValueStr(h, "key", &v), kNotFound);
      free(v);
      EXPECT_EQ(GetValueUint16(h, "primary_id", &n), kNotFound);
      EXPECT_EQ(SetValueUint16(h, "primary_id", 11), kNotFound);
      EXPECT_EQ(SetValueEmptyList(h, "list"), kNotFound);
      EXPECT_EQ(CreateSubObject(h, "extra", "y", &sub), kNotFound);
      EXPECT_EQ(
         GetSubObjectInstances(h, Filter("extra", "", "", "").get(), &subs.items, &subs.count),
         kNotFound);
      DestroyConfigStoreObject(h);  // a no-op for a sub-object handle
   }
   // A re-created instance is new and empty; the old handle stays dead.
   Object *again = nullptr;
   uint16_t n = 0;
   ASSERT_EQ(CreateSubObject(settings, "pvlans", "a", &again), kSuccess);
   EXPECT_NE(again, a);
   EXPECT_EQ(GetValueUint16(again, "primary_id", &n), kNotFound);
   EXPECT_EQ(GetValueUint16(a, "primary_id", &n), kNotFound);
   ASSERT_EQ(SetValueUint16(again, "primary_id", 20), kSuccess);

   ASSERT_EQ(Set(s.get(), root, kSourceExternal), kSuccess);
   auto reopened = Open();
   Object *back = nullptr, *bs = nullptr, *ba = nullptr;
   ASSERT_EQ(Get(reopened.get(), kGroup, kObj, kComp, "sw0", &back), kSuccess);
   ObjPtr backPtr(back);
   ASSERT_EQ(GetSubObject(back, "settings", "", &bs), kSuccess);
   EXPECT_EQ(SubKeys(bs, "pvlans"), std::vector<std::string>{"a"});
   EXPECT_EQ(SubKeys(bs, "other"), std::vector<std::string>{"o"});
   ASSERT_EQ(GetSubObject(bs, "pvlans", "a", &ba), kSuccess);
   EXPECT_EQ(GetValueUint16(ba, "primary_id", &n), kSuccess);
   EXPECT_EQ(n, 20);
   EXPECT_TRUE(SubKeys(ba, "extra").empty());

   // Emptied and written with nothing re-created: an empty list, no instances.
   ASSERT_EQ(SetValueEmptyList(bs, "pvlans"), kSuccess);
   EXPECT_EQ(GetValueUint16(ba, "primary_id", &n), kNotFound);
   ASSERT_EQ(Set(reopened.get(), back, kSourceExternal), kSuccess);
   Object *last = nullptr, *ls = nullptr;
   ASSERT_EQ(Get(Open().get(), kGroup, kObj, kComp, "sw0", &last), kSuccess);
   ObjPtr lastPtr(last);
   ASSERT_EQ(GetSubObject(last, "settings", "", &ls), kSuccess);
   EXPECT_TRUE(SubKeys(ls, "pvlans").empty());
   char **items = nullptr;
   uint32_t count = 9;
   ASSERT_EQ(GetValueStringArray(ls, "pvlans", &items, &count), kSuccess);
   EXPECT_EQ(count, 0u);
   DestroyStringArrayValue(items, count);
}

TEST_P(ConfigStoreTest, TransactionsIsolateCommitAndCancel) {
   auto a = Open(), b = Open();
   EXPECT_EQ(CommitTransaction(a.get()), kNoTransaction);
   EXPECT_EQ(CancelTransaction(a.get()), kNoTransaction);
   ASSERT_EQ(Put(a.get(), "base", "v1"), kSuccess);

   ASSERT_EQ(BeginTransaction(a.get()), kSuccess);
   EXPECT_EQ(BeginTransaction(a.get()), kInTransaction);
   ASSERT_EQ(Put(a.get(), "new", "n1"), kSuccess);
   ASSERT_EQ(Put(a.get(), "base", "v2"), kSuccess);
   EXPECT_EQ(Fetch(a.get(), "new"), "n1");  // own writes are visible
   EXPECT_EQ(Fetch(b.get(), "new"), std::nullopt);
   EXPECT_EQ(Fetch(b.get(), "base"), "v1");
   ASSERT_EQ(CommitTransaction(a.get()), kSuccess);
   EXPECT_EQ(Fetch(b.get(), "new"), "n1");
   EXPECT_EQ(Fetch(b.get(), "base"), "v2");

   ASSERT_EQ(BeginTransaction(a.get()), kSuccess);
   ASSERT_EQ(Delete(a.get(), kGroup, kObj, kComp, "base"), kSuccess);
   ASSERT_EQ(Put(a.get(), "temp", "t"), kSuccess);
   EXPECT_EQ(Fetch(b.get(), "base"), "v2");
   ASSERT_EQ(CancelTransaction(a.get()), kSuccess);
   EXPECT_EQ(Fetch(a.get(), "base"), "v2");
   EXPECT_EQ(Fetch(a.get(), "temp"), std::nullopt);

   a.reset();
   b.reset();
   auto c = Open();
   EXPECT_EQ(Fetch(c.get(), "new"), "n1");
   EXPECT_EQ(Fetch(c.get(), "base"), "v2");
   EXPECT_EQ(Fetch(c.get(), "temp"), std::nullopt);
}

TEST_P(ConfigStoreTest, ReaderSeesOnlyCommittedPairs) {
   {
      auto s = Open();
      ASSERT_EQ(Put(s.get(), "left", "0"), kSuccess);
      ASSERT_EQ(Put(s.get(), "right", "0"), kSuccess);
   }
   // The writer changes both objects in one transaction; a reader that reads
   // both inside its own transaction must never see them differ.
   std::atomic<bool> done{false};
   std::atomic<int> torn{0}, failures{0}, reads{0};
   std::thread reader([&] {
      auto r = Open();
      while (!done) {
         if (BeginTransaction(r.get()) != kSuccess) {
            failures++;
            continue;
         }
         auto l = Fetch(r.get(), "left"), rt = Fetch(r.get(), "right");
         torn += l != rt;
         reads++;
         CancelTransaction(r.get());
      }
   });
   while (reads == 0 && failures == 0)
      std::this_thread::yield();
   auto w = Open();
   for (int i = 1; i <= 40; i++) {
      std::string v = std::to_string(i);
      ASSERT_EQ(BeginTransaction(w.get()), kSuccess);
      EXPECT_EQ(Put(w.get(), "left", v.c_str()), kSuccess);
      EXPECT_EQ(Put(w.get(), "right", v.c_str()), kSuccess);
      EXPECT_EQ(CommitTransaction(w.get()), kSuccess);
   }
   done = true;
   reader.join();
   EXPECT_EQ(torn.load(), 0);
   EXPECT_EQ(failures.load(), 0);
   EXPECT_EQ(Fetch(w.get(), "right"), "40");
}

/* Top-level objects list in the order they were created, whether created
   in one transaction or apart; a rewrite keeps the place, a delete loses it. */
TEST_P(ConfigStoreTest, TopLevelObjectsKeepCreationOrder) {
   auto ids = [](Store *s) {
      ObjArray all;
      EXPECT_EQ(GetInstances(s, Filter(kGroup, kObj, kComp, "").get(), &all.items, &all.count),
                kSuccess);
      return Values(all, "name");
   };
   using V = std::vector<std::string>;
   auto s = Open();
   ASSERT_EQ(BeginTransaction(s.get()), kSuccess);
   for (const char *id : {"z", "a", "m"})
      ASSERT_EQ(Put(s.get(), id, "1"), kSuccess);
   EXPECT_EQ(ids(s.get()), (V{"z", "a", "m"}));
   ASSERT_EQ(CommitTransaction(s.get()), kSuccess);
   ASSERT_EQ(Put(s.get(), "q", "1"), kSuccess);
   ASSERT_EQ(Put(s.get(), "a", "2"), kSuccess);
   ASSERT_EQ(BeginTransaction(s.get()), kSuccess);
   ASSERT_EQ(Put(s.get(), "n", "1"), kSuccess);
   ASSERT_EQ(Put(s.get(), "z", "3"), kSuccess);
   ASSERT_EQ(Put(s.get(), "b", "1"), kSuccess);
   EXPECT_EQ(ids(s.get()), (V{"z", "a", "m", "q", "n", "b"}));
   ASSERT_EQ(CommitTransaction(s.get()), kSuccess);
   auto again = Open();
   EXPECT_EQ(ids(again.get()), (V{"z", "a", "m", "q", "n", "b"}));
   EXPECT_EQ(Fetch(again.get(), "z"), "3");
   ASSERT_EQ(Delete(again.get(), kGroup, kObj, kComp, "m"), kSuccess);
   ASSERT_EQ(Put(again.get(), "m", "4"), kSuccess);
   EXPECT_EQ(ids(Open().get()), (V{"z", "a", "q", "n", "b", "m"}));
}

/* Filters whose texts are long (beyond what a filter keeps in itself) and
   string lists of many elements of every length come back whole. */
TEST_P(ConfigStoreTest, LongFilterTextsAndLongStringListsComeBackWhole) {
   const std::string key(150, 'k'), group(60, 'g'), object(60, 'o'), component(60, 'c');
   Object *o = nullptr;
   ASSERT_EQ(CreateObject(group.c_str(), object.c_str(), component.c_str(), "long", "{}", &o),
             kSuccess);
   ObjPtr obj(o);
   for (const char *id : {"i1", "i2", "i3"}) {
      Object *sub = nullptr;
      ASSERT_EQ(CreateSubObject(o, key.c_str(), id, &sub), kSuccess);
      ASSERT_EQ(SetValueStr(sub, "name", id), kSuccess);
   }
   std::vector<std::string> texts;
   for (size_t n = 0; n < 40; n++) {
      texts.push_back(std::string(n, char('a' + n % 26)) + (n % 5 == 0 ? "\"\\\n" : ""));
      ASSERT_EQ(AppendValueString(o, "list", texts.back().c_str()), kSuccess);
   }
   auto list = [](Object *x) {
      char **v = nullptr;
      uint32_t n = 0;
      EXPECT_EQ(GetValueStringArray(x, "list", &v, &n), kSuccess);
      std::vector<std::string> out(v, v + n);
      EXPECT_EQ(v[n], nullptr);
      DestroyStringArrayValue(v, n);
      return out;
   };
   EXPECT_EQ(list(o), texts);
   ObjArray subs;
   ASSERT_EQ(GetSubObjectInstances(o, Filter(key.c_str(), nullptr, nullptr, nullptr).get(),
                                   &subs.items, &subs.count),
             kSuccess);
   EXPECT_EQ(Values(subs, "name"), (std::vector<std::string>{"i1", "i2", "i3"}));

   auto s = Open();
   ASSERT_EQ(Set(s.get(), o, kSourceExternal), kSuccess);
   ObjArray all;
   ASSERT_EQ(GetInstances(s.get(),
                          Filter(group.c_str(), object.c_str(), component.c_str(), "").get(),
                          &all.items, &all.count),
             kSuccess);
   ASSERT_EQ(all.count, 1u);
   EXPECT_EQ(list(all.items[0]), texts);
   ASSERT_EQ(DeleteSubObjectInstances(all.items[0], Filter(key.c_str(), "", "", "").get()),
             kSuccess);
   Object *gone = nullptr;
   EXPECT_EQ(GetSubObject(all.items[0], key.c_str(), "i2", &gone), kNotFound);
}

/* GetInstancesEach visits what GetInstances returns, in the same order,
   small listings and ones large enough to be read on another thread; a
   visitor's failure ends the visits but not the answer. */
TEST_P(ConfigStoreTest, InstancesVisitedOneAtATimeAsGetInstancesGivesThem) {
   struct Visits {
      std::vector<std::string> names;
      size_t failAt = SIZE_MAX;
   };
   auto visitAll = [](Store *s, size_t failAt, int32_t *visitRc) {
      Visits v;
      v.failAt = failAt;
      const int32_t rc = GetInstancesEach(
         s, Filter(kGroup, kObj, kComp, "").get(),
         [](Object *o, void *ctx) -> int32_t {
            auto *visits = static_cast<Visits *>(ctx);
            visits->names.push_back(Str(o, "name").value_or("?"));
            DestroyConfigStoreObject(o);
            return visits->names.size() == visits->failAt ? 99 : kSuccess;
         },
         &v, visitRc);
      EXPECT_EQ(rc, kSuccess);
      return v.names;
   };
   auto listed = [](Store *s) {
      ObjArray all;
      EXPECT_EQ(GetInstances(s, Filter(kGroup, kObj, kComp, "").get(), &all.items, &all.count),
                kSuccess);
      return Values(all, "name");
   };
   auto s = Open();
   int32_t visitRc = -1;
   EXPECT_TRUE(visitAll(s.get(), SIZE_MAX, &visitRc).empty());
   EXPECT_EQ(visitRc, kSuccess);
   const std::string bulk(12000, 'v');
   ASSERT_EQ(BeginTransaction(s.get()), kSuccess);
   for (int i = 0; i < 40; i++) {
      ASSERT_EQ(Put(s.get(), ("i" + std::to_string((i * 7) % 40)).c_str(), bulk.c_str()), kSuccess);
   }
   ASSERT_EQ(CommitTransaction(s.get()), kSuccess);
   for (int round = 0; round < 2; round++) {  // the second reads on another thread
      EXPECT_EQ(visitAll(s.get(), SIZE_MAX, &visitRc), listed(s.get()));
      EXPECT_EQ(visitRc, kSuccess);
   }
   const auto firstThree = visitAll(s.get(), 3, &visitRc);
   EXPECT_EQ(visitRc, 99);
   const auto all = listed(s.get());
   EXPECT_EQ(firstThree, std::vector<std::string>(all.begin(), all.begin() + 3));
   EXPECT_EQ(GetInstancesEach(s.get(), Filter(kGroup, kObj, kComp, "").get(), nullptr, nullptr,
                              &visitRc),
             kBadParam);
}

/* What only the replicated store has. */
class EtcdStoreTest : public StoreFixture {
  protected:
   bool UseEtcd() const override { return true; }
};

/* A commit that another commit overtook on what it read writes nothing and
   answers kBusy; hosts of one cluster never see each other's objects. */
TEST_F(EtcdStoreTest, OvertakenCommitsWriteNothingAndHostsStayApart) {
   auto a = Open(), b = Open();
   ASSERT_EQ(Put(a.get(), "base", "0"), kSuccess);
   ASSERT_EQ(BeginTransaction(a.get()), kSuccess);
   ASSERT_EQ(BeginTransaction(b.get()), kSuccess);
   EXPECT_EQ(Fetch(a.get(), "base"), "0");
   EXPECT_EQ(Fetch(b.get(), "base"), "0");
   ASSERT_EQ(Put(a.get(), "base", "a"), kSuccess);
   ASSERT_EQ(Put(a.get(), "onlyA", "a"), kSuccess);
   ASSERT_EQ(Put(b.get(), "base", "b"), kSuccess);
   ASSERT_EQ(Put(b.get(), "onlyB", "b"), kSuccess);
   ASSERT_EQ(CommitTransaction(a.get()), kSuccess);
   EXPECT_EQ(CommitTransaction(b.get()), kBusy);
   EXPECT_EQ(Fetch(Open().get(), "base"), "a");
   EXPECT_EQ(Fetch(Open().get(), "onlyA"), "a");
   EXPECT_EQ(Fetch(Open().get(), "onlyB"), std::nullopt);

   // A listing is checked too: an object created meanwhile under it, or a
   // listed one deleted meanwhile, fails the commit.
   for (bool create : {true, false}) {
      ASSERT_EQ(BeginTransaction(a.get()), kSuccess);
      ObjArray all;
      ASSERT_EQ(
         GetInstances(a.get(), Filter(kGroup, kObj, kComp, "").get(), &all.items, &all.count),
         kSuccess);
      ASSERT_EQ(Put(a.get(), "late", "x"), kSuccess);
      ASSERT_EQ(
         create ? Put(b.get(), "meanwhile", "m") : Delete(b.get(), kGroup, kObj, kComp, "onlyA"),
         kSuccess);
      EXPECT_EQ(CommitTransaction(a.get()), kBusy) << create;
      EXPECT_EQ(Fetch(b.get(), "late"), std::nullopt);
   }

   // Another host namespace of the same cluster.
   ASSERT_EQ(BeginTransaction(a.get()), kSuccess);
   ASSERT_EQ(Put(a.get(), "base", "a2"), kSuccess);
   env_.Set(kHostEnv, "host-b");
   auto hb = Open();
   EXPECT_EQ(Fetch(hb.get(), "base"), std::nullopt);
   ASSERT_EQ(Put(hb.get(), "base", "hb"), kSuccess);
   ASSERT_EQ(CommitTransaction(a.get()), kSuccess);  // no conflict across hosts
   EXPECT_EQ(Fetch(hb.get(), "base"), "hb");
   EXPECT_EQ(Fetch(a.get(), "base"), "a2");
   HostInfo *hosts = nullptr;
   uint32_t n = 0;
   ASSERT_EQ(GetHosts(hb.get(), &hosts, &n), kSuccess);
   ASSERT_EQ(n, 2u);
   EXPECT_STREQ(hosts[0].name, "host-a");
   EXPECT_STREQ(hosts[1].name, "host-b");
   const int64_t now = time(nullptr);
   for (uint32_t i = 0; i < n; i++)
      EXPECT_LE(std::llabs(hosts[i].savedAt - now), 60) << hosts[i].name;
   DestroyHostList(hosts, n);
}

/* A transaction over the server's request limit is refused whole. */
TEST_F(EtcdStoreTest, OversizedCommitWritesNothing) {
   auto s = Open();
   const std::string big(SharedEtcd::kRequestLimit / 3, 'x');
   ASSERT_EQ(BeginTransaction(s.get()), kSuccess);
   for (const char *id : {"big0", "big1", "big2", "big3"})
      ASSERT_EQ(Put(s.get(), id, big.c_str()), kSuccess);
   EXPECT_EQ(CommitTransaction(s.get()), kTooLarge);
   EXPECT_EQ(Fetch(s.get(), "big0"), std::nullopt);
   EXPECT_EQ(Fetch(s.get(), "big3"), std::nullopt);
   ASSERT_EQ(Put(s.get(), "small", "fits"), kSuccess);  // the store still works
   EXPECT_EQ(Fetch(s.get(), "small"), "fits");
}

/* A location the store cannot use fails GetStore at once with its code. */
TEST(StoreLocationTest, UnusableUrlsFailFast) {
   EnvGuard env;
   const struct {
      const char *url;
      int32_t rc;
   } cases[] = {{"http://127.0.0.1:2379/p", kBadUrl},
                {"etcd://127.0.0.1/p", kBadUrl},
                {"etcd://127.0.0.1:2379", kBadUrl},
                {"etcd://127.0.0.1:2379,:5/p", kBadUrl},
                {"etcd://127.0.0.1:1/p", kUnreachable}};  // nothing listens on port 1
   for (const auto &c : cases) {
      env.Set(kUrlEnv, c.url);
      const auto start = std::chrono::steady_clock::now();
      Store *s = nullptr;
      EXPECT_EQ(GetStore(0, &s), c.rc) << c.url;
      EXPECT_EQ(s, nullptr);
      EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(15)) << c.url;
   }
}

/* Every result code the header defines has its own name and text; a code
   added there without one fails here. */
TEST(StatusTextTest, CoversEveryCodeOfTheHeader) {
   std::ifstream header(CONFIGSTORE_HEADER);
   ASSERT_TRUE(header) << CONFIGSTORE_HEADER;
   const std::regex codeLine(R"(^constexpr int32_t (k\w+) = (-?\d+);)");
   const std::string unknown = StatusText(-12345);
   std::set<std::string> texts;
   int found = 0;
   for (std::string line; std::getline(header, line);) {
      std::smatch m;
      if (!std::regex_search(line, m, codeLine)) {
         continue;
      }
      const int32_t code = std::stoi(m[2]);
      ++found;
      EXPECT_EQ(StatusName(code), m[1].str());
      EXPECT_NE(StatusText(code), unknown) << m[1];
      EXPECT_TRUE(texts.insert(StatusText(code)).second) << m[1] << " shares its text";
   }
   EXPECT_GE(found, 14);  // kSuccess .. kBadUrl at least: the pattern still matches
   EXPECT_STREQ(StatusName(-1), "unknown");
   EXPECT_STREQ(StatusText(kBadUrl + 1), unknown.c_str());
}

/* Runs `work` in a child process and kills it with SIGKILL once it reports back. */
void KillChildAfter(const std::function<bool()> &work) {
   int fds[2];
   ASSERT_EQ(pipe(fds), 0);
   pid_t pid = fork();
   ASSERT_GE(pid, 0);
   if (pid == 0) {
      close(fds[0]);
      char ok = work() ? 'y' : 'n';
      if (write(fds[1], &ok, 1) != 1)
         _exit(1);
      for (;;)
         pause();
   }
   close(fds[1]);
   char ok = 0;
   ssize_t got = read(fds[0], &ok, 1);
   close(fds[0]);
   kill(pid, SIGKILL);
   int status = 0;
   ASSERT_EQ(waitpid(pid, &status, 0), pid);
   ASSERT_EQ(got, 1);
   EXPECT_EQ(ok, 'y');
   EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
}

TEST_P(ConfigStoreTest, KilledWriterLeavesLastCommittedState) {
   {
      auto s = Open();
      ASSERT_EQ(Put(s.get(), "base", "v1"), kSuccess);
   }
   KillChildAfter([] {
      Store *s = nullptr;
      return GetStore(0, &s) == kSuccess && BeginTransaction(s) == kSuccess &&
             Put(s, "base", "v2") == kSuccess && Put(s, "extra", "e") == kSuccess &&
             Delete(s, kGroup, kObj, kComp, "base") == kSuccess;
   });
   {
      auto s = Open();
      EXPECT_EQ(Fetch(s.get(), "base"), "v1");
      EXPECT_EQ(Fetch(s.get(), "extra"), std::nullopt);
   }
   KillChildAfter([] {
      Store *s = nullptr;
      return GetStore(0, &s) == kSuccess && BeginTransaction(s) == kSuccess &&
             Put(s, "base", "v3") == kSuccess && Put(s, "extra", "e") == kSuccess &&
             CommitTransaction(s) == kSuccess;
   });
   auto s = Open();
   EXPECT_EQ(Fetch(s.get(), "base"), "v3");
   EXPECT_EQ(Fetch(s.get(), "extra"), "e");
   ASSERT_EQ(Put(s.get(), "after", "ok"), kSuccess);  // the store is still writable
}

/* One increment of the counter object in its own connection and transaction;
   0, or 16 x the failing step + its code. */
int IncrementCounter() {
   Store *s = nullptr;
   Object *o = nullptr;
   int64_t n = 0;
   int32_t rc = GetStore(0, &s);
   if (rc != kSuccess)
      return 16 + rc;
   StorePtr store(s);
   if ((rc = BeginTransaction(s)) != kSuccess)
      return 32 + rc;
   rc = Get(s, kGroup, kObj, kComp, "counter", &o);
   if (rc == kNotFound)
      rc = CreateObject(kGroup, kObj, kComp, "counter", "{}", &o);
   if (rc != kSuccess)
      return 48 + rc;
   ObjPtr obj(o);
   rc = GetValueLong(o, "n", &n);
   if ((rc != kSuccess && rc != kNotFound) || SetValueLong(o, "n", n + 1) != kSuccess)
      return 64 + rc;
   if ((rc = Set(s, o, kSourceExternal)) != kSuccess)
      return 80 + rc;
   return (rc = CommitTransaction(s)) != kSuccess ? 96 + rc : 0;
}

// Processes that open a store nobody has created yet, all at the same
// moment, wait behind each other's creation instead of failing.
TEST_F(SqliteStoreTest, ConcurrentFirstOpensAllSucceed) {
   constexpr int kProcs = 6, kRounds = 30;
   const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(40);
   std::vector<int> failures;
   int round = 0;
   for (; round < kRounds && std::chrono::steady_clock::now() < deadline; round++) {
      const std::string path = dir_ + "/r" + std::to_string(round) + "/store.db";
      setenv(kPathEnv, path.c_str(), 1);
      int gate[2];
      ASSERT_EQ(pipe(gate), 0);
      std::vector<pid_t> pids;
      for (int i = 0; i < kProcs; i++) {
         pid_t pid = fork();
         ASSERT_GE(pid, 0);
         if (pid == 0) {
            alarm(30);  // never outlive a stuck parent
            close(gate[1]);
            char c;
            _exit(read(gate[0], &c, 1) == 0 ? IncrementCounter() : 127);  // 0: gate opened
         }
         pids.push_back(pid);
      }
      close(gate[0]);
      close(gate[1]);  // opens the gate for all at once
      for (pid_t pid : pids) {
         int status = 0;
         ASSERT_EQ(waitpid(pid, &status, 0), pid);
         int code = WIFEXITED(status) ? WEXITSTATUS(status) : 200 + WTERMSIG(status);
         if (code != 0)
            failures.push_back(code);
      }
      auto s = Open();
      Object *o = nullptr;
      int64_t n = 0;
      ASSERT_EQ(Get(s.get(), kGroup, kObj, kComp, "counter", &o), kSuccess) << "round " << round;
      ObjPtr obj(o);
      ASSERT_EQ(GetValueLong(o, "n", &n), kSuccess);
      EXPECT_EQ(n, kProcs - static_cast<int64_t>(failures.size())) << "round " << round;
      ASSERT_TRUE(failures.empty()) << "round " << round << ": first failure " << failures[0]
                                    << " (16 x step + code), " << failures.size() << " in all";
   }
   EXPECT_GE(round, 5);
}

TEST_F(SqliteStoreTest, PathFromEnvironmentEachTime) {
   std::string nested = dir_ + "/not/yet/there/store.db";
   setenv(kPathEnv, nested.c_str(), 1);
   {
      auto s = Open();
      ASSERT_NE(s, nullptr);
      ASSERT_EQ(Put(s.get(), "a", "nested"), kSuccess);
   }
   EXPECT_TRUE(std::filesystem::exists(nested));
   setenv(kPathEnv, path_.c_str(), 1);
   auto s = Open();
   EXPECT_EQ(Fetch(s.get(), "a"), std::nullopt);
   ASSERT_EQ(Put(s.get(), "a", "plain"), kSuccess);
   setenv(kPathEnv, nested.c_str(), 1);
   auto back = Open();
   EXPECT_EQ(Fetch(back.get(), "a"), "nested");
}

TEST_P(ConfigStoreTest, BadInputGivesCodes) {
   // Any failure here is neither success nor "not found".
   auto bad = [](int32_t rc) { return rc != kSuccess && rc != kNotFound; };
   auto s = Open();
   Object *o = nullptr;
   EXPECT_PRED1(bad, GetStore(0, nullptr));
   EXPECT_EQ(CreateObject(kGroup, kObj, kComp, "x", "{", &o), kBadJson);
   EXPECT_EQ(CreateObject(kGroup, kObj, kComp, "x", "[1,", &o), kBadJson);
   EXPECT_PRED1(bad, CreateObject(nullptr, kObj, kComp, "x", "{}", &o));
   EXPECT_PRED1(bad, CreateObject(kGroup, kObj, kComp, "x", "{}", nullptr));
   EXPECT_PRED1(bad, Get(nullptr, kGroup, kObj, kComp, "x", &o));
   EXPECT_PRED1(bad, Get(s.get(), kGroup, kObj, kComp, "x", nullptr));
   EXPECT_PRED1(bad, BeginTransaction(nullptr));
   EXPECT_PRED1(bad, GetInstances(s.get(), nullptr, nullptr, nullptr));
   EXPECT_PRED1(bad, GetValueStr(nullptr, "k", nullptr));
   EXPECT_PRED1(bad, GenerateInstanceId(nullptr));

   ASSERT_EQ(CreateObject(kGroup, kObj, kComp, "x", "{}", &o), kSuccess);
   ObjPtr obj(o);
   Object *sub = nullptr;
   EXPECT_EQ(Set(s.get(), o, "SOMEWHERE"), kBadParam);
   EXPECT_PRED1(bad, Set(s.get(), nullptr, kSourceExternal));
   EXPECT_PRED1(bad, Set(s.get(), o, nullptr));
   EXPECT_PRED1(bad, SetValueStr(o, "", "v"));
   EXPECT_PRED1(bad, SetValueStr(o, "k", nullptr));
   EXPECT_PRED1(bad, CreateSubObject(o, "", "i", &sub));
   EXPECT_PRED1(bad, GetSubObject(o, nullptr, nullptr, &sub));
   EXPECT_PRED1(bad, GetSubObjectInstances(o, nullptr, nullptr, nullptr));

   std::set<std::string> ids;
   for (int i = 0; i < 100; i++) {
      char *id = nullptr;
      ASSERT_EQ(GenerateInstanceId(&id), kSuccess);
      // A version 4 UUID of the RFC 4122 variant, in lower-case hex.
      EXPECT_TRUE(std::regex_match(
         id, std::regex("[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}")))
         << id;
      ids.insert(id);
      free(id);
   }
   EXPECT_EQ(ids.size(), 100u);
}

TEST_F(SqliteStoreTest, DamagedDatabaseIsReported) {
   {
      std::ofstream f(path_, std::ios::binary);
      std::string junk(4096, '\0');
      for (size_t i = 0; i < junk.size(); i++)
         junk[i] = static_cast<char>((i * 131 + 7) & 0xff);
      f << junk;
   }
   Store *s = nullptr;
   int32_t rc = GetStore(0, &s);
   if (rc == kSuccess) {
      StorePtr store(s);
      Object *o = nullptr;
      rc = Get(s, kGroup, kObj, kComp, "a", &o);
   }
   EXPECT_NE(rc, kSuccess);
   EXPECT_NE(rc, kNotFound);
}

}  // namespace
