// Allocation failure in the configuration store: the client library's
// calls (SQLite allocates through the same malloc, so its failures are
// covered too) and the save and load between host blobs and the store,
// failing the n-th allocation for n = 1, 2, ... until a run goes through.
// A failed run must report an error, leak nothing and leave the store
// holding exactly the rows it held before; a run that goes through must
// give exactly what a run without failures gives.  Replaces the process
// allocator (plain build only).
#include <configstore.h>
#include <dvsconfigstore.h>
#include <dvsstate.h>
#include <gtest/gtest.h>
#include <hostlibs.h>
#include <sqlite3.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <regex>
#include <string>
#include <vector>

#include "alloc_interposer.h"
#include "sample_host.h"
#include "state_diff.h"

namespace {

namespace cs = ::configstore;
namespace fs = std::filesystem;
using allocfail::FailingAt;
using Rows = std::vector<std::string>;

// Text built while armed, without allocating.
struct Trace {
   char text[16384];
   size_t used = 0;
   template <class... A>
   void Add(const char *fmt, A... args) {
      if (used < sizeof text)
         used += std::snprintf(text + used, sizeof text - used, fmt, args...);
   }
   std::string Str() const { return std::string(text, used < sizeof text ? used : sizeof text); }
};

// Where two dumps part: the row and the text around the first difference.
std::string FirstDifference(const Rows &a, const Rows &b) {
   for (size_t i = 0; i < a.size() || i < b.size(); i++) {
      const std::string x = i < a.size() ? a[i] : "", y = i < b.size() ? b[i] : "";
      if (x == y)
         continue;
      size_t at = 0;
      while (at < x.size() && at < y.size() && x[at] == y[at])
         at++;
      const size_t from = at < 60 ? 0 : at - 60;
      return "row " + std::to_string(i) + ": ..." + x.substr(from, 160) + "\n   vs ..." +
             y.substr(from, 160);
   }
   return "";
}

class StoreAllocFailureTest : public testing::Test {
  protected:
   void SetUp() override {
      dvs_debug = -1, dvsdata_debug = -1, dvsconfigstore_debug = -1;
      // On tmpfs where there is one: the loops commit thousands of times.
      std::string tmpl = (fs::is_directory("/dev/shm") ? "/dev/shm" : "/tmp");
      tmpl += "/cs-alloc-XXXXXX";
      ASSERT_NE(mkdtemp(tmpl.data()), nullptr);
      dir_ = tmpl;
      path_ = dir_ + "/store.db";
      setenv(cs::kPathEnv, path_.c_str(), 1);
      lock_ = DVSwitchHandleLock();
      DVSwitchHandleUnlock(lock_);
      ASSERT_EQ(DVSState_ConfigReset(), STATUS_OK);
   }
   void TearDown() override {
      DVSState_ConfigReset();
      dvsconfigstore_debug = 10;
      fs::remove_all(dir_);
   }

   // Every row of the store in creation order; `generated` replaces the
   // instance ids that a save makes up afresh each time.
   Rows Dump(bool generated = false) const {
      Rows rows;
      sqlite3 *db = nullptr;
      sqlite3_stmt *st = nullptr;
      EXPECT_EQ(sqlite3_open_v2(path_.c_str(), &db, SQLITE_OPEN_READONLY, nullptr), SQLITE_OK);
      EXPECT_EQ(sqlite3_prepare_v2(db,
                                   "SELECT grp, obj, comp, instance, source, doc FROM objects "
                                   "ORDER BY seq",
                                   -1, &st, nullptr),
                SQLITE_OK);
      while (sqlite3_step(st) == SQLITE_ROW) {
         std::string row;
         for (int c = 0; c < 6; c++)
            row += std::string(reinterpret_cast<const char *>(sqlite3_column_text(st, c))) + "|";
         static const std::regex made(
            "\"id\":\"[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[0-9a-f]{4}-[0-9a-f]{12}\"");
         rows.push_back(generated ? std::regex_replace(row, made, "\"id\":\"<made>\"") : row);
      }
      sqlite3_finalize(st);
      sqlite3_close(db);
      return rows;
   }
   // The store file as it stands is the one every run starts from.
   void Keep() { fs::copy_file(path_, dir_ + "/kept.db", fs::copy_options::overwrite_existing); }
   void Restore() const {
      fs::remove(path_ + "-wal");
      fs::remove(path_ + "-shm");
      fs::copy_file(dir_ + "/kept.db", path_, fs::copy_options::overwrite_existing);
   }

