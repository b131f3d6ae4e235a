// Loading switch state from the configuration store: store objects, made
// by hand or by a save, turned into a host configuration blob and decoded
// again switch by switch.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <initializer_list>
#include <map>
#include <string>
#include <vector>

#include <configstore.h>
#include <dvsconfigstore.h>
#include <dvsstate.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include "configstore/configstore_internal.h"
#include "data/property_list.h"
#include "tests/support/le_bytes.h"
#include "tests/support/prop_lists.h"
#include "tests/support/temp_dir.h"

namespace {

namespace cs = ::configstore;
using Props = std::map<std::string, std::string>;

using testsupport::Text;
using testsupport::U32;

// A decoded property list: name -> value; each property's flag is checked
// to be the one every loaded property carries.
Props Decode(const std::string &blob) {
   DVSDataHandle h = nullptr;
   Props out;
   EXPECT_EQ(DVSData_Deserialize(&h, blob.data(), uint32_t(blob.size()), malloc, free), STATUS_OK);
   for (DVSDataEntry *e = h ? h->head : nullptr; e != nullptr; e = e->next) {
      EXPECT_EQ(e->flag, 0x10u) << e->name;
      EXPECT_EQ(out.count(e->name), 0u) << "duplicate " << e->name;
      out[e->name] = std::string(reinterpret_cast<const char *>(e->data), e->dataLen);
   }
   DVSData_Free(h);
   return out;
}

// The names of a blob's records in order, repeats included.
std::vector<std::string> RecordNames(const std::string &blob) {
   std::vector<std::string> names;
   for (const auto &record : testsupport::Decode(blob))
      names.push_back(record.first);
   return names;
}

// One property list in a blob's layout, for the blob a save is given.
using testsupport::Serialize;

class LoadTest : public ::testing::Test {
  protected:
   void SetUp() override {
      ASSERT_FALSE(dir_.path().empty());
      setenv(cs::kPathEnv, (dir_ / "store.db").c_str(), 1);
      ASSERT_EQ(cs::GetStore(0, &store_), 0);
      DVSState_ConfigReset();
   }
   void TearDown() override { cs::DestroyStore(store_); }

   // Stores a switch object given as JSON, live or as desired configuration.
   void Put(const std::string &id, const std::string &json, const char *source = "EXTERNAL") {
      cs::Object *obj = nullptr;
      ASSERT_EQ(cs::CreateObject("switches", "network_tds", "node", id.c_str(), json.c_str(), &obj),
                0);
      ASSERT_EQ(cs::Set(store_, obj, source), 0);
      cs::DestroyConfigStoreObject(obj);
   }
   // A port object under instance id `id`, whose "key" (and alias, when
   // given) is set apart from the id, so that keys may repeat.
   struct PortSpec {
      const char *id, *key, *alias;
   };
   // Stores a vswitch object `uuid` under `instance` with those ports.
   void PutWithPorts(const char *instance, const std::string &uuid,
                     std::initializer_list<PortSpec> ports) {
      cs::Object *root = nullptr;
      ASSERT_EQ(cs::CreateObject("switches", "network_tds", "node", instance,
                                 SwitchJson(uuid, "vswitch", "6.6.0").c_str(), &root),
                0);
      for (const PortSpec &p : ports) {
         cs::Object *port = nullptr;
         ASSERT_EQ(cs::CreateSubObject(root, "ports", p.id, &port), 0);
         ASSERT_EQ(cs::SetValueStr(port, "key", p.key), 0);
         if (p.alias != nullptr) {
            ASSERT_EQ(cs::SetValueStr(port, "name", p.alias), 0);
         }
      }
      ASSERT_EQ(cs::Set(store_, root, "EXTERNAL"), 0);
      cs::DestroyConfigStoreObject(root);
   }
   static std::string SwitchJson(const std::string &uuid, const std::string &cls,
                                 const std::string &version, const std::string &extra = "") {
      return R"({"uuid":")" + uuid + R"(","max_ports":64,"portset_name":"ps-)" + uuid +
             R"(","product":{"forwarding_class":")" + cls + R"(","version":")" + version + R"("})" +
             extra + "}";
   }

   // The load's result, with its status.
   int32_t Load(Props *switches, bool desired = false) {
      void *buf = nullptr;
      uint32_t len = 0;
      const int32_t rc = DVSState_LoadFromConfigStoreAsBuf(&buf, &len, desired);
      if (rc == 0) {
         EXPECT_NE(buf, nullptr);
         *switches = Decode(std::string(static_cast<const char *>(buf), len));
      } else {
         EXPECT_EQ(buf, nullptr) << "no buffer after a failed load";
      }
      free(buf);
      return rc;
   }

   testsupport::TempDir dir_{"cs-load"};
   cs::Store *store_ = nullptr;
};

