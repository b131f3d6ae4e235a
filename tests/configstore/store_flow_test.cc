// A host's whole trip: switches built in the kernel (the simulator, in this
// process), saved to the configuration store, loaded into a fresh kernel and
// compared by dvsctl's comparison: nothing may differ but the documented
// conversions, each exactly as often as this host calls for it.
#include <configstore.h>
#include <dvsconfigstore.h>
#include <dvshyp.h>
#include <gtest/gtest.h>
#include <hostlibs.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "property_list.h"
#include "state_diff.h"
#include "tests/configstore/kernel_store_support.h"
#include "tests/support/le_bytes.h"

namespace dvsctl {
namespace {

namespace cs = configstore;
using kernelstore::KernelState;
using kernelstore::LoadFromStore;
using namespace std::string_literals;

constexpr uint32_t kSetFlag = 0x20;

// `out` followed by the bytes of each value.
template <typename... T>
std::string Cat(std::string out, T... values) {
   (out.append(reinterpret_cast<const char *>(&values), sizeof values), ...);
   return out;
}

constexpr auto Names = testsupport::NameRecords;

// A global ("G"), host ("H") or port (its id) property named after "com.ostrel.":
// a text (NUL included), a 32-bit integer or bytes.  A port id alone: an empty port.
struct Row {
   Row(const char *port) : list(port) {}
   Row(const char *list, const char *name, const char *text)
       : Row(list, name, std::string(text, std::strlen(text) + 1)) {}
   Row(const char *list, const char *name, int32_t v) : Row(list, name, Cat({}, v)) {}
   Row(const char *list, const char *name, std::string value)
       : list(list), name("com.ostrel."s + name), value(std::move(value)) {}
   std::string list, name, value;
};

struct SwitchPlan {
   const char *id, *className;
   uint32_t maxPorts, version;
   std::vector<Row> rows;
};

void Build(const SwitchPlan &plan) {
   ASSERT_EQ(DVSHYP_SwitchAdd(plan.id, plan.className, plan.maxPorts, plan.version), STATUS_OK);
   std::map<std::string, PropertyListBuilder> ports;
   for (const Row &r : plan.rows) {
      const auto len = static_cast<uint32_t>(r.value.size());
      if (r.list == "G" || r.list == "H") {
         const auto set = r.list == "G" ? DVSHYP_GlobalPropSet : DVSHYP_HostPropSet;
         EXPECT_EQ(set(plan.id, r.name.c_str(), r.value.data(), len, kSetFlag), 0u) << r.name;
      } else if (PropertyListBuilder &port = ports[r.list]; !r.name.empty()) {
         port.Append(r.name, r.value.data(), len, kSetFlag);
      }
   }
   for (const auto &[port, props] : ports) {
      const Bytes blob = props.Serialize();
      EXPECT_EQ(DVSHYP_PortAdd(plan.id, port.c_str(), blob.data(), blob.size()), STATUS_OK);
   }
}

// Writes every live switch object again as the desired user configuration.
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

class StoreFlowTest : public kernelstore::KernelStoreTest {
  protected:
   static void SetUpTestSuite() {
      KernelStoreTest::SetUpTestSuite();
      setenv(KSI_MAX_PORTS_ENV, "256", 1);
   }
};

TEST_F(StoreFlowTest, HostRestoredFromStoreAloneMatchesUpToStoreConversions) {
   // One resource pool "vm": limit -1, reservation 100, 50 shares, level 1.
   const std::string pools = Cat(Names(128, {"vm"}), int64_t{-1}, int64_t{100}, 50u, 1u);
   const std::string uplinks = Names(81, {"vmnic0", "vmnic1"}), keys = Names(48, {"10", "11"});
   // clang-format off
   const std::vector<SwitchPlan> plans = {
      {"vs-1", "vswitch", 128, 7, {
         {"G", "common.alias", "prod-vs"},             {"G", "common.opaqueDvs", "yes"},
         {"G", "common.portset.mtu", 9000},            {"G", "common.portset.zlt", "false"},
         {"G", "common.respools.list", Names(200, {"vm", "mgmt"})}, {"G", "common.version", 7},
         {"G", "etherswitch.ipv4addr", "\x0a\x01\x02\x03"s}, {"G", "common.uplinkPorts", uplinks},
         {"G", "vswitch.vendorBlob", "\0\1\xfe\0\xff"s}, {"G", "common.resv.threshold", 75},
         {"G", "common.respools.cfg", pools},          {"G", "etherswitch.beaconTimeout", -5},
         {"G", "common.respools.sched", "\1"s},        {"G", "common.respools.version", "v3"},
         {"H", "vswitch.hostCookie", "\xde\xad\0\xbe\xef"s}, {"H", "common.host.uplinkPorts", keys},
         {"H", "common.host.portset", "portset-0"},    {"10", "common.port.alias", "uplink-a"},
         {"10", "common.port.block", "true"},          {"10", "common.port.connectid", 77},
         {"10", "common.port.respools.cfg", pools},    {"10", "common.port.ptAllowed", 2},
         {"10", "vswitch.port.stats", "\0\0\x07"s},    {"10", "common.port.portgroupid", "pg-1"},
         {"11", "common.port.alias", "uplink-b"},      {"11", "common.port.block", "maybe"},
         {"11", "common.port.respools.cfg", pools},    {"11", "vswitch.port.txUplink", "always"},
         {"20", "common.port.alias", "vm-1"},          {"20", "common.port.ptAllowed", 0},
         {"20", "etherswitch.port.txUplink", "normal"}, {"20", "common.port.respools.cfg", pools},
         {"20", "common.port.backingType", "standard"}}},
      {"cs-1", "cswitch", 64, 107, {
         {"G", "common.version", 107},                 {"G", "common.portset.zlt", "true"},
         {"G", "common.portset.mtu", 1600},            {"G", "vswitch.multicastFilter", "legacy"},
         {"G", "cswitch.overlay", "\x01\0\0\0\x02"s},  {"H", "common.host.portset", "portset-1"},
         {"1", "common.port.alias", "tep-1"},          {"1", "cswitch.port.tep", "\xc0\xa8\0\x01"s},
         {"2"}}},
      {"lab-1", "labswitch", 16, 5, {
         {"G", "common.alias", "lab"},                 {"G", "common.version", 5},
         {"G", "etherswitch.mtu", 1500},               {"G", "etherswitch.multicastFilter", "igmp"},
         {"G", "labswitch.flags", "\0\0\0\0"s},        {"H", "labswitch.vlanRange", "100-199"},
         {"1", "common.port.alias", "probe-a"},        {"1", "etherswitch.port.txUplink", "always"},
         {"1", "etherswitch.port.ipfix", "enabled"},   {"1", "labswitch.port.mark", "\0"s}}},
   };
   // clang-format on

   StartKernel();
   std::for_each(plans.begin(), plans.end(), Build);
   const HostState before = KernelState(true);

   ASSERT_EQ(DVSState_SaveToConfigStore(), 0);
   const Bytes loaded = LoadFromStore(false);
   // The same objects, as the desired user configuration, load the same host.
   CopyLiveToDesired();
   const DiffReport desired = DiffHosts(ReadHostState(loaded, "live load"),
                                        ReadHostState(LoadFromStore(true), "desired load"));
   EXPECT_TRUE(desired.differences.empty()) << RenderDiffText(desired, false);

   // A restarted host: the kernel starts empty and gets the stored state.
   StartKernel();
   ASSERT_TRUE(KernelState(false).switches.empty());
   ASSERT_EQ(DVSHYP_StateInit(loaded.data(), static_cast<uint32_t>(loaded.size())), STATUS_OK);
   const DiffReport report = DiffHosts(before, KernelState(false));
   EXPECT_EQ(report.summary.ports, 6u);
   EXPECT_EQ(report.summary.unexpected, 0u) << RenderDiffText(report, true);

   // The store's flag on all 51 properties but the pools of port 20, no uplink;
   // cs-1's alias from its id; "yes" and "maybe" read as false; the shared mtu
   // key adds vs-1's vswitch and lab-1's port-set mtu; port 20's etherswitch
   // txUplink named after the vswitch family.  No other conversion.
   const std::map<std::string, size_t> conversions = {
      {"flag", 50},          {"alias-from-id", 1},      {"bool-text", 2},
      {"mtu-shared-key", 2}, {"family-row-renamed", 1}, {"port-pools-uplink-only", 1}};
   EXPECT_EQ(report.summary.byConversion, conversions) << RenderDiffText(report, false);
}

}  // namespace
}  // namespace dvsctl