   // Runs op (returning a store code) with each allocation failing in turn,
   // from the kept store.  A failed run must leave the store as kept and
   // one that goes through as *want; with no want, op only reads and the
   // store must stay as kept all along (checked once, at the end, as no run
   // puts it back).  cleanup runs unarmed after each run, before the leak
   // count.
   template <class Op, class Cleanup>
   int EachFailure(const Rows *want, Op op, Cleanup cleanup) {
      Restore();
      const Rows before = Dump();
      const int failures = allocfail::ForEachFailure([&](int n) {
         if (want != nullptr)
            Restore();
         const int32_t rc = FailingAt(n, op);
         SCOPED_TRACE("allocation " + std::to_string(n) + " failed");
         cleanup(rc);
         // A connection the run left idle for the next store is not a leak.
         cs::CloseIdleStores();
         EXPECT_EQ(allocfail::Live(), 0)
            << "blocks leaked when allocation " << n << " failed, code " << rc;
         if (!allocfail::Injected()) {
            EXPECT_EQ(rc, 0) << "ran through";
         }
         if (want == nullptr)
            return;
         // Ids made up by a save differ from run to run; a failed run must
         // leave even those as they were.
         const Rows now = Dump(rc == 0);
         EXPECT_TRUE(now == (rc == 0 ? *want : before))
            << "allocation " << n << " failed, code " << rc << ", "
            << FirstDifference(now, rc == 0 ? *want : before);
      });
      if (want == nullptr) {
         EXPECT_TRUE(Dump() == before) << "a read changed the store";
      }
      return failures;
   }

   // Runs read (which notes what it read) with each allocation failing in
   // turn, from the kept store: a run that goes through reads what a run
   // without failures reads; failed(rc) checks the code of one that does
   // not.
   template <class Read, class Failed>
   int EachFailingRead(Read read, Failed failed) {
      Trace want, got;
      EXPECT_EQ(read(&want), 0);
      return EachFailure(
         nullptr,
         [&] {
            got.used = 0;
            return read(&got);
         },
         [&](int32_t rc) {
            if (rc == 0) {
               EXPECT_EQ(got.Str(), want.Str());
            } else {
               failed(rc);
            }
         });
   }