// Port objects whose "key" values repeat, or repeat a name the switch's
// list already has: each port is added as an update of that name, so the
// later one replaces the earlier (in place when its blob is as long, else
// at the end), and the list never holds a name twice.
TEST_F(LoadTest, RepeatedPortKeysReplaceEarlierEntries) {
   PutWithPorts("sw-dup", "sw-dup",
                {{"a", "dup", "first"},
                 {"b", "p2", nullptr},
                 {"c", "dup", "later"},
                 {"d", "p2", "grown"},
                 {"e", "hostPropList", nullptr}});

   Props top;
   ASSERT_EQ(Load(&top), 0);
   ASSERT_EQ(top.count("sw-dup"), 1u);
   const std::string &swBlob = top["sw-dup"];
   EXPECT_EQ(RecordNames(swBlob),
             (std::vector<std::string>{"switchVersion", "className", "maxPorts", "globalPropList",
                                       "dup", "p2", "hostPropList"}));
   const Props sws = Decode(swBlob);
   EXPECT_EQ(Decode(sws.at("dup")), (Props{{"com.ostrel.common.port.alias", Text("later")}}));
   EXPECT_EQ(Decode(sws.at("p2")), (Props{{"com.ostrel.common.port.alias", Text("grown")}}));
   EXPECT_EQ(Decode(sws.at("hostPropList")), Props{});
}

TEST_F(LoadTest, EmptyStoreGivesAnEmptyHostList) {
   void *buf = nullptr;
   uint32_t len = 0;
   ASSERT_EQ(DVSState_LoadFromConfigStoreAsBuf(&buf, &len, false), 0);
   EXPECT_EQ(len, uint32_t{DVSDATA_MIN_BLOB_SIZE});
   EXPECT_EQ(Decode(std::string(static_cast<const char *>(buf), len)).size(), 0u);
   free(buf);
   EXPECT_EQ(DVSState_LoadFromConfigStoreAsBuf(nullptr, &len, false), -1);
}

