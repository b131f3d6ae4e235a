// The kernel-state views, their filters and the persistent state, against
// the kernel switch simulator served in this process.  Every call must
// leave the registry empty and both locks free, on success and failure.
#include <dvsfile.h>
#include <dvshyp.h>
#include <gtest/gtest.h>
#include <hostlibs.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "sim/server.h"
#include "sim/simulator.h"
#include "tests/support/le_bytes.h"
#include "tests/support/prop_lists.h"

namespace {

using Names = std::vector<std::string>;

using testsupport::Decode;
using testsupport::U32;

std::string tmpDir;
dvs::sim::Simulator sim;
std::atomic<int> commandsSeen{0};

struct SimulatorEnv : testing::Environment {
   void SetUp() override {
      char dir[] = "/tmp/dvs-views-XXXXXX";
      ASSERT_NE(mkdtemp(dir), nullptr);
      tmpDir = dir;
      setenv(DVSHYP_DEVICE_PATH_ENV, (tmpDir + "/sim.sock").c_str(), 1);  // read once
      setenv(KSI_MAX_PORTS_ENV, "64", 1);
      sim.SetLogger([](const std::string &) { ++commandsSeen; });
      std::string error;
      ASSERT_TRUE(server.Start(tmpDir + "/sim.sock", &error)) << error;
   }
   void TearDown() override {
      server.Stop();
      std::filesystem::remove_all(tmpDir);
   }
   dvs::sim::Server server{sim};
};
testing::Environment *const kEnv = testing::AddGlobalTestEnvironment(new SimulatorEnv);

// Properties whose values do not matter, each named after itself.
DVSDataHandle List(const Names &flag20, const Names &flag10 = {}) {
   DVSDataHandle h = nullptr;
   EXPECT_EQ(DVSData_Alloc(&h, malloc, free), STATUS_OK);
   for (const Names *names : {&flag20, &flag10})
      for (const std::string &n : *names)
         DVSData_Append(h, n.c_str(), n.data(), n.size(), names == &flag20 ? 0x20 : 0x10);
   return h;
}

// The names of a list handed out by a view, which is freed.
Names Take(DVSDataHandle h) {
   Names out;
   for (DVSDataEntry *e = h ? h->head : nullptr; e; e = e->next)
      out.push_back(e->name);
   DVSData_Free(h);
   return out;
}

std::string Join(const std::string &blob) {
   std::string out;
   for (const auto &rec : Decode(blob))
      out += (out.empty() ? "" : ",") + rec.first;
   return out;
}

// A host blob as "switch/global", "switch/host" and "switch/port" -> names.
std::map<std::string, std::string> HostView(const std::string &blob) {
   std::map<std::string, std::string> out;
   for (const auto &[id, sw] : Decode(blob))
      for (const auto &[name, value] : Decode(sw))
         if (name != DVS_REC_SWITCH_VERSION && name != DVS_REC_CLASS_NAME &&
             name != DVS_REC_MAX_PORTS)
            out[id + "/" +
                (name == DVS_REC_GLOBAL_PROPS ? "global"
                 : name == DVS_REC_HOST_PROPS ? "host"
                                              : name)] = Join(value);
   return out;
}

// Nothing is registered, and another thread takes both locks at once.
void ExpectReleased() {
   int switches = 0;
   DVSState_SwitchForEach([](DVSwitch *, void *n) { return ++*static_cast<int *>(n), false; },
                          &switches);
   EXPECT_EQ(switches, 0) << "registry left loaded";
   auto done = std::make_shared<std::atomic<bool>>(false);
   std::thread([done] {
      KRecLock *hyp = DVSwitchHYPLock();
      DVSwitchHandleUnlock(DVSwitchHandleLock());
      DVSwitchHYPUnlock(hyp);
      *done = true;
   }).detach();
   for (int i = 0; i < 200 && !*done; ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
   EXPECT_TRUE(*done) << "a lock is still held";
}

void Props(bool host, const char *sw, const Names &flag20, const Names &flag10 = {}) {
   DVSDataHandle h = List(flag20, flag10);
   for (DVSDataEntry *e = h->head; e; e = e->next)
      EXPECT_EQ((host ? DVSHYP_HostPropSet : DVSHYP_GlobalPropSet)(sw, e->name, e->data, e->dataLen,
                                                                   e->flag),
                STATUS_OK);
   DVSData_Free(h);
}

void Port(const char *sw, const char *id, uint32_t type, const Names &flag20 = {},
          const Names &flag10 = {}) {
   DVSDataHandle h = List(flag20, flag10);
   if (type != DVS_PORT_ACTIVE)
      DVSData_Append(h, DVS_PROP_PORT_TYPE, &type, 4, 0x20);
   void *blob = nullptr;
   uint32_t len = 0;
   ASSERT_EQ(DVSData_Serialize(h, &blob, &len, 7), STATUS_OK);
   EXPECT_EQ(DVSHYP_PortAdd(sw, id, blob, len), STATUS_OK) << id;
   DVSData_FreeAssocData(h, blob);
   DVSData_Free(h);
}

void PortValue(const char *port, const char *name, const std::string &v) {
   ASSERT_EQ(DVSHYP_PortDataSet("ether", port, name, v.data(), v.size(), 0x20), STATUS_OK);
}

constexpr const char *kVersion = "com.ostrel.common.version";
constexpr const char *kConnectId = "com.ostrel.common.port.connectid";

class ViewsTest : public testing::Test {
  protected:
   void SetUp() override {
      sim.ClearFaults();
      ASSERT_EQ(DVSHYP_StateCleanup(), STATUS_OK);
      ASSERT_EQ(DVSHYP_SwitchAdd("ether", "etherswitch", 0, 7), STATUS_OK);
      ASSERT_EQ(DVSHYP_GlobalPropSet("ether", kVersion, U32(106).data(), 4, 0x20), STATUS_OK);
      Props(
         false, "ether",
         {"com.ostrel.etherswitch.mtu", "com.ostrel.vswitch.disabled", "com.ostrel.vswitch.teaming",
          "dvfilter-generic-f", "com.ostrel.zltData.x", "com.ostrel.extraconfig.foo", "acme.a",
          "acme.volatile.x", "com.ostrel.common.volatile.y", "com.ostrel.zlt.vdr.dvptracking",
          "com.ostrel.net.portset.fc.one"},
         {"com.ostrel.extraconfig.bar", "acme.b", "com.ostrel.net.portset.fc.two",
          "com.ostrel.extraConfig.tenancy.t"});
      Props(true, "ether",
            {"acme.host", "com.ostrel.host.feature.container.x", "com.ostrel.extraconfig.hostx",
             "com.ostrel.host.volatile.v"});
      Port("ether", "p-active", 1,
           {"com.ostrel.port.extraConfig.foo", "com.ostrel.port.opaque.network.z",
            "com.ostrel.common.port.volatile.s", "dvfilter-generic-p", "com.ostrel.net.x",
            "acme.port"},
           {"com.ostrel.net.y"});
      PortValue("p-active", kConnectId, U32(0x1234));
      PortValue("p-active", "com.ostrel.port.extraConfig.vnic.external.id", "ext-ab");
      Port("ether", "p-persist", 1, {"com.ostrel.common.port.volatile.persist", "acme.keep"});
      PortValue("p-persist", "com.ostrel.port.extraConfig.hypnic.external.id", {"hyp-1\0", 6});
      Port("ether", "p-shadow", 2);
      PortValue("p-shadow", kConnectId, U32(7));
      Port("ether", "p-zombie", 3);
      Port("ether", "p-cache", 4);
      PortValue("p-cache", kConnectId, "ab");
      ASSERT_EQ(DVSHYP_SwitchAdd("opaque", "myclass", 10, 7), STATUS_OK);
      ASSERT_EQ(DVSHYP_HostPropSet("opaque", "com.ostrel.common.portset.opaque", "true", 4, 0), 0u);
      for (const char *id : {"999", "1000", "p1000", "12345"})
         Port("opaque", id, 1);
   }
   void TearDown() override { ExpectReleased(); }
};

TEST(FiltersTest, NameTypeExceptionsAndRepeatedNames) {
   const Names f20 = {"a.com.ostrel.common.x", "keep.me", "com.ostrel.vswitch.on"};
   const Names f10 = {"other.type", "com.ostrel.vswitch.disabled"};
   // Listed names stay whatever their type; other types go.
   DVSDataHandle h = List(f20, f10);
   const char *exceptions[] = {"com.ostrel.vswitch.disabled", nullptr};
   EXPECT_EQ(DVSHYPStripNamedPropForType(h, "com.ostrel.vswitch.", exceptions, 0x20),
             STATUS_NOT_FOUND);
   EXPECT_EQ(Take(h), (Names{"a.com.ostrel.common.x", "keep.me", "com.ostrel.vswitch.disabled"}));
   // Fragments match anywhere in the name.
   DVSHYPStripNamedPropForType(h = List(f20, f10), "com.ostrel.common.", nullptr, 0x20);
   EXPECT_EQ(Take(h), (Names{"keep.me", "com.ostrel.vswitch.on"}));
   EXPECT_EQ(DVSHYPStripNamedProp(nullptr, "x"), STATUS_BAD_PARAM);

   // A list read from a blob may repeat a name: the entry that goes must be
   // the one rejected, not the first of its name.
   DVSData_Append(h = List({"dup"}), "dup", "x", 1, 0x10);
   DVSData_Append(h, "dup", "y", 1, 0x20);
   DVSHYPStripNamedPropForType(h, "nothing", nullptr, 0x20);
   void *blob = nullptr;
   uint32_t len = 0;
   ASSERT_EQ(DVSData_Serialize(h, &blob, &len, 7), STATUS_OK);
   const auto back = Decode(std::string(static_cast<char *>(blob), len));
   EXPECT_EQ(back, (decltype(back){{"dup", "dup"}, {"dup", "y"}}));
   DVSData_FreeAssocData(h, blob);
   DVSData_Free(h);

   EXPECT_TRUE(IsZltProp("com.ostrel.extraConfig.tenancy.t"));
   EXPECT_TRUE(IsZltProp("com.ostrel.host.feature.containers"));
   for (const char *name : {"com.ostrel.zlt", "x.com.ostrel.zlt.a",
                            "com.ostrel.extraconfig.tenancy.", "", (const char *)nullptr})
      EXPECT_FALSE(IsZltProp(name));
}

TEST_F(ViewsTest, FamilyLists) {
   DVSDataHandle out = nullptr;
   auto expect = [&](ReturnStatus status, const Names &names) {
      EXPECT_EQ(status, STATUS_OK);
      EXPECT_EQ(Take(out), names);
      ExpectReleased();
   };
   const Names vendor = {"com.ostrel.vswitch.disabled", "acme.a", "acme.volatile.x",
                         "com.ostrel.zlt.vdr.dvptracking", "com.ostrel.net.portset.fc.one"};
   expect(DVSHYP_VendorGlobalPropList("ether", &out, 0x20), vendor);
   // The exception keeps its name only through its own step.
   expect(DVSHYP_VendorGlobalPropList("ether", &out, 0x10),
          {"acme.b", "com.ostrel.net.portset.fc.two", "com.ostrel.extraConfig.tenancy.t"});
   // The host list has no extra-configuration step.
   expect(DVSHYP_VendorHostPropList("ether", &out, 0x20),
          {"acme.host", "com.ostrel.host.feature.container.x", "com.ostrel.extraconfig.hostx",
           "com.ostrel.host.volatile.v"});
   expect(DVSHYP_VendorPortPropList("ether", "p-active", &out, 0x20), {"acme.port"});
   expect(DVSHYP_VendorPortPropList("ether", "p-active", &out, 0x10), {"com.ostrel.net.y"});
   expect(DVSHYP_ExtraConfigPropList("ether", &out, 0x20), {"com.ostrel.extraconfig.foo"});
   expect(DVSHYP_ExtraConfigPropList("ether", &out, 0x10), {"com.ostrel.extraconfig.bar"});
   expect(DVSHYP_ExtraConfigPortPropList("ether", "p-active", &out, 0x20),
          {"com.ostrel.port.extraConfig.foo", "com.ostrel.port.extraConfig.vnic.external.id"});
   expect(DVSHYP_ZltPropList("ether", 0x20, true, &out),
          {"com.ostrel.vswitch.disabled", "com.ostrel.vswitch.teaming", "com.ostrel.zltData.x",
           "com.ostrel.zlt.vdr.dvptracking", "com.ostrel.net.portset.fc.one"});
   // Fibre-channel port sets join a type-0x10 list whatever their own type.
   expect(DVSHYP_ZltPropList("ether", 0x10, true, &out),
          {"com.ostrel.net.portset.fc.one", "com.ostrel.net.portset.fc.two",
           "com.ostrel.extraConfig.tenancy.t"});
   expect(DVSHYP_ZltPropList("ether", 0x20, false, &out), {"com.ostrel.host.feature.container.x"});

   // Switches past version 106 keep the tracking property to themselves.
   ASSERT_EQ(DVSHYP_GlobalPropSet("ether", kVersion, U32(107).data(), 4, 0), STATUS_OK);
   expect(DVSHYP_VendorGlobalPropList("ether", &out, 0x20),
          {"com.ostrel.vswitch.disabled", "acme.a", "acme.volatile.x",
           "com.ostrel.net.portset.fc.one"});
}

TEST_F(ViewsTest, PortListAndExternalIdSearch) {
   auto ports = [](uint32_t type) {
      DVSHYPPortList *list = nullptr;
      EXPECT_EQ(DVSHYP_SwitchPortList("ether", &list, type), STATUS_OK);
      ExpectReleased();
      std::string out = std::to_string(list->portType);
      for (uint32_t i = 0; i < list->count; ++i)
         out += " " + std::string(list->entries[i].portId) + ":" +
                std::to_string(list->entries[i].connectionId);
      DVSHYP_DataFree(list);
      return out;
   };
   EXPECT_EQ(ports(1), "1 p-active:4660 p-persist:0");
   EXPECT_EQ(ports(2), "2 p-shadow:7");
   EXPECT_EQ(ports(4), "4 p-cache:0");  // a value shorter than 4 bytes
   EXPECT_EQ(ports(9), "9");

   auto find = [](const std::string &ext) {
      DVSHYPPortSearch *found = nullptr;
      EXPECT_EQ(DVSHYP_PortGetByExternalId("ether", ext.c_str(), &found), STATUS_OK);
      ExpectReleased();
      EXPECT_EQ(found->externalId, ext);
      const std::string port = found->portId;
      DVSHYP_DataFree(found);
      return port;
   };
   // A port matches when its value is a prefix of the searched id.
   EXPECT_EQ(find("ext-abc"), "p-active");
   EXPECT_EQ(find("ext-a"), "");
   EXPECT_EQ(find("hyp-1x"), "p-persist");  // the hypnic id, when there is no vnic one
   EXPECT_EQ(find(std::string(127, 'e')), "");
   const int before = commandsSeen;
   DVSHYPPortSearch *found = nullptr;
   EXPECT_EQ(DVSHYP_PortGetByExternalId("ether", std::string(128, 'e').c_str(), &found),
             STATUS_BAD_PARAM);
   EXPECT_EQ(commandsSeen, before);  // refused without asking the kernel
}

TEST_F(ViewsTest, FailuresHandOutNothing) {
   DVSDataHandle out = nullptr;
   DVSHYPPortList *ports = nullptr;
   EXPECT_EQ(DVSHYP_VendorGlobalPropList("nope", &out, 0x20), STATUS_NOT_FOUND);
   ExpectReleased();
   EXPECT_EQ(DVSHYP_SwitchPortList("nope", &ports, 1), STATUS_NOT_FOUND);
   EXPECT_EQ(DVSHYP_ExtraConfigPortPropList("ether", "nope", &out, 0x20), STATUS_NOT_FOUND);
   EXPECT_EQ(DVSHYP_ZltPropList("ether", 0x20, true, nullptr), STATUS_BAD_PARAM);
   EXPECT_EQ(out, nullptr);
   EXPECT_EQ(ports, nullptr);
   // The kernel's own status comes back, and so does that of a state that
   // does not load.
   sim.InjectFault(DVSHYP_CMD_STATE_GET, 1, STATUS_BAD_CHECKSUM);
   EXPECT_EQ(DVSHYP_ExtraConfigPropList("ether", &out, 0x20), STATUS_BAD_CHECKSUM);
   ExpectReleased();
   sim.InjectFault(DVSHYP_CMD_STATE_GET, 2, STATUS_OK, 0u);
   EXPECT_EQ(DVSHYP_ZltPropList("ether", 0x20, true, &out), STATUS_BAD_PARAM);
   ExpectReleased();
   void *blob = nullptr;
   uint32_t len = 0;
   EXPECT_EQ(DVSHYP_PersistentStateGet(&blob, &len), STATUS_BAD_PARAM);
   EXPECT_EQ(blob, nullptr);
}

std::string Persistent(const std::string &path, ReturnStatus want = STATUS_OK) {
   void *blob = nullptr;
   uint32_t len = 0;
   EXPECT_EQ(DVSHYP_PersistentStateGetWithFile(&blob, &len, path.empty() ? nullptr : path.c_str()),
             want);
   ExpectReleased();
   const std::string out = blob ? std::string(static_cast<char *>(blob), len) : "";
   DVSHYP_DataFree(blob);
   return out;
}

TEST_F(ViewsTest, PersistentStateKeepsPlainActivePorts) {
   // With no switch to replace, the state file is not even read.
   const std::string blob = Persistent("");
   EXPECT_EQ(Persistent(tmpDir + "/absent.db"), blob);
   EXPECT_EQ(blob.find(".volatile."), std::string::npos);
   auto view = HostView(blob);
   std::string keys;
   for (const auto &kv : view)
      keys += kv.first + " ";
   // The opaque port set owns the numbered ports above 999.
   EXPECT_EQ(keys,
             "ether/global ether/host ether/p-active opaque/999 opaque/global opaque/host "
             "opaque/p1000 ");
   EXPECT_EQ(view["ether/host"],
             "acme.host,com.ostrel.host.feature.container.x,com.ostrel.extraconfig.hostx");
   EXPECT_EQ(view["ether/p-active"],
             "com.ostrel.port.extraConfig.foo,com.ostrel.port.opaque.network.z,dvfilter-generic-p,"
             "com.ostrel.net.x,acme.port,com.ostrel.net.y,com.ostrel.common.port.connectid,"
             "com.ostrel.port.extraConfig.vnic.external.id");

   // A caller's buffer is used when it is large enough.
   std::string buf(blob.size(), '\0');
   void *p = buf.data();
   uint32_t len = 16;
   EXPECT_EQ(DVSHYP_PersistentStateGet(&p, &len), STATUS_LIMIT_EXCEEDED);
   ExpectReleased();
   len = buf.size();
   EXPECT_EQ(DVSHYP_PersistentStateGet(&p, &len), STATUS_OK);
   EXPECT_EQ(buf, blob);

   // One port: the persist property goes with the other volatile ones.
   p = nullptr;
   ASSERT_EQ(DVSHYP_PersistentPortStateGet("ether", "p-persist", 7, &p, &len), STATUS_OK);
   EXPECT_EQ(Join(std::string(static_cast<char *>(p), len)),
             "acme.keep,com.ostrel.port.extraConfig.hypnic.external.id");
   DVSHYP_DataFree(p);
}

TEST_F(ViewsTest, NoPersistSwitchComesFromTheStateFile) {
   ASSERT_EQ(DVSHYP_SwitchAdd("np", "zltvswitch", 0, 7), STATUS_OK);
   Props(false, "np", {DVS_PROP_NOPERSIST, "acme.kernel"});
   Port("np", "np-kernel", 1);
   EXPECT_EQ(HostView(Persistent("")).count("np/global"), 0u);

   // The file's copy: only the marked switch is taken from it.
   for (const char *id : {"old", "np", "ether"}) {
      ASSERT_EQ(DVSState_SwitchAdd(id, "etherswitch", 0, 7), STATUS_OK);
      ASSERT_EQ(DVSState_GlobalPropSet(id, "acme.saved", "s", 1, 0x20), STATUS_OK);
      ASSERT_EQ(DVSState_GlobalPropSet(id, "com.ostrel.common.volatile.v", "v", 1, 0x20), 0u);
      ASSERT_EQ(DVSState_PortAdd(id, "saved-port", List({})), STATUS_OK);
   }
   const std::string file = testsupport::HostBlob();
   ASSERT_EQ(DVSState_ConfigReset(), STATUS_OK);
   const std::string path = tmpDir + "/dvsdata.db";
   ASSERT_EQ(DVSFile_Write(path.c_str(), file.data(), file.size()), STATUS_OK);

   auto view = HostView(Persistent(path));
   std::string keys;
   for (const auto &kv : view)
      keys += kv.first + "=" + kv.second + " ";
   EXPECT_NE(keys.find("ether/p-active="), std::string::npos);
   EXPECT_EQ(keys.find("ether/saved-port"), std::string::npos);
   EXPECT_EQ(keys.find("old/"), std::string::npos);
   EXPECT_NE(keys.find("np/global=acme.saved np/host= np/saved-port= opaque/"), std::string::npos);

   // An empty, missing or damaged file fails the whole call.
   std::ofstream(path, std::ios::trunc).close();
   EXPECT_EQ(Persistent(path, STATUS_EMPTY), "");
   EXPECT_EQ(Persistent(path + ".none", STATUS_NOT_FOUND), "");
   std::ofstream(path, std::ios::trunc) << std::string(512, '\xff');
   testing::internal::CaptureStderr();
   EXPECT_EQ(Persistent(path, STATUS_BAD_PARAM), "");
   EXPECT_EQ(testing::internal::GetCapturedStderr().rfind("DVSState_ConfigDeserialize failed: ", 0),
             0u);
}

}  // namespace