   std::string dir_, path_;
   KRecLock *lock_ = nullptr;
};

// ---- the client library ---------------------------------------------------------

// The next call of a chain, run only while every earlier one succeeded.
#define STEP(call) (rc = rc == 0 ? (call) : rc)

// An object with values of every kind, nested sub-objects, a change to an
// existing object and a deletion, in one transaction.
int32_t WriteObjects() {
   cs::Store *s = nullptr;
   int32_t rc = cs::GetStore(0, &s);
   if (rc != 0)
      return rc;
   cs::Object *o = nullptr, *base = nullptr, *sub = nullptr, *inner = nullptr;
   STEP(cs::BeginTransaction(s));
   STEP(cs::CreateObject("g", "o", "c", "one", R"({"n": 5, "t": "text", "l": ["a"]})", &o));
   STEP(cs::SetValueStr(o, "name", "first"));
   STEP(cs::SetValueInt(o, "count", -3));
   STEP(cs::SetValueUint32(o, "big", 4000000000u));
   STEP(cs::SetValueLong(o, "long", -5000000000));
   STEP(cs::SetValueBool(o, "on", true));
   STEP(cs::AppendValueString(o, "keys", "k1"));
   STEP(cs::AppendValueString(o, "keys", "k2"));
   STEP(cs::AppendValueInt(o, "nums", 7));
   STEP(cs::SetValueEmptyList(o, "none"));
   STEP(cs::RemoveValue(o, "n"));
   STEP(cs::CreateSubObject(o, "ports", "p1", &sub));
   STEP(cs::SetValueStr(sub, "mode", "trunk"));
   STEP(cs::CreateSubObject(sub, "inner", "", &inner));
   STEP(cs::SetValueUint16(inner, "vlan", 10));
   STEP(cs::CreateSubObject(o, "ports", "p2", &sub));
   STEP(cs::DeleteSubObject(o, "ports", "p2"));
   STEP(cs::Set(s, o, cs::kSourceExternal));
   STEP(cs::Set(s, o, cs::kSourceUser));
   STEP(cs::Get(s, "g", "o", "c", "base", &base));
   STEP(cs::SetValueStr(base, "name", "changed"));
   STEP(cs::Set(s, base, cs::kSourceExternal));
   STEP(cs::Delete(s, "g", "o", "c", "old"));
   if (STEP(cs::CommitTransaction(s)) != 0)
      cs::CancelTransaction(s);
   cs::DestroyConfigStoreObject(o);
   cs::DestroyConfigStoreObject(base);
   cs::DestroyStore(s);
   return rc;
}

// Reads back what WriteObjects wrote into `out`; a value that is absent
// is recorded as such, any other failure ends the read with its code.
int32_t ReadObjects(Trace *out) {
   cs::Store *s = nullptr;
   int32_t rc = cs::GetStore(0, &s);
   if (rc != 0)
      return rc;
   cs::Object *o = nullptr, *sub = nullptr, **objs = nullptr, **user = nullptr, **subs = nullptr;
   cs::FilterSpec *filter = nullptr, *ports = nullptr;
   uint32_t n = 0, nUser = 0, nSubs = 0;
   char *text = nullptr, **keys = nullptr;
   uint32_t nKeys = 0;
   auto absentOk = [&](int32_t r, const char *what) {
      if (r == cs::kNotFound)
         out->Add("%s absent;", what);
      return r == cs::kNotFound ? 0 : r;
   };
   if (STEP(cs::Get(s, "g", "o", "c", "one", &o)) == 0 &&
       STEP(cs::GetValueStr(o, "name", &text)) == 0)
      out->Add("name %s;", text);
   int32_t i32 = 0;
   uint32_t u32 = 0;
   int64_t i64 = 0;
   bool b = false;
   if (STEP(cs::GetValueInt(o, "count", &i32)) == 0)
      out->Add("count %d;", i32);
   if (STEP(cs::GetValueUint32(o, "big", &u32)) == 0)
      out->Add("big %u;", u32);
   if (STEP(cs::GetValueLong(o, "long", &i64)) == 0)
      out->Add("long %lld;", static_cast<long long>(i64));
   if (STEP(cs::GetValueBool(o, "on", &b)) == 0)
      out->Add("on %d;", b);
   STEP(absentOk(cs::GetValueInt(o, "n", &i32), "n"));
   if (STEP(cs::GetValueStringArray(o, "keys", &keys, &nKeys)) == 0)
      for (uint32_t i = 0; i < nKeys; i++)
         out->Add("key %s;", keys[i]);
   if (STEP(cs::GetSubObject(o, "ports", "p1", &sub)) == 0)
      rc = absentOk(cs::GetValueStr(sub, "mode", &(std::free(text), text = nullptr)), "mode");
   if (rc == 0 && text != nullptr)
      out->Add("mode %s;", text);
   STEP(cs::CreateFilterSpecObject("ports", "", "", "", &ports));
   if (STEP(cs::GetSubObjectInstances(o, ports, &subs, &nSubs)) == 0)
      out->Add("ports %u;", nSubs);
   STEP(cs::CreateFilterSpecObject("g", "o", "c", "", &filter));
   if (STEP(cs::GetInstances(s, filter, &objs, &n)) == 0)
      for (uint32_t i = 0; rc == 0 && i < n; i++) {
         std::free(text), text = nullptr;
         if ((rc = absentOk(cs::GetValueStr(objs[i], "name", &text), "name")) == 0 && text)
            out->Add("instance %s;", text);
      }
   if (STEP(cs::GetDesiredUserConfigInstances("g", "o", "c", &user, &nUser)) == 0)
      out->Add("desired %u;", nUser);
   for (uint32_t i = 0; i < n; i++)
      cs::DestroyConfigStoreObject(objs[i]);
   for (uint32_t i = 0; i < nUser; i++)
      cs::DestroyConfigStoreObject(user[i]);
   std::free(objs), std::free(user), std::free(subs), std::free(text);
   cs::DestroyStringArrayValue(keys, nKeys);
   cs::DestroyFilterSpecObject(filter);
   cs::DestroyFilterSpecObject(ports);
   cs::DestroyConfigStoreObject(o);
   cs::DestroyStore(s);
   return rc;
}

TEST_F(StoreAllocFailureTest, ClientCalls) {
   cs::Store *s = nullptr;
   ASSERT_EQ(cs::GetStore(0, &s), 0);
   for (const char *id : {"base", "old"}) {
      cs::Object *o = nullptr;
      ASSERT_EQ(cs::CreateObject("g", "o", "c", id, "{}", &o), 0);
      ASSERT_EQ(cs::SetValueStr(o, "name", id), 0);
      ASSERT_EQ(cs::Set(s, o, cs::kSourceExternal), 0);
      cs::DestroyConfigStoreObject(o);
   }
   cs::DestroyStore(s);
   Keep();
   ASSERT_EQ(WriteObjects(), 0);
   const Rows written = Dump(true);
   EXPECT_GE(EachFailure(&written, WriteObjects, [](int32_t) {}), 50);

   Keep();
   EXPECT_GE(EachFailingRead(ReadObjects, [](int32_t) {}), 50);
}

// A listing large enough to be parsed on two threads: the failures land
// on the calling thread while the helper parses, in the reading of rows,
// the handing over of documents and the parsing the caller joins in on.
TEST_F(StoreAllocFailureTest, LargeListingReadOnTwoThreads) {
   cs::Store *s = nullptr;
   ASSERT_EQ(cs::GetStore(0, &s), 0);
   const std::string filler(9000, 'x');
   for (int i = 0; i < 40; i++) {  // 360 KB of documents
      cs::Object *o = nullptr;
      const std::string id = "big-" + std::to_string(i);
      ASSERT_EQ(cs::CreateObject("g", "o", "c", id.c_str(), "{}", &o), 0);
      ASSERT_EQ(cs::SetValueStr(o, "name", id.c_str()), 0);
      ASSERT_EQ(cs::SetValueStr(o, "filler", (filler + id).c_str()), 0);
      ASSERT_EQ(cs::Set(s, o, cs::kSourceExternal), 0);
      cs::DestroyConfigStoreObject(o);
   }
   cs::DestroyStore(s);
   Keep();
   auto readAll = [](Trace *out) {
      cs::Store *st = nullptr;
      int32_t rc = cs::GetStore(0, &st);
      if (rc != 0)
         return rc;
      cs::FilterSpec *f = nullptr;
      cs::Object **objs = nullptr;
      uint32_t n = 0;
      STEP(cs::CreateFilterSpecObject("g", "o", "c", "", &f));
      STEP(cs::GetInstances(st, f, &objs, &n));
      for (uint32_t i = 0; rc == 0 && i < n; i++) {
         char *name = nullptr, *fill = nullptr;
         if (STEP(cs::GetValueStr(objs[i], "name", &name)) == 0 &&
             STEP(cs::GetValueStr(objs[i], "filler", &fill)) == 0)
            out->Add("%s:%zu;", name, std::strlen(fill));
         std::free(name), std::free(fill);
      }
      for (uint32_t i = 0; i < n; i++)
         cs::DestroyConfigStoreObject(objs[i]);
      std::free(objs);
      cs::DestroyFilterSpecObject(f);
      cs::DestroyStore(st);
      return rc;
   };
   EXPECT_GE(EachFailingRead(readAll, [](int32_t rc) { EXPECT_EQ(rc, cs::kNoMemory); }), 50);

   // The same listing visited one object at a time: after the first clean
   // run it is read on the helper while this thread visits.
   auto visitAll = [](Trace *out) {
      cs::Store *st = nullptr;
      int32_t rc = cs::GetStore(0, &st);
      if (rc != 0)
         return rc;
      cs::FilterSpec *f = nullptr;
      int32_t visitRc = 0;
      STEP(cs::CreateFilterSpecObject("g", "o", "c", "", &f));
      STEP(cs::GetInstancesEach(
         st, f,
         [](cs::Object *o, void *trace) -> int32_t {
            int32_t rc = 0;
            char *name = nullptr, *fill = nullptr;
            if (STEP(cs::GetValueStr(o, "name", &name)) == 0 &&
                STEP(cs::GetValueStr(o, "filler", &fill)) == 0)
               static_cast<Trace *>(trace)->Add("%s:%zu;", name, std::strlen(fill));
            std::free(name), std::free(fill);
            cs::DestroyConfigStoreObject(o);
            return rc;
         },
         out, &visitRc));
      STEP(visitRc);
      cs::DestroyFilterSpecObject(f);
      cs::DestroyStore(st);
      return rc;
   };
   EXPECT_GE(EachFailingRead(visitAll, [](int32_t rc) { EXPECT_EQ(rc, cs::kNoMemory); }), 50);
}

// ---- saving and loading host blobs ------------------------------------------------

std::string HostBlob() {
   void *b = nullptr;
   uint32_t len = 0;
   EXPECT_EQ(DVSState_ConfigSerialize(&b, &len), STATUS_OK);
   const std::string out(static_cast<char *>(b), len);
   free(b);
   return out;
}
void Read(const dvsctl::Bytes &blob) {
   ASSERT_EQ(DVSState_ConfigDeserialize(blob.data(), blob.size()), STATUS_OK);
}
std::string Uuid(int index) {
   std::vector<std::string> ids;
   DVSState_SwitchForEach(
      [](DVSwitch *d, void *o) {
         return static_cast<std::vector<std::string> *>(o)->push_back(d->id), false;
      },
      &ids);
   return ids.at(index);
}

TEST_F(StoreAllocFailureTest, SaveAndLoad) {
   // The store holds host A (two switches with every structured property
   // and two ports); the save writes A's first switch changed, a switch of
   // host B, and deletes A's second.
   const dvsctl::Bytes hostA = dvsctl::BuildSampleHost({2, 2, 1});
   const dvsctl::Bytes hostB = dvsctl::BuildSampleHost({1, 1, 2});
   ASSERT_EQ(DVSState_SaveBufToConfigStore(hostA.data(), hostA.size()), 0);
   Keep();
   Read(hostA);
   const std::string changed = Uuid(0), gone = Uuid(1);
   ASSERT_EQ(DVSState_GlobalPropSet(changed.c_str(), DVS_PROP_SWITCH_ALIAS, "renamed", 8, 0x10),
             STATUS_OK);
   ASSERT_EQ(DVSState_SwitchRemove(gone.c_str()), STATUS_OK);
   Read(hostB);
   const std::string blob = HostBlob();
   ASSERT_EQ(DVSState_ConfigReset(), STATUS_OK);
   const std::string none = HostBlob();

   // A save that gives up before its transaction keeps the lock and the
   // rebuilt registry; every other run leaves both free.
   auto released = [&](int32_t) {
      if (KLock_IsLockedByCaller(lock_)) {
         EXPECT_NE(HostBlob(), none);
         DVSwitchHandleUnlock(lock_);
         EXPECT_EQ(DVSState_ConfigReset(), STATUS_OK);
      }
      EXPECT_EQ(HostBlob(), none) << "the registry is not left empty";
   };
   for (const char *swId : {changed.c_str(), static_cast<const char *>(nullptr)}) {
      Restore();
      ASSERT_EQ(DVSState_SaveBufToConfigStore_ByInstance(blob.data(), blob.size(), swId), 0);
      EXPECT_FALSE(KLock_IsLockedByCaller(lock_));
      const Rows saved = Dump(true);
      EXPECT_GE(EachFailure(
                   &saved,
                   [&] {
                      return DVSState_SaveBufToConfigStore_ByInstance(blob.data(), blob.size(),
                                                                      swId);
                   },
                   released),
                100);
   }

   // Loading the saved host, live and desired (the user's copy of every
   // object, with the port-set name of the live one).
   Keep();
   for (bool desired : {false, true}) {
      void *buf = nullptr;
      uint32_t len = 0;
      ASSERT_EQ(DVSState_LoadFromConfigStoreAsBuf(&buf, &len, desired), 0);
      const std::string want(static_cast<char *>(buf), len);
      free(buf);
      // A load survives one allocation failure on purpose: the resource-pool
      // key list of the switch being loaded is then left out.  Any other
      // difference from the clean load is a lost value.
      const dvsctl::HostState clean = dvsctl::ReadHostState(dvsctl::Bytes(want.begin(), want.end()), "clean");
      auto acceptable = [&](const std::string &got) {
         if (got == want) {
            return true;
         }
         const dvsctl::DiffReport report =
            dvsctl::DiffHosts(clean, dvsctl::ReadHostState(dvsctl::Bytes(got.begin(), got.end()), "loaded"));
         return report.differences.size() == 1 &&
                report.differences[0].property == "com.ostrel.common.respools.list" &&
                report.differences[0].after == "(absent)";
      };
      EXPECT_GE(
         EachFailure(
            nullptr,
            [&] { return DVSState_LoadFromConfigStoreAsBuf(&(buf = nullptr), &len, desired); },
            [&](int32_t rc) {
               if (rc == 0) {
                  EXPECT_TRUE(acceptable(std::string(static_cast<char *>(buf), len)));
               } else {
                  EXPECT_EQ(buf, nullptr);
               }
               free(buf);
            }),
         100);
      // The user's copies for the desired load.
      cs::Store *s = nullptr;
      cs::FilterSpec *f = nullptr;
      cs::Object **objs = nullptr;
      uint32_t n = 0;
      ASSERT_EQ(cs::GetStore(0, &s), 0);
      ASSERT_EQ(cs::CreateFilterSpecObject("switches", "network_tds", "node", "", &f), 0);
      ASSERT_EQ(cs::GetInstances(s, f, &objs, &n), 0);
      for (uint32_t i = 0; i < n; i++) {
         EXPECT_EQ(cs::Set(s, objs[i], cs::kSourceUser), 0);
         EXPECT_EQ(cs::SetValueStr(objs[i], "portset_name", ("ps-" + std::to_string(i)).c_str()),
                   0);
         EXPECT_EQ(cs::Set(s, objs[i], cs::kSourceExternal), 0);
         cs::DestroyConfigStoreObject(objs[i]);
      }
      free(objs);
      cs::DestroyFilterSpecObject(f);
      cs::DestroyStore(s);
      Keep();
   }
}

}  // namespace
