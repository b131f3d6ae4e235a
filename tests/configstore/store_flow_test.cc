// A host's whole trip through the configuration store: switches built in
// the kernel (the simulator, served in this process), their persistent
// state saved to the store, the host blob loaded back, a fresh kernel
// initialised from it alone, and the restored kernel state compared with
// the persistent state switch by switch, port by port and property by
// property.  What the store does not keep (flags, texts standing for
// booleans, the shared mtu key, ...) is applied to the original state by
// the rules below, so every other byte must come back as it was.
#include <arpa/inet.h>
#include <configstore.h>
#include <dvsconfigstore.h>
#include <dvsdata.h>
#include <dvshyp.h>
#include <gtest/gtest.h>
#include <hostlibs.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "sim/server.h"
#include "sim/simulator.h"

namespace {

namespace cs = configstore;

constexpr uint32_t kLoadedFlag = 0x10;
constexpr uint32_t kSetFlag = 0x20;
constexpr const char *kAlias = "com.ostrel.common.alias";
constexpr const char *kPortsetMtu = "com.ostrel.common.portset.mtu";
constexpr const char *kVswitchMtu = "com.ostrel.vswitch.mtu";
constexpr const char *kEtherMtu = "com.ostrel.etherswitch.mtu";
constexpr const char *kUplinkNames = "com.ostrel.common.uplinkPorts";
constexpr const char *kUplinkKeys = "com.ostrel.common.host.uplinkPorts";
constexpr const char *kPoolCfg = "com.ostrel.common.respools.cfg";
constexpr const char *kPortPoolCfg = "com.ostrel.common.port.respools.cfg";
constexpr const char *kEtherTx = "com.ostrel.etherswitch.port.txUplink";
constexpr const char *kVswitchTx = "com.ostrel.vswitch.port.txUplink";
constexpr const char *kBoolTexts[] = {
   "com.ostrel.common.opaqueDvs", "com.ostrel.common.portset.zlt", "com.ostrel.common.port.block"};

// ---- property values -------------------------------------------------------

std::string Text(const char *s) {
   return std::string(s, std::strlen(s) + 1);
}

template <typename T>
std::string Raw(T v) {
   return std::string(reinterpret_cast<const char *>(&v), sizeof v);
}

// A counted array of fixed-size name records, zero after each name.
std::string Names(uint32_t recordSize, const std::vector<std::string> &names) {
   std::string out = Raw(static_cast<uint32_t>(names.size()));
   for (const std::string &name : names) {
      out += name + std::string(recordSize - name.size(), '\0');
   }
   return out;
}

// One resource pool: key, limit, reservation, shares, share level.
std::string Pools() {
   std::string rec = std::string("vm") + std::string(126, '\0');
   rec += Raw<int64_t>(-1) + Raw<int64_t>(100) + Raw<uint32_t>(50) + Raw<uint32_t>(1);
   return Raw<uint32_t>(1) + rec;
}

std::string Ipv4(const char *text) {
   in_addr addr{};
   EXPECT_EQ(inet_pton(AF_INET, text, &addr), 1);
   return Raw(addr);
}

// ---- host blobs as maps ----------------------------------------------------

struct Prop {
   uint32_t flag;
   std::string value;
   bool operator==(const Prop &o) const { return flag == o.flag && value == o.value; }
};
using Props = std::map<std::string, Prop>;

struct Switch {
   uint32_t version = 0;
   std::string className;
   uint32_t maxPorts = 0;
   Props global, host;
   std::map<std::string, Props> ports;
   bool operator==(const Switch &o) const {
      return version == o.version && className == o.className && maxPorts == o.maxPorts &&
             global == o.global && host == o.host && ports == o.ports;
   }
};
using Host = std::map<std::string, Switch>;

std::vector<std::pair<std::string, Prop>> Records(const std::string &blob) {
   std::vector<std::pair<std::string, Prop>> out;
   DVSDataHandle h = nullptr;
   EXPECT_EQ(DVSData_Deserialize(&h, blob.data(), static_cast<uint32_t>(blob.size()), malloc, free),
             STATUS_OK);
   for (DVSDataEntry *e = h != nullptr ? h->head : nullptr; e != nullptr; e = e->next) {
      out.push_back(
         {e->name, {e->flag, std::string(reinterpret_cast<char *>(e->data), e->dataLen)}});
   }
   DVSData_Free(h);
   return out;
}

Props PropsOf(const std::string &blob) {
   Props out;
   for (auto &[name, prop] : Records(blob)) {
      EXPECT_TRUE(out.emplace(name, prop).second) << "property " << name << " twice";
   }
   return out;
}

uint32_t U32Of(const Prop &p) {
   uint32_t v = 0;
   EXPECT_EQ(p.value.size(), sizeof v);
   std::memcpy(&v, p.value.data(), std::min(p.value.size(), sizeof v));
   return v;
}

Host HostOf(const std::string &blob) {
   Host host;
   for (const auto &[id, swBlob] : Records(blob)) {
      Switch &sw = host[id];
      for (const auto &[name, prop] : Records(swBlob.value)) {
         if (name == "switchVersion") {
            sw.version = U32Of(prop);
         } else if (name == "className") {
            sw.className = prop.value.c_str();  // up to the terminator
         } else if (name == "maxPorts") {
            sw.maxPorts = U32Of(prop);
         } else if (name == "globalPropList") {
            sw.global = PropsOf(prop.value);
         } else if (name == "hostPropList") {
            sw.host = PropsOf(prop.value);
         } else {
            EXPECT_TRUE(sw.ports.emplace(name, PropsOf(prop.value)).second) << "port " << name;
         }
      }
   }
   return host;
}

// The names of a counted name array, each up to its terminator.
std::vector<std::string> NamesIn(const std::string &value, uint32_t recordSize) {
   std::vector<std::string> out;
   const uint32_t count = U32Of(Prop{0, value.substr(0, 4)});
   for (uint32_t i = 0; i < count && 4 + (i + 1) * recordSize <= value.size(); i++) {
      out.emplace_back(value.substr(4 + i * recordSize, recordSize).c_str());
   }
   return out;
}

// The persistent state of `host` as the store gives it back.
Host AfterStore(Host host) {
   for (auto &[id, sw] : host) {
      const bool vswitch = sw.className == "vswitch";
      const bool family = vswitch || sw.className == "cswitch";
      // Every rebuilt property carries the tables' flag.
      for (Props *props : {&sw.global, &sw.host}) {
         for (auto &[name, prop] : *props) {
            prop.flag = kLoadedFlag;
         }
      }
      for (auto &[port, props] : sw.ports) {
         for (auto &[name, prop] : props) {
            prop.flag = kLoadedFlag;
         }
      }
      // The store's "name" is the alias, else the switch id.
      sw.global.emplace(kAlias, Prop{kLoadedFlag, Text(id.c_str())});
      // Texts standing for booleans: anything but "true" is false.
      auto boolText = [](Props &props) {
         for (const char *name : kBoolTexts) {
            if (auto it = props.find(name); it != props.end()) {
               it->second.value = Text(it->second.value == Text("true") ? "true" : "false");
            }
         }
      };
      boolText(sw.global);
      // The three mtu properties share one store key; the load gives it to
      // the port-set property and to the one of the switch's class.
      std::optional<Prop> mtu;
      for (const char *name : {kPortsetMtu, kVswitchMtu, kEtherMtu}) {
         if (auto it = sw.global.find(name); it != sw.global.end()) {
            mtu = it->second;
            sw.global.erase(it);
         }
      }
      if (mtu) {
         sw.global[kPortsetMtu] = *mtu;
         if (vswitch || !family) {
            sw.global[vswitch ? kVswitchMtu : kEtherMtu] = *mtu;
         }
      }
      // Uplink ports take the switch's resource pools; no other port keeps any.
      std::vector<std::string> uplinks;
      if (auto it = sw.host.find(kUplinkKeys); it != sw.host.end()) {
         uplinks = NamesIn(it->second.value, 48);
      }
      const auto pools = sw.global.find(kPoolCfg);
      for (auto &[port, props] : sw.ports) {
         boolText(props);
         props.erase(kPortPoolCfg);
         if (pools != sw.global.end() &&
             std::find(uplinks.begin(), uplinks.end(), port) != uplinks.end()) {
            props[kPortPoolCfg] = pools->second;
         }
         // One store key for both txUplink rows: the load names it by the
         // switch's class family.
         const char *const other = family ? kEtherTx : kVswitchTx;
         if (auto it = props.find(other); it != props.end()) {
            props[family ? kVswitchTx : kEtherTx] = it->second;
            props.erase(other);
         }
      }
   }
   return host;
}

// The load leaves the bytes after each uplink name undefined: only the
// names are compared.
void ClearAfterNames(Host &host) {
   for (auto &[id, sw] : host) {
      if (auto it = sw.global.find(kUplinkNames); it != sw.global.end()) {
         it->second.value = Names(81, NamesIn(it->second.value, 81));
      }
   }
}

// ---- the kernel and the store --------------------------------------------

std::string Take(ReturnStatus status, void *buf, uint32_t len) {
   EXPECT_EQ(status, STATUS_OK);
   std::string out = buf != nullptr ? std::string(static_cast<char *>(buf), len) : "";
   DVSHYP_DataFree(buf);
   return out;
}

std::string KernelState() {
   void *buf = nullptr;
   uint32_t len = 0;
   const ReturnStatus status = DVSHYP_StateGet(&buf, &len);
   return Take(status, buf, len);
}

std::string LoadFromStore(bool desired) {
   void *buf = nullptr;
   uint32_t len = 0;
   EXPECT_EQ(DVSState_LoadFromConfigStoreAsBuf(&buf, &len, desired), 0);
   std::string out = buf != nullptr ? std::string(static_cast<char *>(buf), len) : "";
   std::free(buf);
   return out;
}

// Writes every live switch object again, in its order, as the desired user
// configuration.
void CopyLiveToDesired() {
   cs::Store *store = nullptr;
   ASSERT_EQ(cs::GetStore(0, &store), cs::kSuccess);
   cs::FilterSpec *filter = nullptr;
   ASSERT_EQ(cs::CreateFilterSpecObject("switches", "network_tds", "node", "", &filter),
             cs::kSuccess);
   cs::Object **objects = nullptr;
   uint32_t count = 0;
   EXPECT_EQ(cs::GetInstances(store, filter, &objects, &count), cs::kSuccess);
   for (uint32_t i = 0; i < count; i++) {
      EXPECT_EQ(cs::Set(store, objects[i], cs::kSourceUser), cs::kSuccess);
      cs::DestroyConfigStoreObject(objects[i]);
   }
   std::free(objects);
   cs::DestroyFilterSpecObject(filter);
   cs::DestroyStore(store);
}

struct SwitchPlan {
   const char *id;
   const char *className;
   uint32_t maxPorts;
   uint32_t version;
   std::vector<std::pair<const char *, std::string>> global, host;
   std::vector<std::pair<const char *, std::vector<std::pair<const char *, std::string>>>> ports;
};

uint32_t Len(const std::string &s) {
   return static_cast<uint32_t>(s.size());
}

void Build(const SwitchPlan &plan) {
   ASSERT_EQ(DVSHYP_SwitchAdd(plan.id, plan.className, plan.maxPorts, plan.version), STATUS_OK);
   for (const auto &[name, value] : plan.global) {
      ASSERT_EQ(DVSHYP_GlobalPropSet(plan.id, name, value.data(), Len(value), kSetFlag), STATUS_OK)
         << name;
   }
   for (const auto &[name, value] : plan.host) {
      ASSERT_EQ(DVSHYP_HostPropSet(plan.id, name, value.data(), Len(value), kSetFlag), STATUS_OK)
         << name;
   }
   for (const auto &[port, props] : plan.ports) {
      DVSDataHandle h = nullptr;
      ASSERT_EQ(DVSData_Alloc(&h, malloc, free), STATUS_OK);
      for (const auto &[name, value] : props) {
         ASSERT_EQ(DVSData_Append(h, name, value.data(), Len(value), kSetFlag), STATUS_OK);
      }
      void *blob = nullptr;
      uint32_t len = 0;
      ASSERT_EQ(DVSData_Serialize(h, &blob, &len, plan.version), STATUS_OK);
      EXPECT_EQ(DVSHYP_PortAdd(plan.id, port, blob, len), STATUS_OK) << port;
      DVSData_FreeAssocData(h, blob);
      DVSData_Free(h);
   }
}

class StoreFlowTest : public testing::Test {
  protected:
   static void SetUpTestSuite() {
      char dir[] = "/tmp/dvs-store-flow-XXXXXX";
      ASSERT_NE(mkdtemp(dir), nullptr);
      dir_ = dir;
      setenv(DVSHYP_DEVICE_PATH_ENV, (dir_ + "/sim.sock").c_str(), 1);  // read once
      setenv(cs::kPathEnv, (dir_ + "/store.db").c_str(), 1);
      setenv(KSI_MAX_PORTS_ENV, "256", 1);
      dvsconfigstore_debug = 0;
   }
   static void TearDownTestSuite() { std::filesystem::remove_all(dir_); }

