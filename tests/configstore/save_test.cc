// Saving switch state into the configuration store: registries built with
// the switch-state calls, serialized, handed to the save, and the store file
// read back object by object and key by key.
#include <arpa/inet.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include <configstore.h>
#include <dvsconfigstore.h>
#include <dvsstate.h>
#include <gtest/gtest.h>

#include "registry_store_support.h"

namespace {

namespace cs = ::configstore;
namespace fs = std::filesystem;
using namespace registrystore;

constexpr auto Names = testsupport::NameRecords;
std::string Ipv4(const char *dotted) {
   std::string b(4, '\0');
   EXPECT_EQ(inet_pton(AF_INET, dotted, b.data()), 1);
   return b;
}

Ids Words(const char *text) {
   std::istringstream in(text);
   return Ids(std::istream_iterator<std::string>(in), {});
}

// Every value and sub-object a save can leave on an object, as text.  The
// content of "data" belongs to the catch-all converter and shows only when
// deep is set.
std::string Dump(cs::Object *o, bool deep = false) {
   static const auto kValues = Words(
      "uuid name max_ports portset_name is_opaque switch_address uplink_port_keys "
      "uplink_port_names uplink_port_groupKeys zlt_enabled forwarding_class version max_mtu "
      "beacon multicast_filtering_mode enable pnic_capacity_ratio_for_reservation "
      "network_resource_pool_keys connection_cookie port_group_key blocked "
      "direct_io_gen2_allowed tx_uplink ipfix_enabled backing_type network_resource_pools "
      "priority value custom");
   static const auto kSingles =
      Words("product settings vlan network_resource_pools resource_management data extra");
   static const auto kLists = Words(
      "ports uplink_ports hypnic_ports vtep_ports health_checks dvs_opaque_data "
      "host_opaque_data other_data");
   std::string d;
   for (const std::string &v : kValues)
      if (Val(o, v.c_str()) != "absent")
         d += v + "=" + Val(o, v.c_str()) + ";";
   for (const std::string &s : kSingles) {
      cs::Object *sub = nullptr;
      if (cs::GetSubObject(o, s.c_str(), "", &sub) == 0)
         d += s == "data" && !deep ? "data;" : s + "{" + Dump(sub, deep) + "}";
   }
   for (const std::string &l : kLists) {
      ForEachSubInstance(o, l.c_str(), [&](cs::Object *sub) {
         d += l + "/" + Val(sub, "key") + "{" + Dump(sub, deep) + "}";
      });
   }
   return d;
}
// The uuid of every switch object of the store in creation order, or with
// dump set, everything on each object.
Ids Stored(bool dump = false) {
   return MapSwitchObjects([dump](cs::Object *o) { return dump ? Dump(o, true) : Val(o, "uuid"); });
}

struct Outcome {
   int32_t rc;
   std::string out;
};

class SaveTest : public testing::Test {
  protected:
   void SetUp() override {
      dvs_debug = -1;
      dvsdata_debug = -1;
      dvsconfigstore_debug = 10;
      ASSERT_FALSE(dir_.empty());
      setenv(cs::kPathEnv, (dir_ + "/store.db").c_str(), 1);
      ASSERT_EQ(DVSState_ConfigReset(), STATUS_OK);
   }
   void TearDown() override {
      DVSState_ConfigReset();
      dvsconfigstore_debug = 10;
   }
   // One save run at the given message level; a null id saves everything.
   static Outcome Save(const std::string &blob, const char *swId = nullptr, int level = 10) {
      const uint32_t len = static_cast<uint32_t>(blob.size());
      Outcome r{0, ""};
      dvsconfigstore_debug = level;
      r.out = testsupport::CapturedStdout([&] {
         r.rc = swId == nullptr ? DVSState_SaveBufToConfigStore(blob.data(), len)
                                : DVSState_SaveBufToConfigStore_ByInstance(blob.data(), len, swId);
      });
      dvsconfigstore_debug = 10;
      return r;
   }
   testsupport::TempDir tmp_{"cssave"};
   const std::string dir_ = tmp_.path();
};

bool Has(const std::string &out, const std::string &line) {
   return out.find(line) != std::string::npos;
}

// Switches of different classes and versions, with properties of every
// scalar kind, host properties and ports.  The classes vswitch, cswitch and
// etherswitch take the host-wide port limit; other classes keep their own.
void BuildSwitches() {
   AddSwitch("sw-a", "vswitch", 64, 7);
   Global("sw-a", "com.ostrel.common.alias", Text("Prod"));
   Global("sw-a", "com.ostrel.common.version", U32(7));
   Global("sw-a", "com.ostrel.common.portset.mtu", U32(1500));
   Global("sw-a", "com.ostrel.vswitch.mtu", U32(9000));  // same key, written last
   Global("sw-a", "com.ostrel.common.opaqueDvs", Text("true"));
   Global("sw-a", "com.ostrel.common.uplinkPorts", Names(81, {"uplink1", "uplink2"}));
   Global("sw-a", "com.ostrel.vswitch.multicastFilter", Text("SNOOPING"));
   Global("sw-a", "com.ostrel.common.respools.sched", std::string(1, '\1'));
   Global("sw-a", "com.ostrel.common.resv.threshold", U32(75));
   Global("sw-a", "com.ostrel.common.respools.list", Names(200, {"pool-a", "pool-b"}));
   Global("sw-a", "com.example.global.blob", std::string("\x01\x00\x02", 3));
   Host("sw-a", "com.ostrel.common.host.portset", Text("ps-a"));
   Host("sw-a", "com.ostrel.common.host.uplinkPorts", Names(48, {"key-1", "key-2"}));
   Host("sw-a", "com.example.host.note", Text("hello"));
   AddPort("sw-a", "p-2",
           {{"com.ostrel.common.port.alias", Text("vm-nic")},
            {"com.ostrel.common.port.connectid", U32(123456)},
            {"com.ostrel.common.port.block", Text("true")},
            {"com.ostrel.common.port.ptAllowed", U32(2)},
            {"com.ostrel.vswitch.port.txUplink", Text("always")},
            {"com.ostrel.common.port.portgroupid", Text("pg-7")},
            {"com.ostrel.common.port.backingType", Text("standard")},
            {"com.ostrel.vswitch.port.priority", U32(5)},
            {"com.ostrel.common.port.respools.cfg", Text("ignored")},
            {"com.example.port.tag", Text("t")}});
   AddPort("sw-a", "p-1",
           {{"com.ostrel.common.port.connectid", U32(7)},
            {"com.ostrel.common.port.block", Text("false")},
            {"com.ostrel.common.port.ptAllowed", U32(1)},
            {"com.ostrel.vswitch.port.txUplink", Text("normal")},
            {"com.ostrel.etherswitch.port.ipfix", Text("enabled")}});
   AddPort("sw-a", "p-3", {});

   AddSwitch("sw-b", "cswitch", 32, 107);
   Global("sw-b", "com.ostrel.common.version", U32(107));
   Global("sw-b", "com.ostrel.common.portset.zlt", Text("true"));
   Global("sw-b", "com.ostrel.etherswitch.ipv4addr", Ipv4("10.1.2.3"));
   Host("sw-b", "com.ostrel.common.host.portset", Text("ps-b"));
   AddPort("sw-b", "p-1", {{"com.ostrel.vswitch.port.priority", U32(7)}});

   AddSwitch("sw-c", "etherswitch", 16, 100);
   Global("sw-c", "com.ostrel.common.alias", Text("Edge"));
   Global("sw-c", "com.ostrel.common.version", U32(100));
   Global("sw-c", "com.ostrel.etherswitch.mtu", U32(1600));
   Global("sw-c", "com.ostrel.etherswitch.ipv4addr", Ipv4("192.168.0.254"));
   Global("sw-c", "com.ostrel.etherswitch.beaconTimeout", U32(static_cast<uint32_t>(-1)));
   Global("sw-c", "com.ostrel.common.portset.zlt", Text("false"));
   Global("sw-c", "com.ostrel.common.opaqueDvs", Text("yes"));
   AddPort("sw-c", "p-1", {{"com.ostrel.etherswitch.port.ipfix", Text("disabled")}});

   AddSwitch("sw-d", "plainswitch", 24, 10);
   Global("sw-d", "com.ostrel.common.alias", Text("Dee"));
   Global("sw-d", "com.ostrel.common.version", U32(10));
}

std::string HostWideLimit() {
   return std::to_string(uwMaxNumActivePortsSystemWide);
}

TEST_F(SaveTest, EverySwitchObjectHoldsItsIdentityPropertiesAndPorts) {
   BuildSwitches();
   const std::string blob = TakeBlob();
   AddSwitch("sw-local", "vswitch", 8, 7);  // not in the blob: the save drops it
   const Outcome run = Save(blob);
   ASSERT_EQ(run.rc, 0) << run.out;
   EXPECT_EQ(Stored(), (Ids{"'sw-a'", "'sw-b'", "'sw-c'", "'sw-d'"}));
   EXPECT_EQ(DVSState_SwitchFind("sw-a"), nullptr);
   EXPECT_EQ(DVSState_SwitchFind("sw-local"), nullptr);
   ExpectLockFree();

   // Ports are keyed by port id, in slot order; a port without properties
   // still has its instance.  Unmapped properties land under "data".
   const std::string all = HostWideLimit();
   EXPECT_EQ(Dump(Read("sw-a").get()),
             "uuid='sw-a';name='Prod';max_ports=" + all +
                ";portset_name='ps-a';is_opaque=true;uplink_port_keys=[key-1,key-2];"
                "uplink_port_names=[uplink1,uplink2];"
                "product{forwarding_class='vswitch';version='7.0.0';}"
                "settings{max_mtu=9000;multicast_filtering_mode='SNOOPING';}"
                "resource_management{enable=true;pnic_capacity_ratio_for_reservation=75;"
                "network_resource_pool_keys=[pool-a,pool-b];}data;"
                "ports/'p-2'{name='vm-nic';connection_cookie=123456;port_group_key='pg-7';"
                "settings{blocked=true;direct_io_gen2_allowed=true;tx_uplink=true;"
                "backing_type='standard';vlan{priority=5;}}data;}"
                "ports/'p-1'{connection_cookie=7;settings{blocked=false;"
                "direct_io_gen2_allowed=false;tx_uplink=false;ipfix_enabled=true;}}"
                "ports/'p-3'{}");
   // Without an alias the name is the switch's fallback name.
   ObjPtr b = Read("sw-b");
   const std::string bName = Val(b.get(), "name");
   EXPECT_EQ(bName.front(), '\'');
   EXPECT_EQ(Dump(b.get()), "uuid='sw-b';name=" + bName + ";max_ports=" + all +
                               ";portset_name='ps-b';switch_address='10.1.2.3';zlt_enabled=true;"
                               "product{forwarding_class='cswitch';version='7.0.0';}"
                               "ports/'p-1'{settings{vlan{priority=7;}}}");
   EXPECT_EQ(Dump(Read("sw-c").get()),
             "uuid='sw-c';name='Edge';max_ports=" + all +
                ";is_opaque=false;switch_address='192.168.0.254';zlt_enabled=false;"
                "product{forwarding_class='etherswitch';version='ZLT 1.0';}"
                "settings{max_mtu=1600;beacon=-1;}ports/'p-1'{settings{ipfix_enabled=false;}}");
   EXPECT_EQ(Dump(Read("sw-d").get()),
             "uuid='sw-d';name='Dee';max_ports=24;"
             "product{forwarding_class='plainswitch';version='8.0.0';}");
}

TEST_F(SaveTest, MessagesFollowTheDebugLevel) {
   BuildSwitches();
   const std::string blob = TakeBlob();
   const Outcome loud = Save(blob, nullptr, 1);
   ASSERT_EQ(loud.rc, 0);
   for (const char *line : {"Ready to save dvs list\n", "SaveDVS: Prod\n", "SaveDVS: Edge\n",
                            "SaveGlobalProp: com.ostrel.common.version\n",
                            "SaveHostProp: com.ostrel.common.host.portset\n",
                            "Compare com.example.global.blob : DEFAULT success\n",
                            "Compare com.example.port.tag : DEFAULT success\n"})
      EXPECT_TRUE(Has(loud.out, line)) << line << "\nin:\n" << loud.out;
   const Outcome quiet = Save(blob, nullptr, 0);
   EXPECT_EQ(quiet.rc, 0);
   EXPECT_EQ(quiet.out, "");
}

TEST_F(SaveTest, ResaveDropsWhatTheStaleListsNameAndKeepsTheRest) {
   BuildSwitches();
   ASSERT_EQ(Save(TakeBlob()).rc, 0);
   // Content that no save writes, some of it named in the stale lists.
   Edit("sw-a", [](cs::Object *o) {
      cs::Object *sub = nullptr;
      EXPECT_EQ(cs::SetValueStr(o, "custom", "keep"), 0);
      EXPECT_EQ(cs::AppendValueString(o, "uplink_port_groupKeys", "g1"), 0);
      for (const char *key : {"uplink_ports", "hypnic_ports", "vtep_ports", "health_checks"})
         EXPECT_EQ(cs::CreateSubObject(o, key, "i1", &sub), 0);
      EXPECT_EQ(cs::CreateSubObject(o, "extra", "", &sub), 0);
      EXPECT_EQ(cs::SetValueStr(sub, "value", "kept"), 0);
   });
   AddSwitch("sw-a", "plainswitch", 128, 7);
   Global("sw-a", "com.ostrel.common.alias", Text("Prod2"));
   Global("sw-a", "com.ostrel.common.portset.mtu", U32(1600));
   Global("sw-a", "com.ostrel.common.uplinkPorts", Names(81, {}));     // writes nothing
   Host("sw-a", "com.ostrel.common.host.uplinkPorts", Names(48, {}));  // writes an empty list
   AddPort("sw-a", "p-9", {{"com.ostrel.common.port.connectid", U32(9)}});
   const Outcome run = Save(TakeBlob(), "sw-a");
   ASSERT_EQ(run.rc, 0) << run.out;

   ObjPtr a = Read("sw-a");
   ASSERT_NE(a, nullptr);
   EXPECT_EQ(Dump(a.get()),
             "uuid='sw-a';name='Prod2';max_ports=128;uplink_port_keys=[];custom='keep';"
             "product{forwarding_class='plainswitch';}settings{max_mtu=1600;}extra{value='kept';}"
             "ports/'p-9'{connection_cookie=9;}");
   // The other switches were not part of this run.
   EXPECT_EQ(Stored(), (Ids{"'sw-a'", "'sw-b'", "'sw-c'", "'sw-d'"}));
   EXPECT_EQ(Val(Read("sw-b").get(), "switch_address"), "'10.1.2.3'");
}

TEST_F(SaveTest, StaleSwitchObjectsAreDeleted) {
   for (const char *id : {"sw-a", "sw-b", "sw-c"}) {
      AddSwitch(id, "vswitch", 8, 7);
      Global(id, "com.ostrel.common.opaqueDvs", Text("true"));
   }
   ASSERT_EQ(Save(TakeBlob()).rc, 0);
   ASSERT_EQ(Stored(), (Ids{"'sw-a'", "'sw-b'", "'sw-c'"}));

   // With an id, only that switch is written and only its object may go.
   AddSwitch("sw-a", "vswitch", 8, 7);
   AddSwitch("sw-d", "cswitch", 8, 7);
   const std::string aAndD = TakeBlob();
   ASSERT_EQ(Save(aAndD, "sw-d").rc, 0);
   EXPECT_EQ(Stored(), (Ids{"'sw-a'", "'sw-b'", "'sw-c'", "'sw-d'"}));
   EXPECT_EQ(Val(Read("sw-a").get(), "is_opaque"), "true");  // not rewritten
   // An id the blob does not hold deletes that object and commits.
   const Outcome gone = Save(aAndD, "sw-b");
   EXPECT_EQ(gone.rc, 0) << gone.out;
   EXPECT_EQ(Stored(), (Ids{"'sw-a'", "'sw-c'", "'sw-d'"}));
   EXPECT_EQ(Save(aAndD, "sw-zz").rc, 0);
   EXPECT_EQ(Stored(), (Ids{"'sw-a'", "'sw-c'", "'sw-d'"}));

   // Without an id, every object whose switch the blob lacks goes.
   EXPECT_EQ(Save(aAndD).rc, 0);
   EXPECT_EQ(Stored(), (Ids{"'sw-a'", "'sw-d'"}));
   EXPECT_EQ(Val(Read("sw-a").get(), "is_opaque"), "absent");

   // A host without switches: every switch object goes, objects of another
   // kind stay.
   Edit(
      "sw-x", [](cs::Object *o) { EXPECT_EQ(cs::SetValueStr(o, "uuid", "sw-x"), 0); },
      "network_other");
   const Outcome none = Save(TakeBlob());
   EXPECT_EQ(none.rc, 0) << none.out;
   EXPECT_EQ(Stored(), Ids{});
   EXPECT_NE(Read("sw-x", "network_other"), nullptr);
}

// The stale check goes by each object's "uuid" as stored before the run,
// the switch saves by instance id: sw-a's object naming sw-q takes sw-q's
// object with it, and an object of another id naming sw-a is neither
// rewritten nor deleted.
TEST_F(SaveTest, StaleCheckUsesUuidsAsStoredAndSavesGoByInstanceId) {
   AddSwitch("sw-a", "vswitch", 8, 7);
   const std::string blob = TakeBlob();
   Edit("alias-of-a", [](cs::Object *o) { EXPECT_EQ(cs::SetValueStr(o, "uuid", "sw-a"), 0); });
   for (const char *swId : {"sw-a", static_cast<const char *>(nullptr)}) {
      SCOPED_TRACE(swId != nullptr ? swId : "whole host");
      Edit("sw-a", [](cs::Object *o) { EXPECT_EQ(cs::SetValueStr(o, "uuid", "sw-q"), 0); });
      Edit("sw-q", [](cs::Object *o) { EXPECT_EQ(cs::SetValueStr(o, "custom", "q"), 0); });
      const Outcome run = Save(blob, swId);
      ASSERT_EQ(run.rc, 0) << run.out;
      EXPECT_EQ(Read("sw-q"), nullptr);
      EXPECT_EQ(Dump(Read("alias-of-a").get()), "uuid='sw-a';");
      EXPECT_EQ(Val(Read("sw-a").get(), "uuid"), "'sw-a'");
   }
}

TEST_F(SaveTest, OneFailingPropertyCancelsTheWholeRun) {
   BuildSwitches();
   ASSERT_EQ(Save(TakeBlob()).rc, 0);
   const Ids before = Stored(true);
   ASSERT_EQ(before.size(), 4u);

   // sw-a changes and comes first; sw-b cannot be written; sw-c is new.
   AddSwitch("sw-a", "vswitch", 256, 7);
   Global("sw-a", "com.ostrel.common.alias", Text("Changed"));
   AddSwitch("sw-b", "cswitch", 32, 107);
   Global("sw-b", "com.ostrel.common.alias", Text("Bee"));
   Global("sw-b", "com.ostrel.common.version", U32(11));
   AddSwitch("sw-new", "vswitch", 8, 7);
   Global("sw-new", "com.ostrel.common.alias", Text("Fresh"));
   const std::string bad = TakeBlob();

   for (const char *id : {static_cast<const char *>(nullptr), "sw-b"}) {
      const Outcome run = Save(bad, id);
      EXPECT_EQ(run.rc, -1);
      for (const char *line :
           {"Unknow version : (null)\n", "Set prop: com.ostrel.common.version failed\n",
            "Failed to save dvs: sw-b to configstore\n", "Failed to save dvs to configstore\n"})
         EXPECT_TRUE(Has(run.out, line)) << line << "\nin:\n" << run.out;
      // sw-a was written before sw-b failed; the walk stops at sw-b.
      EXPECT_EQ(Has(run.out, "SaveDVS: Changed\n"), id == nullptr) << run.out;
      EXPECT_TRUE(Has(run.out, "SaveDVS: Bee\n")) << run.out;
      EXPECT_FALSE(Has(run.out, "SaveDVS: Fresh\n")) << run.out;
      EXPECT_EQ(Stored(true), before);
      EXPECT_EQ(DVSState_SwitchFind("sw-a"), nullptr);
      EXPECT_EQ(DVSState_SwitchFind("sw-b"), nullptr);
      ExpectLockFree();
   }
   const Outcome silent = Save(bad, nullptr, -1);
   EXPECT_EQ(silent.rc, -1);
   EXPECT_EQ(silent.out, "");
   EXPECT_EQ(Stored(true), before);
}

TEST_F(SaveTest, EarlyFailuresBeforeAnyStoreWork) {
   AddSwitch("sw-a", "vswitch", 8, 7);
   Global("sw-a", "com.ostrel.common.version", U32(7));
   AddPort("sw-a", "p-1", {{"com.ostrel.common.port.connectid", U32(41)}});
   const std::string blob = TakeBlob();

   const std::string noBuffer = testsupport::CapturedStdout(
      [] { EXPECT_EQ(DVSState_SaveBufToConfigStore(nullptr, 100), -1); });
   EXPECT_TRUE(Has(noBuffer, "No dvs buffer to save to configstore\n")) << noBuffer;
   ExpectLockFree();

   // A store that cannot be opened: its folder is a file, or the file is not
   // a database.  The run returns with the lock held and the registry kept.
   std::ofstream(dir_ + "/file") << "not a folder";
   std::ofstream(dir_ + "/junk.db") << std::string(4096, 'x');
   for (const std::string &path : {dir_ + "/file/store.db", dir_ + "/junk.db"}) {
      setenv(cs::kPathEnv, path.c_str(), 1);
      const Outcome run = Save(blob);
      EXPECT_EQ(run.rc, -1) << path;
      EXPECT_TRUE(Has(run.out, "Get store failed\n")) << run.out;
      EXPECT_NE(DVSState_SwitchFind("sw-a"), nullptr);
      // The registry kept is the caller's to use and change: its lists
      // must not live in memory that the run released.
      DVSPort *port = DVSState_PortFind("sw-a", "p-1");
      ASSERT_NE(port, nullptr);
      void *val = nullptr;
      uint32_t len = 0;
      ASSERT_EQ(DVSState_PortDataGet(port, "com.ostrel.common.port.connectid", &val, &len),
                STATUS_OK);
      EXPECT_EQ(std::string(static_cast<const char *>(val), len), U32(41));
      const uint32_t added = 5;
      EXPECT_EQ(DVSState_PortDataSet(port, "com.example.port.tag", &added, sizeof added, 0),
                STATUS_OK);
      EXPECT_EQ(DVSState_GlobalPropSet("sw-a", "com.example.tag", &added, sizeof added, 0),
                STATUS_OK);
      ExpectLockKeptOnceAndDrop();
      EXPECT_EQ(DVSState_ConfigReset(), STATUS_OK);
   }

   // With the switch-state traces on, the registry kept is the one rebuilt
   // at the start, and its trace lines are printed once.
   setenv(cs::kPathEnv, (dir_ + "/junk.db").c_str(), 1);
   dvs_debug = 0;
   const Outcome traced = Save(blob);
   dvs_debug = -1;
   EXPECT_EQ(traced.rc, -1);
   auto count = [&](const std::string &line) {
      size_t n = 0;
      for (size_t at = traced.out.find(line); at != std::string::npos;
           at = traced.out.find(line, at + 1)) {
         n++;
      }
      return n;
   };
   EXPECT_EQ(count("Create DVS sw-a"), 1u) << traced.out;
   EXPECT_EQ(count(" p-1, return "), 1u) << traced.out;
   EXPECT_NE(DVSState_PortFind("sw-a", "p-1"), nullptr);
   ExpectLockKeptOnceAndDrop();
   EXPECT_EQ(DVSState_ConfigReset(), STATUS_OK);
}

TEST_F(SaveTest, SaveFromTheKernelWithoutADevice) {
   setenv("DVS_DEVICE_PATH", (dir_ + "/missing.sock").c_str(), 1);
   AddSwitch("sw-a", "vswitch", 8, 7);
   ASSERT_EQ(Save(TakeBlob()).rc, 0);
   const Ids before = Stored(true);
   for (const char *id : {static_cast<const char *>(nullptr), "sw-a"}) {
      int32_t rc = 0;
      const std::string out = testsupport::CapturedStdout([&] {
         rc = id ? DVSState_SaveToConfigStore_ByInstance(id) : DVSState_SaveToConfigStore();
      });
      EXPECT_EQ(rc, -1);
      EXPECT_TRUE(
         Has(out, "Failed to save DVS config to configstore when get DVS buffrom hyp. Error: "))
         << out;
      EXPECT_EQ(Stored(true), before);
      ExpectLockFree();
   }
}

}  // namespace