// A registry saved and loaded again: the switch list layout, the version
// read with "zlt_enabled", every scalar property and the catch-all data.
TEST_F(LoadTest, SavedSwitchesComeBackSwitchBySwitch) {
   const std::string pools = U32(1) + std::string("pool-a") + std::string(122, '\0') +
                             U32(0xffffffff) + U32(0xffffffff) + std::string(8, '\0') + U32(50) +
                             U32(1);
   std::string uplinkKeys = U32(1) + "p1" + std::string(46, '\0');
   const std::string blob = Serialize({
      {"sw-v",
       Serialize({{"switchVersion", U32(107)},
                  {"className", Text("vswitch")},
                  {"maxPorts", U32(64)},
                  {"globalPropList",
                   Serialize({{"com.ostrel.common.alias", Text("prod")},
                              {"com.ostrel.common.version", U32(107)},
                              {"com.ostrel.common.portset.zlt", Text("true")},
                              {"com.ostrel.vswitch.mtu", U32(9000)},
                              {"com.ostrel.common.respools.cfg", pools},
                              {"com.ostrel.custom.blob", std::string("\0\xff\x01", 3)}})},
                  {"hostPropList", Serialize({{"com.ostrel.common.host.portset", Text("ps0")},
                                              {"com.ostrel.common.host.uplinkPorts", uplinkKeys},
                                              {"com.ostrel.custom.hostdata", Text("h")}})},
                  {"p1", Serialize({{"com.ostrel.common.port.connectid", U32(5)},
                                    {"com.ostrel.common.port.block", Text("true")}})},
                  {"p2", Serialize({{"com.ostrel.common.port.alias", Text("vm-2")},
                                    {"com.ostrel.custom.port", Text("x")}})}},
                 107)},
   });
   ASSERT_EQ(DVSState_SaveBufToConfigStore(blob.data(), uint32_t(blob.size())), 0);

   Props top;
   ASSERT_EQ(Load(&top), 0);
   ASSERT_EQ(top.size(), 1u);
   const Props sw = Decode(top["sw-v"]);
   EXPECT_EQ(sw.at("switchVersion"), U32(107)) << "7.0.0 with zlt_enabled";
   EXPECT_EQ(sw.at("className"), Text("vswitch"));
   // A "vswitch" takes the host-wide port limit, whatever its blob says.
   EXPECT_EQ(sw.at("maxPorts"), U32(uwMaxNumActivePortsSystemWide));
   EXPECT_EQ(dvs::configstore::gSwitchClassKind, 1u);

   const Props global = Decode(sw.at("globalPropList"));
   EXPECT_EQ(global.at("com.ostrel.common.alias"), Text("prod"));
   EXPECT_EQ(global.at("com.ostrel.common.version"), U32(107));
   EXPECT_EQ(global.at("com.ostrel.common.portset.zlt"), Text("true"));
   EXPECT_EQ(global.at("com.ostrel.vswitch.mtu"), U32(9000));
   EXPECT_EQ(global.at("com.ostrel.common.portset.mtu"), U32(9000)) << "shares max_mtu";
   EXPECT_EQ(global.count("com.ostrel.etherswitch.mtu"), 0u) << "not for a vswitch";
   EXPECT_EQ(global.at("com.ostrel.common.respools.cfg"), pools);
   EXPECT_EQ(global.at("com.ostrel.custom.blob"), std::string("\0\xff\x01", 3));
   EXPECT_EQ(global.count("com.ostrel.custom.hostdata"), 0u) << "host data stays apart";

   const Props host = Decode(sw.at("hostPropList"));
   EXPECT_EQ(host.at("com.ostrel.common.host.portset"), Text("ps0"));
   EXPECT_EQ(host.at("com.ostrel.common.host.uplinkPorts"), uplinkKeys);
   EXPECT_EQ(host.at("com.ostrel.custom.hostdata"), Text("h"));
   EXPECT_EQ(host.count("com.ostrel.custom.blob"), 0u);

   const Props p1 = Decode(sw.at("p1"));
   EXPECT_EQ(p1.at("com.ostrel.common.port.connectid"), U32(5));
   EXPECT_EQ(p1.at("com.ostrel.common.port.block"), Text("true"));
   EXPECT_EQ(p1.at("com.ostrel.common.port.respools.cfg"), pools) << "an uplink port";
   const Props p2 = Decode(sw.at("p2"));
   EXPECT_EQ(p2.at("com.ostrel.common.port.alias"), Text("vm-2"));
   EXPECT_EQ(p2.at("com.ostrel.custom.port"), Text("x"));
   EXPECT_EQ(p2.count("com.ostrel.common.port.respools.cfg"), 0u) << "not an uplink port";
}

