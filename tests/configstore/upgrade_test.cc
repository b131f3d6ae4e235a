// The one-time upgrade from the state file: each switch of the file that has
// a port-set name gets its identity written into the configuration store,
// and nothing else.
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <string>
#include <vector>

#include <configstore.h>
#include <dvsconfigstore.h>
#include <dvsfile.h>
#include <dvsstate.h>
#include <gtest/gtest.h>

#include "registry_store_support.h"

namespace {

namespace cs = ::configstore;
namespace fs = std::filesystem;
using namespace registrystore;

// A value as Val gives it, without the quotes around a text.
std::string Plain(const std::string &v) {
   return v.front() == '\'' ? v.substr(1, v.size() - 2) : v;
}

Ids StoredIds() {
   return MapSwitchObjects([](cs::Object *o) { return Plain(Val(o, "uuid")); });
}

// The values and sub-objects of an object among the names a save or a
// previous writer can leave there, as "name=value" texts (sub-objects as
// "name{}" and instances as "name/id").
Ids Content(cs::Object *o) {
   Ids out;
   for (const char *key : {"uuid", "name", "max_ports", "portset_name", "is_opaque",
                           "uplink_port_keys", "uplink_port_names", "zlt_enabled", "custom",
                           "connection_cookie"})
      if (const std::string v = Val(o, key); v != "absent")
         out.push_back(key + ("=" + Plain(v)));
   for (const char *key :
        {"product", "settings", "resource_management", "data", "extra", "ports", "health_checks"})
      ForEachSubInstance(o, key, [&](cs::Object *sub) {
         const std::string id = Val(sub, "key");
         out.push_back(key + (id == "absent" ? "{}" : "/" + Plain(id)));
      });
   return out;
}

// Writes a switch object as an earlier save would have left it.
void Plant(const char *id) {
   Edit(id, [id](cs::Object *o) {
      cs::Object *sub = nullptr;
      EXPECT_EQ(cs::SetValueStr(o, "uuid", id), 0);
      EXPECT_EQ(cs::SetValueStr(o, "name", "old"), 0);
      EXPECT_EQ(cs::SetValueInt(o, "max_ports", 4), 0);
      EXPECT_EQ(cs::SetValueBool(o, "is_opaque", true), 0);
      EXPECT_EQ(cs::SetValueStr(o, "portset_name", "old-ps"), 0);
      EXPECT_EQ(cs::SetValueStr(o, "custom", "keep"), 0);
      EXPECT_EQ(cs::CreateSubObject(o, "settings", "", &sub), 0);
      EXPECT_EQ(cs::SetValueInt(sub, "max_mtu", 1500), 0);
      EXPECT_EQ(cs::CreateSubObject(o, "product", "", &sub), 0);
      EXPECT_EQ(cs::CreateSubObject(o, "extra", "", &sub), 0);
      EXPECT_EQ(cs::CreateSubObject(o, "ports", "old-port", &sub), 0);
      EXPECT_EQ(cs::CreateSubObject(o, "health_checks", "hc", &sub), 0);
   });
}

class UpgradeTest : public testing::Test {
  protected:
   void SetUp() override {
      dvs_debug = -1;
      dvsdata_debug = -1;
      ASSERT_FALSE(dir_.empty());
      store_ = dir_ + "/store.db";
      file_ = dir_ + "/dvsdata.db";
      setenv(cs::kPathEnv, store_.c_str(), 1);
      setenv("DVS_STATE_FILE", file_.c_str(), 1);
      ASSERT_EQ(DVSState_ConfigReset(), STATUS_OK);
   }
   void TearDown() override {
      DVSState_ConfigReset();
      dvsconfigstore_debug = 10;
   }
   // The registry into the state file; the registry is emptied.
   void WriteStateFile() {
      const std::string blob = TakeBlob();
      ASSERT_EQ(DVSFile_Write(file_.c_str(), blob.data(), blob.size()), STATUS_OK);
   }
   int32_t Upgrade(int level, std::string *out) {
      int32_t rc = 0;
      dvsconfigstore_debug = level;
      *out = testsupport::CapturedStdout([&] { rc = DVSState_RetrieveDVSUpgradeInfo(); });
      dvsconfigstore_debug = 10;
      return rc;
   }
   testsupport::TempDir tmp_{"csupg"};
   const std::string dir_ = tmp_.path();
   std::string store_, file_;
};

TEST_F(UpgradeTest, NothingToCarryOverIsNotAnError) {
   std::string out;
   // No state file, then an empty one: the store is not even opened, and a
   // registry left from before is cleared.
   for (int empty = 0; empty < 2; empty++) {
      if (empty)
         std::ofstream(file_).flush();
      AddSwitch("sw-left", "vswitch", 8, 7);
      EXPECT_EQ(Upgrade(10, &out), 0);
      EXPECT_EQ(out, "");
      EXPECT_FALSE(fs::exists(store_));
      EXPECT_EQ(DVSState_SwitchFind("sw-left"), nullptr);
      ExpectLockFree();
   }
   // A state file without switches leaves the existing objects alone.
   Plant("sw-old");
   const Ids before = Content(Read("sw-old").get());
   ASSERT_EQ(before.size(), 11u);
   WriteStateFile();
   EXPECT_EQ(Upgrade(10, &out), 0) << out;
   EXPECT_EQ(StoredIds(), Ids{"sw-old"});
   EXPECT_EQ(Content(Read("sw-old").get()), before);
}

TEST_F(UpgradeTest, WritesIdentityAndPortsetNameOfEachSwitch) {
   Plant("sw-a");
   Plant("sw-c");
   AddSwitch("sw-a", "vswitch", 64, 7);
   Global("sw-a", "com.ostrel.common.alias", Text("Prod"));
   Global("sw-a", "com.ostrel.common.version", U32(7));
   Global("sw-a", "com.ostrel.common.opaqueDvs", Text("true"));
   Global("sw-a", "com.ostrel.common.portset.mtu", U32(9000));
   Global("sw-a", "com.example.global.blob", Text("x"));
   Host("sw-a", "com.ostrel.common.host.portset", Text("ps-a"));
   Host("sw-a", "com.ostrel.common.host.uplinkPorts", U32(0));
   AddPort("sw-a", "p-1", {{"com.ostrel.common.port.connectid", U32(5)}});
   AddSwitch("sw-b", "plainswitch", 32, 107);  // keeps its own port limit
   Global("sw-b", "com.ostrel.common.alias", Text("Bee"));
   Host("sw-b", "com.ostrel.common.host.portset", Text("ps-b"));
   // Without a port-set name a switch is left out, object or not.
   AddSwitch("sw-c", "etherswitch", 16, 100);
   Global("sw-c", "com.ostrel.common.alias", Text("Sea"));
   AddSwitch("sw-d", "vswitch", 8, 7);
   Global("sw-d", "com.ostrel.common.alias", Text("Dee"));
   Host("sw-d", "com.example.host.note", Text("no portset"));
   WriteStateFile();

   std::string out;
   ASSERT_EQ(Upgrade(0, &out), 0) << out;
   // The identity line prints at level 0 here, for skipped switches too.
   for (const char *line :
        {"SaveDVS: Prod\n", "SaveDVS: Bee\n", "SaveDVS: Sea\n", "SaveDVS: Dee\n"})
      EXPECT_NE(out.find(line), std::string::npos) << line << "\nin:\n" << out;

   EXPECT_EQ(StoredIds(), (Ids{"sw-a", "sw-c", "sw-b"}));
   // The stale keys of sw-a are gone, the one outside the lists stays.
   EXPECT_EQ(
      Content(Read("sw-a").get()),
      (Ids{"uuid=sw-a", "name=Prod", "max_ports=" + std::to_string(uwMaxNumActivePortsSystemWide),
           "portset_name=ps-a", "custom=keep", "extra{}"}));
   EXPECT_EQ(Content(Read("sw-b").get()),
             (Ids{"uuid=sw-b", "name=Bee", "max_ports=32", "portset_name=ps-b"}));
   EXPECT_EQ(Content(Read("sw-c").get()),
             (Ids{"uuid=sw-c", "name=old", "max_ports=4", "portset_name=old-ps", "is_opaque=true",
                  "custom=keep", "product{}", "settings{}", "extra{}", "ports/old-port",
                  "health_checks/hc"}));
   EXPECT_EQ(DVSState_SwitchFind("sw-a"), nullptr);
   ExpectLockFree();

   // Silent at a negative level; running again changes nothing.
   const Ids before = Content(Read("sw-a").get());
   AddSwitch("sw-a", "vswitch", 64, 7);
   Global("sw-a", "com.ostrel.common.alias", Text("Prod"));
   Host("sw-a", "com.ostrel.common.host.portset", Text("ps-a"));
   WriteStateFile();
   EXPECT_EQ(Upgrade(-1, &out), 0);
   EXPECT_EQ(out, "");
   EXPECT_EQ(Content(Read("sw-a").get()), before);
}

TEST_F(UpgradeTest, UnopenableStoreKeepsTheLockAndTheRegistry) {
   AddSwitch("sw-a", "vswitch", 8, 7);
   Host("sw-a", "com.ostrel.common.host.portset", Text("ps-a"));
   WriteStateFile();
   std::ofstream(dir_ + "/file") << "not a folder";
   setenv(cs::kPathEnv, (dir_ + "/file/store.db").c_str(), 1);
   std::string out;
   EXPECT_EQ(Upgrade(0, &out), -1);
   EXPECT_NE(out.find("Get store failed\n"), std::string::npos) << out;
   EXPECT_NE(DVSState_SwitchFind("sw-a"), nullptr);
   ExpectLockKeptOnceAndDrop();
}

}  // namespace