   // Serves a fresh simulator, as after a host restart.
   void StartKernel() {
      if (server_) {
         server_->Stop();
      }
      server_.reset();
      sim_ = std::make_unique<dvs::sim::Simulator>();
      server_ = std::make_unique<dvs::sim::Server>(*sim_);
      std::string error;
      ASSERT_TRUE(server_->Start(dir_ + "/sim.sock", &error)) << error;
   }
   void TearDown() override {
      if (server_) {
         server_->Stop();
      }
   }

   static inline std::string dir_;
   std::unique_ptr<dvs::sim::Simulator> sim_;
   std::unique_ptr<dvs::sim::Server> server_;
};

TEST_F(StoreFlowTest, HostRestoredFromStoreAloneMatchesUpToStoreConversions) {
   const std::string pools = Pools();
   const std::vector<SwitchPlan> plans = {
      {"vs-1",
       "vswitch",
       128,
       7,
       {{kAlias, Text("prod-vs")},
        {"com.ostrel.common.version", Raw<uint32_t>(7)},
        {kPortsetMtu, Raw<uint32_t>(9000)},
        {"com.ostrel.common.opaqueDvs", Text("yes")},
        {"com.ostrel.common.portset.zlt", Text("false")},
        {"com.ostrel.etherswitch.ipv4addr", Ipv4("10.1.2.3")},
        {"com.ostrel.etherswitch.beaconTimeout", Raw<int32_t>(-5)},
        {kPoolCfg, pools},
        {"com.ostrel.common.respools.list", Names(200, {"vm", "mgmt"})},
        {"com.ostrel.common.respools.sched", std::string(1, '\1')},
        {"com.ostrel.common.respools.version", Text("v3")},
        {"com.ostrel.common.resv.threshold", Raw<uint32_t>(75)},
        {kUplinkNames, Names(81, {"vmnic0", "vmnic1"})},
        {"com.ostrel.vswitch.vendorBlob", std::string("\0\1\xfe\0\xff", 5)}},
       {{"com.ostrel.common.host.portset", Text("portset-0")},
        {kUplinkKeys, Names(48, {"10", "11"})},
        {"com.ostrel.vswitch.hostCookie", std::string("\xde\xad\0\xbe\xef", 5)}},
       {{"10",
         {{"com.ostrel.common.port.alias", Text("uplink-a")},
          {"com.ostrel.common.port.connectid", Raw<uint32_t>(77)},
          {"com.ostrel.common.port.block", Text("true")},
          {"com.ostrel.common.port.ptAllowed", Raw<uint32_t>(2)},
          {kPortPoolCfg, pools},
          {"com.ostrel.common.port.portgroupid", Text("pg-1")},
          {"com.ostrel.vswitch.port.stats", std::string("\0\0\x07", 3)}}},
        {"11",
         {{"com.ostrel.common.port.alias", Text("uplink-b")},
          {"com.ostrel.common.port.block", Text("maybe")},
          {kPortPoolCfg, pools},
          {kVswitchTx, Text("always")}}},
        {"20",
         {{"com.ostrel.common.port.alias", Text("vm-1")},
          {kPortPoolCfg, pools},
          {kEtherTx, Text("normal")},
          {"com.ostrel.common.port.ptAllowed", Raw<uint32_t>(0)},
          {"com.ostrel.common.port.backingType", Text("standard")}}}}},
      {"cs-1",
       "cswitch",
       64,
       107,
       {{"com.ostrel.common.version", Raw<uint32_t>(107)},
        {"com.ostrel.common.portset.zlt", Text("true")},
        {kPortsetMtu, Raw<uint32_t>(1600)},
        {"com.ostrel.vswitch.multicastFilter", Text("legacy")},
        {"com.ostrel.cswitch.overlay", std::string("\x01\0\0\0\x02", 5)}},
       {{"com.ostrel.common.host.portset", Text("portset-1")}},
       {{"1",
         {{"com.ostrel.common.port.alias", Text("tep-1")},
          {"com.ostrel.cswitch.port.tep", std::string("\xc0\xa8\0\x01", 4)}}},
        {"2", {}}}},
      {"lab-1",
       "labswitch",
       16,
       5,
       {{kAlias, Text("lab")},
        {"com.ostrel.common.version", Raw<uint32_t>(5)},
        {kEtherMtu, Raw<uint32_t>(1500)},
        {"com.ostrel.etherswitch.multicastFilter", Text("igmp")},
        {"com.ostrel.labswitch.flags", std::string("\0\0\0\0", 4)}},
       {{"com.ostrel.labswitch.vlanRange", Text("100-199")}},
       {{"1",
         {{"com.ostrel.common.port.alias", Text("probe-a")},
          {kEtherTx, Text("always")},
          {"com.ostrel.etherswitch.port.ipfix", Text("enabled")},
          {"com.ostrel.labswitch.port.mark", std::string(1, '\0')}}}}},
   };

   StartKernel();
   for (const SwitchPlan &plan : plans) {
      Build(plan);
   }
   void *buf = nullptr;
   uint32_t len = 0;
   const ReturnStatus persisted = DVSHYP_PersistentStateGet(&buf, &len);
   const Host original = HostOf(Take(persisted, buf, len));
   ASSERT_EQ(original.size(), plans.size());

   ASSERT_EQ(DVSState_SaveToConfigStore(), 0);
   const std::string loaded = LoadFromStore(false);
   ASSERT_FALSE(loaded.empty());
   // The desired user configuration, when it is the same, builds the same
   // blob (up to the undefined bytes after the uplink names).
   CopyLiveToDesired();
   Host fromDesired = HostOf(LoadFromStore(true));
   Host fromLive = HostOf(loaded);
   ClearAfterNames(fromDesired);
   ClearAfterNames(fromLive);
   EXPECT_TRUE(fromDesired == fromLive);

   // A restarted host: the kernel starts empty and gets the stored state.
   StartKernel();
   ASSERT_EQ(HostOf(KernelState()).size(), 0u);
   ASSERT_EQ(DVSHYP_StateInit(loaded.data(), static_cast<uint32_t>(loaded.size())), STATUS_OK);
   Host restored = HostOf(KernelState());
   ASSERT_EQ(restored.size(), original.size());

   // Each conversion the store makes, seen where the data has it.
   const Switch &vs = restored.at("vs-1");
   const Switch &csw = restored.at("cs-1");
   const Switch &lab = restored.at("lab-1");
   for (const Switch *sw : {&vs, &csw, &lab}) {
      for (const auto &[name, prop] : sw->global) {
         EXPECT_EQ(prop.flag, kLoadedFlag) << name;
      }
   }
   EXPECT_EQ(vs.ports.at("10").at("com.ostrel.common.port.alias").flag, kLoadedFlag);
   EXPECT_EQ(csw.global.count(kAlias), 1u);
   if (csw.global.count(kAlias) != 0) {
      EXPECT_EQ(csw.global.at(kAlias).value, Text("cs-1")) << "no alias: the id stands in";
   }
   EXPECT_EQ(vs.global.at("com.ostrel.common.opaqueDvs").value, Text("false"));
   EXPECT_EQ(vs.ports.at("11").at("com.ostrel.common.port.block").value, Text("false"));
   EXPECT_EQ(vs.global.at(kVswitchMtu).value, Raw<uint32_t>(9000));
   EXPECT_EQ(lab.global.at(kPortsetMtu).value, Raw<uint32_t>(1500));
   EXPECT_EQ(csw.global.count(kVswitchMtu) + csw.global.count(kEtherMtu), 0u);
   EXPECT_EQ(vs.ports.at("20").count(kPortPoolCfg), 0u) << "not an uplink port";
   EXPECT_EQ(vs.ports.at("10").at(kPortPoolCfg).value, pools);
   EXPECT_EQ(vs.ports.at("20").count(kEtherTx), 0u) << "an etherswitch row on a vswitch";
   EXPECT_EQ(vs.ports.at("20").at(kVswitchTx).value, Text("normal"));
   EXPECT_EQ(NamesIn(vs.global.at(kUplinkNames).value, 81),
             (std::vector<std::string>{"vmnic0", "vmnic1"}));

   // Everything else, switch by switch, port by port, byte for byte.
   Host expected = AfterStore(original);
   ClearAfterNames(expected);
   ClearAfterNames(restored);
   for (const auto &[id, want] : expected) {
      SCOPED_TRACE("switch " + id);
      ASSERT_EQ(restored.count(id), 1u);
      const Switch &got = restored.at(id);
      EXPECT_EQ(got.version, want.version);
      EXPECT_EQ(got.className, want.className);
      EXPECT_EQ(got.maxPorts, want.maxPorts);
      for (const auto &[list, wantProps, gotProps] :
           {std::tuple{"global", &want.global, &got.global},
            std::tuple{"host", &want.host, &got.host}}) {
         for (const auto &[name, prop] : *wantProps) {
            EXPECT_TRUE(gotProps->count(name) != 0 && gotProps->at(name) == prop)
               << list << " property " << name << " lost or changed";
         }
         EXPECT_EQ(gotProps->size(), wantProps->size()) << list << " properties added";
      }
      EXPECT_EQ(got.ports.size(), want.ports.size());
      for (const auto &[port, props] : want.ports) {
         EXPECT_TRUE(got.ports.count(port) != 0 && got.ports.at(port) == props)
            << "port " << port << " lost or changed";
      }
   }
}

}  // namespace