// The host blob is written directly when every uuid is distinct and
// nothing traces the list calls, else through the host list, which
// replaces a switch whose uuid comes again.  Both give the same bytes: a
// repeated uuid leaves one record, holding the later switch; uuids longer
// than the 127 characters a name keeps are never matched by the list and
// stay as two records with the same cut name.
TEST_F(LoadTest, DirectAndListBuiltHostBlobsAgree) {
   auto rawLoad = [](int dataDebug) {
      const int32_t saved = dvsdata_debug;
      dvsdata_debug = dataDebug;
      void *buf = nullptr;
      uint32_t len = 0;
      int32_t rc = -1;
      testsupport::CapturedStdout([&] { rc = DVSState_LoadFromConfigStoreAsBuf(&buf, &len, false); });
      dvsdata_debug = saved;
      EXPECT_EQ(rc, 0);
      std::string out(static_cast<const char *>(buf), buf != nullptr ? len : 0);
      free(buf);
      return out;
   };
   const std::string longA = std::string(127, 'u') + "-a", longB = std::string(127, 'u') + "-b";
   Put("s1", SwitchJson("sw-1", "etherswitch", "6.6.0", R"(,"ports":[{"key":"p1"}])"));
   Put("s2", SwitchJson("sw-2", "vswitch", "6.6.0"));
   const std::string distinct = rawLoad(-1);
   EXPECT_EQ(distinct, rawLoad(2));
   // Port keys that come again, or that name one of the switch's own
   // records, replace the earlier record (moved to the end when the new
   // blob is longer) in both forms of the host blob.
   PutWithPorts("s6", "sw-6",
                {{"a", "q1", nullptr},
                 {"b", "q2", "two"},
                 {"c", "q3", nullptr},
                 {"d", "q2", "again"},
                 {"e", "q4", nullptr},
                 {"f", "maxPorts", nullptr},
                 {"g", "q5", "last"}});
   const std::string repeated = rawLoad(-1);
   EXPECT_EQ(repeated, rawLoad(2));
   const Props sw6 = Decode(Decode(repeated).at("sw-6"));
   EXPECT_EQ(RecordNames(Decode(repeated).at("sw-6")),
             (std::vector<std::string>{"switchVersion", "className", "globalPropList",
                                       "hostPropList", "q1", "q3", "q2", "q4", "maxPorts", "q5"}));
   EXPECT_EQ(Decode(sw6.at("q2")), (Props{{"com.ostrel.common.port.alias", Text("again")}}));
   EXPECT_EQ(Decode(sw6.at("q5")), (Props{{"com.ostrel.common.port.alias", Text("last")}}));
   cs::Delete(store_, "switches", "network_tds", "node", "s6");
   Props top;
   ASSERT_EQ(Load(&top), 0);
   EXPECT_EQ(top.size(), 2u);

   Put("s3", SwitchJson("sw-1", "etherswitch", "6.6.0", R"(,"ports":[{"key":"p9"}])"));
   EXPECT_EQ(rawLoad(-1), rawLoad(2));
   ASSERT_EQ(Load(&top), 0);
   ASSERT_EQ(top.size(), 2u);
   EXPECT_EQ(Decode(top.at("sw-1")).count("p9"), 1u) << "the later sw-1";
   EXPECT_EQ(Decode(top.at("sw-1")).count("p1"), 0u);

   Put("s4", SwitchJson(longA, "vswitch", "6.6.0"));
   Put("s5", SwitchJson(longB, "etherswitch", "6.6.0"));
   const std::string withLong = rawLoad(-1);
   EXPECT_EQ(withLong, rawLoad(2));
   EXPECT_EQ(RecordNames(withLong), (std::vector<std::string>{"sw-1", "sw-2", longA.substr(0, 127),
                                                             longA.substr(0, 127)}));
}

// Rows that exist once per family of classes: only the one that fits the
// switch is loaded.
TEST_F(LoadTest, ClassDecidesWhichOfAPairIsLoaded) {
   const std::string settings =
      R"(,"settings":{"max_mtu":1600,"multicast_filtering_mode":"snoop"})";
   Put("a", SwitchJson("a", "vswitch", "6.5.0", settings));
   Put("b", SwitchJson("b", "labswitch", "6.5.0", settings));
   Put("c", SwitchJson("c", "cswitch", "ZLT 1.0", settings));
   Props top;
   ASSERT_EQ(Load(&top), 0);
   ASSERT_EQ(top.size(), 3u);

   const Props a = Decode(Decode(top["a"]).at("globalPropList"));
   EXPECT_EQ(a.count("com.ostrel.vswitch.mtu"), 1u);
   EXPECT_EQ(a.count("com.ostrel.etherswitch.mtu"), 0u);
   EXPECT_EQ(a.count("com.ostrel.vswitch.multicastFilter"), 1u);
   EXPECT_EQ(a.count("com.ostrel.etherswitch.multicastFilter"), 0u);

   const Props b = Decode(Decode(top["b"]).at("globalPropList"));
   EXPECT_EQ(b.at("com.ostrel.etherswitch.mtu"), U32(1600));
   EXPECT_EQ(b.count("com.ostrel.vswitch.mtu"), 0u);
   EXPECT_EQ(b.at("com.ostrel.etherswitch.multicastFilter"), Text("snoop"));
   EXPECT_EQ(b.count("com.ostrel.vswitch.multicastFilter"), 0u);
   EXPECT_EQ(b.at("com.ostrel.common.portset.mtu"), U32(1600));

   const Props c = Decode(top["c"]);
   EXPECT_EQ(c.at("switchVersion"), U32(100));
   const Props cg = Decode(c.at("globalPropList"));
   EXPECT_EQ(cg.count("com.ostrel.vswitch.mtu"), 0u) << "only class vswitch";
   EXPECT_EQ(cg.count("com.ostrel.etherswitch.mtu"), 0u);
   EXPECT_EQ(cg.count("com.ostrel.vswitch.multicastFilter"), 1u);
}

