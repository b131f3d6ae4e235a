// The IPFIX, link discovery and health-check converters of the switch and
// the VLAN, shaping and MAC management converters of a port.  Values are
// saved through the save dispatcher, written to a real store file and read
// back, then rebuilt through the load dispatcher.
#include <arpa/inet.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include <configstore.h>
#include <dvsdata.h>
#include <gtest/gtest.h>

#include "configstore/configstore_internal.h"
#include "configstore/converters.h"
#include "tests/configstore/store_test_support.h"
#include "tests/support/le_bytes.h"

namespace {

namespace cs = ::configstore;
using Bytes = std::vector<uint8_t>;
using namespace dvs::configstore;

constexpr int32_t kBadParam = static_cast<int32_t>(STATUS_BAD_PARAM);

using testsupport::Packer;

Bytes Ipfix(const char *addr, bool v6) {
   Packer p;
   p.Put<uint32_t>(15).Put<uint32_t>(60);
   Bytes a(16, 0);
   inet_pton(v6 ? AF_INET6 : AF_INET, addr, a.data());
   p.b.insert(p.b.end(), a.begin(), a.end());
   p.Put<uint16_t>(4739)
      .Put<uint32_t>(0x01020304)
      .Put<uint8_t>(1)
      .Put<uint8_t>(v6)
      .Put<uint32_t>(77);
   return p.b;
}

class MonitoringPortPolicy : public storetest::StoreObjectTest {
  protected:
   void SetUp() override {
      StoreObjectTest::SetUp();
      ASSERT_EQ(cs::CreateSubObject(obj_, "ports", "p1", &port_), 0);
      sw_.version = 7;
   }
   ConvertContext sw_;  // the switch the rows are saved and loaded for
   // Writes the switch and reads it back from the file.
   void Reopen() {
      StoreObjectTest::Reopen();
      ASSERT_EQ(cs::GetSubObject(obj_, "ports", "p1", &port_), 0);
   }
   cs::Object *Src(uint32_t cls) const { return cls == PROP_CLASS_PORT ? port_ : obj_; }
   int32_t Save(uint32_t cls, const char *name, const Bytes &v) {
      return SaveConfigProp(Src(cls), name, v.data(), static_cast<uint32_t>(v.size()), cls, sw_);
   }
   // Every property the load dispatcher rebuilds from the class's object.
   std::map<std::string, Bytes> LoadAll(uint32_t cls, int32_t expectRc = 0) {
      std::map<std::string, Bytes> out;
      DVSDataHandle dest = nullptr, list = nullptr;
      EXPECT_EQ(DVSData_Alloc(&dest, malloc, free), STATUS_OK);
      DVSDataEntry *e = nullptr;
      EXPECT_EQ(LoadConfigProps("l", Src(cls), dest, cls, sw_, nullptr), expectRc);
      if (DVSData_Lookup(dest, "l", &e) == STATUS_OK &&
          DVSData_Deserialize(&list, e->data, e->dataLen, malloc, free) == STATUS_OK) {
         for (e = nullptr; DVSData_Next(list, e, &e) == STATUS_OK;) {
            EXPECT_EQ(e->flag, 0x10u);
            out[e->name].assign(e->data, e->data + e->dataLen);
         }
         DVSData_Free(list);
      }
      DVSData_Free(dest);
      return out;
   }
   // One of them; empty when it did not come back.
   Bytes Load(uint32_t cls, const char *name, int32_t expectRc = 0) {
      return LoadAll(cls, expectRc)[name];
   }
   cs::Object *Sub(cs::Object *parent, const char *key, const char *id = nullptr) {
      cs::Object *o = nullptr;
      EXPECT_EQ(cs::GetSubObject(parent, key, id, &o), 0) << key;
      return o;
   }
   cs::Object *port_ = nullptr;
};

constexpr const char *kIpfix = "com.ostrel.etherswitch.ipfix";
constexpr const char *kCdp = "com.ostrel.etherswitch.cdp";
constexpr const char *kVlanMtu = "com.ostrel.common.vlanmtucheck.deploy";
constexpr const char *kTeam = "com.ostrel.common.teamcheck.deploy";

TEST_F(MonitoringPortPolicy, IpfixKeepsBothAddressFamilies) {
   const Bytes v4 = Ipfix("10.1.2.3", false);
   ASSERT_EQ(v4.size(), 36u);
   EXPECT_EQ(Save(PROP_CLASS_GLOBAL, kIpfix, Bytes(v4.begin(), v4.end() - 1)), kBadParam);
   ASSERT_EQ(Save(PROP_CLASS_GLOBAL, kIpfix, v4), 0);
   Reopen();
   cs::Object *ipfix = Sub(Sub(obj_, "settings"), "ipfix");
   EXPECT_EQ(Str(ipfix, "collector_address"), "10.1.2.3");
   EXPECT_EQ(Long(ipfix, "idle_flow_timeout"), 15);
   EXPECT_EQ(Long(ipfix, "active_flow_timeout"), 60);
   EXPECT_EQ(Long(ipfix, "collector_port"), 4739);
   EXPECT_EQ(Long(ipfix, "sampling_rate"), 0x01020304);
   EXPECT_EQ(Long(ipfix, "observation_domain_id"), 77);
   EXPECT_TRUE(Bool(ipfix, "internal_flows_only"));
   EXPECT_EQ(Load(PROP_CLASS_GLOBAL, kIpfix), v4);

   const Bytes v6 = Ipfix("2001:db8::a:1", true);
   ASSERT_EQ(Save(PROP_CLASS_GLOBAL, kIpfix, v6), 0);
   Reopen();
   ipfix = Sub(Sub(obj_, "settings"), "ipfix");
   EXPECT_EQ(Str(ipfix, "collector_address"), "2001:0db8:0000:0000:0000:0000:000a:0001");
   EXPECT_EQ(Load(PROP_CLASS_GLOBAL, kIpfix), v6);
   // Short forms load too; a text of neither family leaves the address 0.
   ASSERT_EQ(cs::SetValueStr(ipfix, "collector_address", "::1"), 0);
   Bytes out = Load(PROP_CLASS_GLOBAL, kIpfix);
   ASSERT_EQ(out.size(), 36u);
   EXPECT_EQ(out[23], 1);
   EXPECT_EQ(out[31], 1);
   ASSERT_EQ(cs::SetValueStr(ipfix, "collector_address", "collector.local"), 0);
   out = Load(PROP_CLASS_GLOBAL, kIpfix);
   EXPECT_EQ(Bytes(out.begin() + 8, out.begin() + 24), Bytes(16, 0));
   EXPECT_EQ(out[31], 0);
}

TEST_F(MonitoringPortPolicy, LinkDiscoveryTextsAndUnknowns) {
   EXPECT_TRUE(Load(PROP_CLASS_GLOBAL, kCdp).empty());
   EXPECT_EQ(Save(PROP_CLASS_GLOBAL, kCdp, Bytes{2, 0}), kBadParam);
   EXPECT_EQ(Save(PROP_CLASS_GLOBAL, kCdp, Bytes{0, 4}), kBadParam);
   EXPECT_EQ(Save(PROP_CLASS_GLOBAL, kCdp, Bytes{1}), kBadParam);
   ASSERT_EQ(Save(PROP_CLASS_GLOBAL, kCdp, Bytes{1, 3}), 0);
   Reopen();
   cs::Object *ldp = Sub(Sub(obj_, "settings"), "link_discovery_protocol");
   EXPECT_EQ(Str(ldp, "protocol"), "LLDP");
   EXPECT_EQ(Str(ldp, "operation"), "BOTH");
   EXPECT_EQ(Load(PROP_CLASS_GLOBAL, kCdp), (Bytes{1, 3}));
   ASSERT_EQ(Save(PROP_CLASS_GLOBAL, kCdp, Bytes{0, 2}), 0);
   EXPECT_EQ(Load(PROP_CLASS_GLOBAL, kCdp), (Bytes{0, 2}));
   ASSERT_EQ(cs::SetValueStr(ldp, "protocol", "lldp"), 0);
   ASSERT_EQ(cs::SetValueStr(ldp, "operation", "SEND"), 0);
   EXPECT_EQ(Load(PROP_CLASS_GLOBAL, kCdp), (Bytes{2, 4}));
}

TEST_F(MonitoringPortPolicy, HealthChecksShareOneKeyByInstance) {
   const Bytes mtu = Packer().Put<uint8_t>(1).Put<uint32_t>(60).b;
   const Bytes team = Packer().Put<uint8_t>(0).Put<uint32_t>(0x10000).b;
   EXPECT_EQ(Save(PROP_CLASS_GLOBAL, kVlanMtu, Bytes(mtu.begin(), mtu.end() - 1)), kBadParam);
   ASSERT_EQ(Save(PROP_CLASS_GLOBAL, kVlanMtu, mtu), 0);
   ASSERT_EQ(Save(PROP_CLASS_GLOBAL, kTeam, team), 0);
   Reopen();
   cs::Object *vm = Sub(obj_, "health_checks", "VLAN_MTU");
   EXPECT_TRUE(Bool(vm, "enable"));
   EXPECT_EQ(Long(vm, "interval"), 60);
   EXPECT_FALSE(Bool(Sub(obj_, "health_checks", "TEAMING"), "enable"));
   // Both rows walk to the same key and each rebuilds its own property;
   // the load reads "enabled", which the save never writes.
   const std::map<std::string, Bytes> both = {
      {kVlanMtu, Packer().Put<uint8_t>(0).Put<uint32_t>(60).b}, {kTeam, team}};
   EXPECT_EQ(LoadAll(PROP_CLASS_GLOBAL), both);
   ASSERT_EQ(cs::SetValueBool(vm, "enabled", true), 0);
   EXPECT_EQ(Load(PROP_CLASS_GLOBAL, kVlanMtu), mtu);
   // Only the two health-check names have an instance.
   ConvertContext ctx{PROP_CLASS_GLOBAL, "com.ostrel.common.other.deploy", obj_};
   EXPECT_EQ(
      GetPropConverter(PROP_CONV_HEALTH_CHECK)->save(obj_, "health_checks", mtu.data(), 5, ctx),
      -1);
}

constexpr const char *kEsVlan = "com.ostrel.etherswitch.port.vlan";
constexpr const char *kVsVlan = "com.ostrel.vswitch.port.vlan";

Bytes Vlan(uint16_t flags, uint16_t id, std::vector<std::pair<uint16_t, uint16_t>> ranges = {}) {
   Packer p;
   p.Put(flags).Put(id).Put<uint16_t>(0).Put(static_cast<uint16_t>(ranges.size()));
   for (auto [s, e] : ranges)
      p.Put(s).Put(e);
   return p.b;
}

TEST_F(MonitoringPortPolicy, PortVlanTrunkPrivateAndPlain) {
   const Bytes trunk = Vlan(1, 0, {{1, 100}, {200, 300}});
   EXPECT_EQ(Save(PROP_CLASS_PORT, kEsVlan, Bytes(trunk.begin(), trunk.end() - 1)), kBadParam);
   ASSERT_EQ(Save(PROP_CLASS_PORT, kEsVlan, trunk), 0);
   Reopen();
   cs::Object *vlan = Sub(Sub(port_, "settings"), "vlan", "");
   cs::FilterSpec *f = nullptr;
   ASSERT_EQ(cs::CreateFilterSpecObject("trunk_vlan_ids", "", "", "", &f), 0);
   cs::Object **r = nullptr;
   uint32_t n = 0;
   ASSERT_EQ(cs::GetSubObjectInstances(vlan, f, &r, &n), 0);
   ASSERT_EQ(n, 2u);
   EXPECT_EQ(Long(r[0], "start"), 1);
   EXPECT_EQ(Long(r[1], "end"), 300);
   free(r);
   EXPECT_EQ(Load(PROP_CLASS_PORT, kEsVlan), trunk);

   // Each save replaces what the object said before.
   ASSERT_EQ(Save(PROP_CLASS_PORT, kEsVlan, Vlan(1, 9)), 0);
   EXPECT_EQ(Load(PROP_CLASS_PORT, kEsVlan), Vlan(0, 0));
   ASSERT_EQ(cs::GetSubObjectInstances(vlan, f, &r, &n), 0);
   EXPECT_EQ(n, 0u);
   free(r);
   cs::DestroyFilterSpecObject(f);
   ASSERT_EQ(Save(PROP_CLASS_PORT, kEsVlan, Vlan(2, 5)), 0);
   Reopen();
   EXPECT_EQ(Long(Sub(Sub(port_, "settings"), "vlan", ""), "pvlan_id"), 5);
   EXPECT_EQ(Load(PROP_CLASS_PORT, kEsVlan), Vlan(2, 5));
   ASSERT_EQ(Save(PROP_CLASS_PORT, kEsVlan, Vlan(0, 10)), 0);
   EXPECT_EQ(Load(PROP_CLASS_PORT, kEsVlan), Vlan(0, 10));

   // The vswitch row is written and read only for the vswitch family; the
   // ether row is read only outside it.
   ASSERT_EQ(Save(PROP_CLASS_PORT, kVsVlan, Vlan(0, 20)), 0);
   EXPECT_TRUE(Load(PROP_CLASS_PORT, kVsVlan).empty());
   sw_.classKind = kClassKindCswitch;
   EXPECT_TRUE(Load(PROP_CLASS_PORT, kEsVlan).empty());
   EXPECT_EQ(Load(PROP_CLASS_PORT, kVsVlan), Vlan(0, 10));
   ASSERT_EQ(Save(PROP_CLASS_PORT, kVsVlan, Vlan(1, 0, {{7, 7}})), 0);
   EXPECT_EQ(Load(PROP_CLASS_PORT, kVsVlan), Vlan(1, 0, {{7, 7}}));
}

TEST_F(MonitoringPortPolicy, ShapingIsStoredEightfold) {
   constexpr const char *kIn = "com.ostrel.common.port.shaper.input";
   constexpr const char *kOut = "com.ostrel.common.port.shaper.output";
   const Bytes in = Packer().Put<uint64_t>(1000).Put<uint64_t>(2000).Put<uint64_t>(3).b;
   EXPECT_EQ(Save(PROP_CLASS_PORT, kIn, Bytes(in.begin(), in.end() - 1)), kBadParam);
   EXPECT_EQ(Save(PROP_CLASS_PORT, kIn,
                  Packer().Put<uint64_t>(1).Put<uint64_t>(1ull << 61).Put<uint64_t>(0).b),
             kBadParam);
   ASSERT_EQ(Save(PROP_CLASS_PORT, kIn, in), 0);
   Reopen();
   cs::Object *sh = Sub(Sub(port_, "settings"), "in_shaping_policy");
   EXPECT_TRUE(Bool(sh, "enabled"));
   EXPECT_EQ(Long(sh, "average_bandwidth"), 8000);
   EXPECT_EQ(Long(sh, "peak_bandwidth"), 16000);
   EXPECT_EQ(Long(sh, "burst_size"), 24);
   EXPECT_EQ(Load(PROP_CLASS_PORT, kIn), in);
   EXPECT_TRUE(Load(PROP_CLASS_PORT, kOut).empty());
   ASSERT_EQ(cs::SetValueLong(sh, "average_bandwidth", 15), 0);
   ASSERT_EQ(cs::RemoveValue(sh, "burst_size"), 0);
   EXPECT_EQ(Load(PROP_CLASS_PORT, kIn),
             Packer().Put<uint64_t>(1).Put<uint64_t>(2000).Put<uint64_t>(0).b);
   ASSERT_EQ(cs::SetValueLong(sh, "peak_bandwidth", -8), 0);
   Load(PROP_CLASS_PORT, kIn, kBadParam);
}

TEST_F(MonitoringPortPolicy, SecurityBitsAreRefusals) {
   constexpr const char *kEs = "com.ostrel.etherswitch.port.security";
   constexpr const char *kVs = "com.ostrel.vswitch.port.security";
   const Bytes bits = Packer().Put<uint32_t>(0x5).b;
   EXPECT_EQ(Save(PROP_CLASS_PORT, kEs, Bytes{5, 0}), kBadParam);
   ASSERT_EQ(Save(PROP_CLASS_PORT, kEs, bits), 0);
   Reopen();
   cs::Object *mac = Sub(Sub(port_, "settings"), "mac_management_policy");
   EXPECT_FALSE(Bool(mac, "allow_promiscuous"));
   EXPECT_TRUE(Bool(mac, "allow_mac_change"));
   EXPECT_FALSE(Bool(mac, "allow_forged_transmit"));
   EXPECT_EQ(Load(PROP_CLASS_PORT, kEs), bits);
   EXPECT_TRUE(Load(PROP_CLASS_PORT, kVs).empty());
   sw_.classKind = kClassKindVswitch;
   EXPECT_TRUE(Load(PROP_CLASS_PORT, kEs).empty());
   ASSERT_EQ(Save(PROP_CLASS_PORT, kVs, Packer().Put<uint32_t>(0x2).b), 0);
   EXPECT_EQ(Load(PROP_CLASS_PORT, kVs), Packer().Put<uint32_t>(0x2).b);
   for (const char *k : {"allow_promiscuous", "allow_mac_change", "allow_forged_transmit"})
      ASSERT_EQ(cs::RemoveValue(mac, k), 0);
   EXPECT_EQ(Load(PROP_CLASS_PORT, kVs), Packer().Put<uint32_t>(0).b);
}

}  // namespace