// The desired configuration is paired with the live objects by position:
// each desired switch takes the port-set name of the live object at its
// place in the list, whatever its uuid.
TEST_F(LoadTest, DesiredObjectsArePairedWithLiveOnesByPosition) {
   Put("a", SwitchJson("a", "vswitch", "7.0.2"));
   Put("b", SwitchJson("b", "vswitch", "7.0.2"));
   Put("b",
       R"({"uuid":"b","max_ports":8,"product":{"forwarding_class":"vswitch","version":"7.0.3"}})",
       "USER");
   Put("a",
       R"({"uuid":"a","max_ports":9,"product":{"forwarding_class":"vswitch","version":"7.0.3"}})",
       "USER");

   Props top;
   ASSERT_EQ(Load(&top, true), 0);
   ASSERT_EQ(top.size(), 2u);
   const Props a = Decode(top["a"]);
   EXPECT_EQ(a.at("maxPorts"), U32(9)) << "the desired object is the one loaded";
   EXPECT_EQ(a.at("switchVersion"), U32(9));
   const Props b = Decode(top["b"]);
   // Desired order is b, a (the order in which the USER documents were
   // first written); live order is a, b.
   EXPECT_EQ(Decode(b.at("hostPropList")).at("com.ostrel.common.host.portset"), Text("ps-a"));
   EXPECT_EQ(Decode(a.at("hostPropList")).at("com.ostrel.common.host.portset"), Text("ps-b"));

   // One desired object against two live ones.
   cs::Delete(store_, "switches", "network_tds", "node", "a");
   Put("a", SwitchJson("a", "vswitch", "7.0.2"));
   EXPECT_EQ(Load(&top, true), -1);
}

TEST_F(LoadTest, AFailingSwitchFailsTheWholeLoad) {
   Put("good", SwitchJson("good", "vswitch", "8.0.0"));
   Put("bad", SwitchJson("bad", "vswitch", "7.0.1"));
   Props top;
   std::string out = testsupport::CapturedStdout([&] { EXPECT_EQ(Load(&top), -1); });
   EXPECT_NE(out.find("Unknown tds version 7.0.1\n"), std::string::npos) << out;
   EXPECT_NE(out.find("Failed to load buf of switch: bad from configstore\n"), std::string::npos)
      << out;

   // A switch without "product" fails without a message of its own.
   cs::Delete(store_, "switches", "network_tds", "node", "bad");
   Put("bare", R"({"uuid":"bare","max_ports":1})");
   out = testsupport::CapturedStdout([&] { EXPECT_EQ(Load(&top), cs::kNotFound); });
   EXPECT_NE(out.find("Failed to load buf of switch: bare from configstore\n"), std::string::npos)
      << out;

   // A port-set row of an unknown type would be refused; a missing
   // "max_ports" is reported with its code.
   cs::Delete(store_, "switches", "network_tds", "node", "bare");
   Put("nomax", R"({"uuid":"nomax","product":{"forwarding_class":"x","version":"6.0.0"}})");
   out = testsupport::CapturedStdout([&] { EXPECT_EQ(Load(&top), cs::kNotFound); });
   EXPECT_NE(out.find("Failed to get max_ports, rc: 6\n"), std::string::npos) << out;
}

// A silent load converts each switch as its document is parsed; it must
// answer exactly what the load of a whole listing (the one that prints)
// answers: the same bytes, or the same code and no buffer.
TEST_F(LoadTest, SilentLoadAsReadGivesWhatTheWholeListingGives) {
   struct Result {
      int32_t rc;
      std::string blob;
      uint32_t classKind;
   };
   auto load = [](bool silent) {
      const int32_t savedStore = dvsconfigstore_debug, savedData = dvsdata_debug;
      dvsconfigstore_debug = silent ? -1 : 0;
      dvsdata_debug = -1;
      dvs::configstore::gSwitchClassKind = 7;  // no class has it
      void *buf = nullptr;
      uint32_t len = 0;
      int32_t rc = -1;
      testsupport::CapturedStdout([&] { rc = DVSState_LoadFromConfigStoreAsBuf(&buf, &len, false); });
      dvsconfigstore_debug = savedStore;
      dvsdata_debug = savedData;
      Result r{rc, std::string(static_cast<const char *>(buf), buf != nullptr ? len : 0),
               dvs::configstore::gSwitchClassKind};
      free(buf);
      return r;
   };
   auto expectSame = [&](const char *what) {
      SCOPED_TRACE(what);
      // Twice: a listing as large as the last one is read on another thread.
      for (int round = 0; round < 2; round++) {
         const Result whole = load(false), asRead = load(true);
         EXPECT_EQ(asRead.rc, whole.rc);
         EXPECT_EQ(asRead.blob, whole.blob);
         EXPECT_EQ(asRead.classKind, whole.classKind);
      }
   };
   // Switches large enough to share the parsing with another thread: every
   // port carries a dozen properties kept as opaque data.
   for (int sw = 0; sw < 6; sw++) {
      const std::string id = "big-" + std::to_string(sw);
      ASSERT_EQ(DVSState_SwitchAdd(id.c_str(), sw % 2 ? "vswitch" : "etherswitch", 0, 100),
                STATUS_OK);
      const uint32_t version = 100;
      ASSERT_EQ(DVSState_GlobalPropSet(id.c_str(), "com.ostrel.common.version", &version, 4, 0x20),
                STATUS_OK);
      for (int port = 0; port < 48; port++) {
         DVSDataHandle data = nullptr;
         ASSERT_EQ(DVSData_Alloc(&data, malloc, free), STATUS_OK);
         for (int k = 0; k < 12; k++) {
            const std::string name = "com.ostrel.test.prop" + std::to_string(k);
            const std::string value(40 + k, char('a' + (port + k) % 26));
            ASSERT_EQ(DVSData_Append(data, name.c_str(), value.data(), uint32_t(value.size()), 0x20),
                      STATUS_OK);
         }
         ASSERT_EQ(DVSState_PortAdd(id.c_str(), std::to_string(port).c_str(), data), STATUS_OK);
      }
   }
   void *host = nullptr;
   uint32_t hostLen = 0;
   ASSERT_EQ(DVSState_ConfigSerialize(&host, &hostLen), STATUS_OK);
   DVSState_ConfigReset();
   ASSERT_EQ(DVSState_SaveBufToConfigStore(host, hostLen), 0);
   free(host);
   expectSame("large switches");
   ASSERT_EQ(load(true).rc, 0);

   // A switch that fails to convert, in the middle and at the end.
   Put("zz-bad", SwitchJson("zz-bad", "vswitch", "7.0.1"));
   expectSame("a switch that fails");
   ASSERT_EQ(load(true).rc, -1);
   cs::Delete(store_, "switches", "network_tds", "node", "zz-bad");
   // A uuid that comes again: the later switch replaces the earlier one.
   Put("zz-again", SwitchJson("big-2", "vswitch", "6.6.0"));
   expectSame("a repeated uuid");
   ASSERT_EQ(load(true).rc, 0);
   cs::Delete(store_, "switches", "network_tds", "node", "zz-again");
   // A switch without a uuid.
   Put("zz-nouuid", R"({"max_ports":1,"product":{"forwarding_class":"x","version":"6.0.0"}})");
   expectSame("a switch without a uuid");
   cs::Delete(store_, "switches", "network_tds", "node", "zz-nouuid");

   // A document that cannot be parsed, after switches that convert: no
   // switch counts, not even for the class kind left behind.
   Put("zz-damaged", SwitchJson("zz-damaged", "vswitch", "6.6.0"));
   sqlite3 *db = nullptr;
   ASSERT_EQ(sqlite3_open((dir_ / "store.db").c_str(), &db), SQLITE_OK);
   ASSERT_EQ(sqlite3_exec(db, "UPDATE objects SET doc = '{\"values\":' WHERE instance = 'zz-damaged'",
                          nullptr, nullptr, nullptr),
             SQLITE_OK);
   sqlite3_close(db);
   expectSame("a damaged document");
   const Result damaged = load(true);
   EXPECT_NE(damaged.rc, 0);
   EXPECT_EQ(damaged.classKind, 7u);
}

TEST_F(LoadTest, AStoreThatCannotBeOpenedIsReported) {
   // The store's directory cannot be made: a file stands in its way.
   std::ofstream(dir_ / "file") << "not a folder";
   setenv(cs::kPathEnv, (dir_ / "file/store.db").c_str(), 1);
   void *buf = nullptr;
   uint32_t len = 0;
   const std::string out = testsupport::CapturedStdout(
      [&] { EXPECT_NE(DVSState_LoadFromConfigStoreAsBuf(&buf, &len, false), 0); });
   EXPECT_EQ(buf, nullptr);
   EXPECT_NE(out.find("Get store failed\n"), std::string::npos) << out;
}

// The load nests each port's list into its switch's list, and each switch
// into the host's, writing the blob straight into the new entry.  That
// must give exactly what serializing the list and updating the parent
// with the blob gives: new names, a name already there with a value of
// the same length (rewritten in place) or another length (moved to the
// end), and flag 0 (the default type in place, the old flag when moved).
TEST(NestedListTest, WritingInPlaceMatchesSerializeThenUpdate) {
   using testsupport::NewList;
   const testsupport::Props child = {{"vlan", "12"}, {"alias", "web-01"}};
   // "port-1" holds a value as long as the child's blob, "port-2" a shorter one.
   const size_t childBlobLen = testsupport::Serialize(child, 0x20, 6).size();
   const testsupport::Props parentProps = {{"a", "1"},
                                          {"port-1", std::string(childBlobLen, 'x')},
                                          {"port-2", "short"},
                                          {"z", "26"}};
   struct Case {
      const char *name;
      uint32_t flag;
   };
   for (const Case c : {Case{"port-3", 0x10}, Case{"port-1", 0x10}, Case{"port-2", 0x10},
                        Case{"port-1", 0}, Case{"port-2", 0}}) {
      DVSDataHandle want = NewList(parentProps, 0x40), got = NewList(parentProps, 0x40);
      DVSDataHandle list = NewList(child, 0x20);
      void *blob = nullptr;
      uint32_t len = 0;
      ASSERT_EQ(DVSData_Serialize(list, &blob, &len, 6), STATUS_OK);
      ASSERT_EQ(DVSData_Update(want, c.name, blob, len, c.flag), STATUS_OK);
      free(blob);
      ASSERT_EQ(dvs::data::UpdateWithListBlob(got, c.name, list, 6, c.flag), STATUS_OK);

      const std::string where = std::string(c.name) + " flag " + std::to_string(c.flag);
      EXPECT_EQ(testsupport::Entries(got), testsupport::Entries(want)) << where;
      EXPECT_EQ(got->serialSize, want->serialSize) << where;
      for (DVSDataEntry *g = got->head, *w = want->head; g != nullptr && w != nullptr;
           g = g->next, w = w->next)
         EXPECT_EQ(g->flag, w->flag) << where << ": " << g->name;
      DVSData_Free(list);
      DVSData_Free(want);
      DVSData_Free(got);
   }
   DVSDataHandle h = NewList();
   EXPECT_EQ(dvs::data::UpdateWithListBlob(h, "x", h, 6, 0), STATUS_BAD_PARAM);
   EXPECT_EQ(dvs::data::UpdateWithListBlob(h, nullptr, h, 6, 0), STATUS_BAD_PARAM);
   EXPECT_EQ(h->serialSize, 16u);
   DVSData_Free(h);
}

TEST(StringExistInArray, MatchesExactlyWithinCount) {
   char a[] = "p1", b[] = "p2";
   char *list[] = {a, b};
   EXPECT_TRUE(StringExistInArray("p2", list, 2));
   EXPECT_FALSE(StringExistInArray("p2", list, 1)) << "beyond count";
   EXPECT_FALSE(StringExistInArray("P1", list, 2));
   EXPECT_FALSE(StringExistInArray("p", list, 2));
   EXPECT_FALSE(StringExistInArray(nullptr, list, 2));
   EXPECT_FALSE(StringExistInArray("p1", nullptr, 2));
   EXPECT_FALSE(StringExistInArray("p1", list, 0));
}

}  // namespace
