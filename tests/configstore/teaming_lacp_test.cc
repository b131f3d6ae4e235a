// The uplink teaming policy and LACP converters: saved through the save
// dispatcher into a real store file, checked key by key, and loaded back
// through the converter table or the load dispatcher.
#include <stdlib.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
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
constexpr const char *kEtherTeaming = "com.ostrel.etherswitch.port.teaming";

using testsupport::At;
using testsupport::Get;
std::string TextAt(const Bytes &b, size_t off) {
   return reinterpret_cast<const char *>(b.data() + off);
}

// A teaming policy: 2616 bytes, names in 81-byte slots from offset 24.
Bytes Teaming(uint32_t policy, std::vector<std::string> active, std::vector<std::string> standby) {
   Bytes b(2616, 0);
   At<uint32_t>(&b, 0, policy);
   At<uint32_t>(&b, 4, 0x20);  // check beacon
   At<uint8_t>(&b, 8, 50);
   At<uint8_t>(&b, 9, 1);
   At<uint16_t>(&b, 10, 1000);
   At<uint32_t>(&b, 12, 0x02 | 0x10 | 0x20);
   At<uint32_t>(&b, 16, active.size());
   At<uint32_t>(&b, 20, standby.size());
   active.insert(active.end(), standby.begin(), standby.end());
   for (size_t i = 0; i < active.size(); i++)
      memcpy(&b[24 + 81 * i], active[i].c_str(), active[i].size() + 1);
   return b;
}

struct Group {
   std::string name, key;
   uint32_t mode, lb, uplinks;
};
Bytes Groups(const std::vector<Group> &groups) {
   Bytes b(4 + 93 * groups.size(), 0);
   At<uint32_t>(&b, 0, groups.size());
   for (size_t i = 0, e = 4; i < groups.size(); i++, e += 93) {
      memcpy(&b[e], groups[i].name.c_str(), groups[i].name.size() + 1);
      memcpy(&b[e + 65], groups[i].key.c_str(), groups[i].key.size() + 1);
      At(&b, e + 81, groups[i].mode);
      At(&b, e + 85, groups[i].lb);
      At(&b, e + 89, groups[i].uplinks);
   }
   return b;
}

class TeamingLacp : public storetest::StoreObjectTest {
  protected:
   void SetUp() override {
      StoreObjectTest::SetUp();
      sw_.version = 7;
   }
   ConvertContext sw_;  // the switch the rows are saved and loaded for
   int32_t Save(const char *prop, uint32_t cls, const Bytes &v) {
      return SaveConfigProp(obj_, prop, v.data(), v.size(), cls, sw_);
   }
   // settings/<key>[/<sub>], or null.
   cs::Object *Sub(const char *key, const char *sub = nullptr) {
      cs::Object *o = nullptr;
      if (cs::GetSubObject(obj_, "settings", "", &o) != 0 ||
          cs::GetSubObject(o, key, "", &o) != 0 ||
          (sub != nullptr && cs::GetSubObject(o, sub, "", &o) != 0))
         return nullptr;
      return o;
   }
   // Converts settings/<key> back; out_ is empty when no property came back.
   int32_t Load(uint32_t type, const char *key) {
      cs::Object *settings = nullptr;
      EXPECT_EQ(GetOrCreateSubObject(true, obj_, "settings", nullptr, &settings), 0);
      DVSDataHandle props;
      EXPECT_EQ(DVSData_Alloc(&props, malloc, free), STATUS_OK);
      ConvertContext ctx = sw_;
      ctx.propName = "p";
      ctx.source = obj_;
      int32_t rc = GetPropConverter(type)->load(settings, key, props, "p", 0x10, ctx);
      DVSDataEntry *e = nullptr;
      out_.clear();
      if (DVSData_Lookup(props, "p", &e) == STATUS_OK)
         out_.assign(e->data, e->data + e->dataLen);
      DVSData_Free(props);
      return rc;
   }
   // The booleans keys of o as a string of 0 and 1 ('-' when unreadable).
   static std::string Bools(cs::Object *o, std::vector<const char *> keys) {
      std::string r;
      for (const char *k : keys) {
         bool b = false;
         r += cs::GetValueBool(o, k, &b) != 0 ? '-' : b ? '1' : '0';
      }
      return r;
   }
   Bytes out_;
};

TEST_F(TeamingLacp, TeamingSavesEveryKeyAndLoadsWithItsAsymmetries) {
   Bytes v = Teaming(4, {"uplink1", "uplink2"}, {"uplink3"});
   ASSERT_EQ(Save(kEtherTeaming, PROP_CLASS_PORT, v), 0);
   Reopen();
   cs::Object *pol = Sub("uplink_teaming_policy");
   cs::Object *fc = Sub("uplink_teaming_policy", "failure_criteria");
   ASSERT_NE(fc, nullptr);
   EXPECT_EQ(Str(pol, "policy"), "LOADBALANCE_LOADBASED");
   EXPECT_EQ(Bools(fc, {"check_beacon", "lc_link_state", "full_duplex"}), "101");
   EXPECT_EQ(
      Bools(pol, {"reverse_policy", "rolling_order", "notify_switches", "best_effort", "shotgun"}),
      "10101");
   uint16_t pct = 0, speed = 0;
   EXPECT_EQ(cs::GetValueUint16(fc, "percentage", &pct) | cs::GetValueUint16(fc, "speed", &speed),
             0);
   EXPECT_EQ(pct * 100000 + speed, 50 * 100000 + 1000);

   // Code 4 loads as 5; the failure values are read from the policy object,
   // so they come back 0, and the presence bit is added.
   Bytes want = v;
   At<uint32_t>(&want, 0, 5);
   At<uint32_t>(&want, 4, 0x220);
   At<uint32_t>(&want, 8, 0);
   EXPECT_EQ(Load(PROP_CONV_TEAMING_ETHER, "uplink_teaming_policy"), 0);
   EXPECT_EQ(out_, want);
   ASSERT_EQ(cs::SetValueUint16(pol, "speed", 1000) | cs::SetValueUint16(pol, "percentage", 300) |
                cs::SetValueBool(pol, "full_duplex", true) |
                cs::SetValueStr(pol, "policy", "FAILOVER_EXPLICIT"),
             0);
   EXPECT_EQ(Load(PROP_CONV_TEAMING_ETHER, "uplink_teaming_policy"), 0);
   EXPECT_EQ(Get<uint32_t>(out_, 0), 4u);
   EXPECT_EQ(Get<uint32_t>(out_, 8), 44u | 1u << 8 | 232u << 16) << "low bytes of 300 and 1000";
   EXPECT_EQ(TeamingPolicyFromSchema("loadbalance_ip") + TeamingPolicyFromSchema(nullptr), 0u);
}

TEST_F(TeamingLacp, TeamingSaveFollowsTheSwitchClassAndRefusesDamagedValues) {
   Bytes v = Teaming(0, {"a"}, {});
   EXPECT_EQ(Save("com.ostrel.vswitch.teaming", PROP_CLASS_GLOBAL, v), 0);
   EXPECT_EQ(Sub("uplink_teaming_policy"), nullptr) << "vswitch form, switch of another class";
   sw_.classKind = kClassKindCswitch;
   // Codes without a text write no "policy" and never index past the table.
   for (uint32_t code : {0u, 6u, 7u, 0xffffffffu}) {
      ASSERT_EQ(Save("com.ostrel.vswitch.teaming", PROP_CLASS_GLOBAL, Teaming(code, {}, {})), 0);
      EXPECT_EQ(Str(Sub("uplink_teaming_policy"), "policy"), "<absent>") << code;
   }
   ASSERT_EQ(cs::DeleteSubObject(obj_, "settings", ""), 0);
   Bytes tooMany = Teaming(1, {}, {});
   At<uint32_t>(&tooMany, 16, 30);
   At<uint32_t>(&tooMany, 20, 3);
   Bytes unterminated = Teaming(1, {"a"}, {});
   memset(&unterminated[24], 'n', 81);
   for (const Bytes &bad : {Bytes(2615, 0), tooMany, unterminated})
      EXPECT_EQ(Save(kEtherTeaming, PROP_CLASS_PORT, bad), kBadParam);
   EXPECT_EQ(Sub("uplink_teaming_policy"), nullptr) << "nothing written for a refused value";
}

TEST_F(TeamingLacp, TeamingLoadStaysWithinItsSlots) {
   ASSERT_EQ(Save(kEtherTeaming, PROP_CLASS_PORT, Teaming(1, {}, {})), 0);
   cs::Object *order = Sub("uplink_teaming_policy", "uplink_port_order");
   const std::string longName(100, 'L');
   for (int i = 0; i < 30; i++)
      ASSERT_EQ(cs::AppendValueString(order, "active_uplink_ports",
                                      i == 3 ? longName.c_str() : std::to_string(i).c_str()),
                0);
   for (const char *s : {"s0", "s1", "s2", "s3"})
      ASSERT_EQ(cs::AppendValueString(order, "standby_uplink_ports", s), 0);
   testing::internal::CaptureStdout();
   EXPECT_EQ(Load(PROP_CONV_TEAMING_ETHER, "uplink_teaming_policy"), 0);
   const std::string log = testing::internal::GetCapturedStdout();
   ASSERT_EQ(out_.size(), 2616u);
   EXPECT_EQ(Get<uint64_t>(out_, 16), 30u | uint64_t{2} << 32) << "30 active, 2 standby";
   EXPECT_EQ(TextAt(out_, 24 + 81 * 3), longName.substr(0, 80));
   EXPECT_EQ(TextAt(out_, 24 + 81 * 31), "s1");
   EXPECT_NE(log.find("cut to 80"), std::string::npos) << log;
   EXPECT_NE(log.find("2 of the 4 names in standby_uplink_ports ignored"), std::string::npos)
      << log;
}

TEST_F(TeamingLacp, LacpGroupsRoundTripInStoreOrderAndRefuseBadCodes) {
   Bytes v = Groups({{"lag-b", "key-2", 1, 20, 4}, {std::string(64, 'n'), "key-1", 2, 16, 2}});
   ASSERT_EQ(Save("com.ostrel.etherswitch.lacp", PROP_CLASS_GLOBAL, v), 0);
   Reopen();
   cs::Object *settings = nullptr, *g = nullptr;
   ASSERT_EQ(cs::GetSubObject(obj_, "settings", "", &settings), 0);
   ASSERT_EQ(cs::GetSubObject(settings, "lacp_groups", "key-1", &g), 0);
   EXPECT_EQ(Str(g, "mode") + " " + Str(g, "load_balance_algorithm"),
             "PASSIVE SRCIP_DSTIP_SRCPORT_DSTPORT");
   EXPECT_EQ(Load(PROP_CONV_LACP_GROUPS, "lacp_groups"), 0);
   EXPECT_EQ(out_, v);

   // No groups: nothing written, the stored ones stay.
   EXPECT_EQ(Save("com.ostrel.etherswitch.lacp", PROP_CLASS_GLOBAL, Groups({})), 0);
   EXPECT_EQ(Load(PROP_CONV_LACP_GROUPS, "lacp_groups"), 0);
   EXPECT_EQ(out_.size(), 190u);
   // Refused values write nothing, not even the groups before the bad one.
   Bytes shortValue = Groups({{"a", "k", 0, 0, 1}});
   At<uint32_t>(&shortValue, 0, 2);
   for (const Bytes &bad :
        {Groups({{"a", "k3", 0, 0, 1}, {"b", "k4", 3, 0, 1}}), Groups({{"a", "k3", 0, 21, 1}}),
         Groups({{"a", "k3", 0, 0xffffffff, 1}}), Groups({{"a", "", 0, 0, 1}}), shortValue,
         Bytes{1, 0}})
      EXPECT_EQ(Save("com.ostrel.etherswitch.lacp", PROP_CLASS_GLOBAL, bad), kBadParam);
   EXPECT_EQ(cs::GetSubObject(settings, "lacp_groups", "k3", &g), cs::kNotFound);
   EXPECT_EQ(cs::GetSubObject(settings, "lacp_groups", "k", &g), cs::kNotFound);
}

TEST_F(TeamingLacp, LacpGroupLoadReportsBadTextsAndMissingValues) {
   EXPECT_EQ(Load(PROP_CONV_LACP_GROUPS, "lacp_groups"), 0);
   EXPECT_TRUE(out_.empty()) << "no instances, no property";
   cs::Object *g = nullptr;
   ASSERT_EQ(GetOrCreateSubObject(true, obj_, "settings", nullptr, &g), 0);
   ASSERT_EQ(cs::CreateSubObject(g, "lacp_groups", "g1", &g), 0);
   ASSERT_EQ(
      cs::SetValueStr(g, "mode", "passive") | cs::SetValueStr(g, "load_balance_algorithm", "SRCID"),
      0);
   EXPECT_EQ(Load(PROP_CONV_LACP_GROUPS, "lacp_groups"), cs::kNotFound);
   EXPECT_TRUE(out_.empty()) << "uplink_num missing";
   ASSERT_EQ(cs::SetValueUint32(g, "uplink_num", 3), 0);
   testing::internal::CaptureStdout();
   EXPECT_EQ(Load(PROP_CONV_LACP_GROUPS, "lacp_groups"), 0);
   EXPECT_EQ(testing::internal::GetCapturedStdout(), "Unknown lacp mode passive\n");
   EXPECT_EQ(out_, Groups({{"", "g1", 0xffffffff, 20, 3}}));
   ASSERT_EQ(
      cs::SetValueStr(g, "load_balance_algorithm", "SRC") | cs::SetValueStr(g, "mode", "NONE"), 0);
   testing::internal::CaptureStdout();
   EXPECT_EQ(Load(PROP_CONV_LACP_GROUPS, "lacp_groups"), 0);
   EXPECT_EQ(testing::internal::GetCapturedStdout(), "Unknown lacp lb policy SRC\n");
   EXPECT_EQ(Get<uint32_t>(out_, 4 + 85), 0xffffffffu);
   // Over-long texts fail the property instead of being cut.
   ASSERT_EQ(cs::SetValueStr(g, "name", std::string(65, 'n').c_str()), 0);
   EXPECT_EQ(Load(PROP_CONV_LACP_GROUPS, "lacp_groups"), kBadParam);
   ASSERT_EQ(cs::SetValueStr(g, "name", std::string(64, 'n').c_str()) |
                cs::SetValueStr(g, "key", "sixteen-chars-xx"),
             0);
   EXPECT_EQ(Load(PROP_CONV_LACP_GROUPS, "lacp_groups"), kBadParam);
   EXPECT_TRUE(out_.empty());
}

TEST_F(TeamingLacp, LacpPortPolicy) {
   const char *prop = "com.ostrel.etherswitch.port.lacp";
   ASSERT_EQ(Save(prop, PROP_CLASS_PORT, Bytes{1, 7, 7, 7, 1, 0, 0, 0}), 0);
   Reopen();
   cs::Object *pol = Sub("lacp_policy");
   EXPECT_EQ(Bools(pol, {"enabled"}) + Str(pol, "mode"), "1ACTIVE");
   EXPECT_EQ(Load(PROP_CONV_LACP_POLICY, "lacp_policy"), 0);
   EXPECT_EQ(out_, (Bytes{1, 0, 0, 0, 1, 0, 0, 0})) << "reserved bytes come back zero";
   ASSERT_EQ(cs::SetValueStr(pol, "mode", "Active"), 0);
   EXPECT_EQ(Load(PROP_CONV_LACP_POLICY, "lacp_policy"), 0);
   EXPECT_EQ(Get<uint32_t>(out_, 4), 0xffffffffu);
   EXPECT_EQ(LacpModeFromString("PASSIVE"), 2);
   for (const Bytes &bad : {Bytes{1, 0, 0, 0, 3, 0, 0, 0}, Bytes{1, 0, 0, 0, 1, 0, 0}})
      EXPECT_EQ(Save(prop, PROP_CLASS_PORT, bad), kBadParam);
   ASSERT_EQ(cs::RemoveValue(pol, "mode"), 0);
   EXPECT_EQ(Load(PROP_CONV_LACP_POLICY, "lacp_policy"), cs::kNotFound);
   ASSERT_EQ(cs::DeleteSubObject(obj_, "settings", ""), 0);
   EXPECT_EQ(Load(PROP_CONV_LACP_POLICY, "lacp_policy"), 0);
   EXPECT_TRUE(out_.empty());
}

// Of the two teaming rows of the port table that share one store key, only
// the one that fits the switch class loads.
TEST_F(TeamingLacp, PortRowsLoadByClassThroughTheDispatchers) {
   ASSERT_EQ(Save(kEtherTeaming, PROP_CLASS_PORT, Teaming(2, {"u1"}, {"u2"})), 0);
   ASSERT_EQ(
      Save("com.ostrel.etherswitch.port.lacp", PROP_CLASS_PORT, Bytes{1, 0, 0, 0, 2, 0, 0, 0}), 0);
   Reopen();
   for (uint32_t kind : {kClassKindOther, kClassKindVswitch}) {
      sw_.classKind = kind;
      DVSDataHandle dest = nullptr, port = nullptr;
      DVSDataEntry *e = nullptr;
      ASSERT_EQ(DVSData_Alloc(&dest, malloc, free), STATUS_OK);
      ASSERT_EQ(LoadConfigProps("port-1", obj_, dest, PROP_CLASS_PORT, sw_, nullptr), 0);
      ASSERT_EQ(DVSData_Lookup(dest, "port-1", &e), STATUS_OK);
      ASSERT_EQ(DVSData_Deserialize(&port, e->data, e->dataLen, malloc, free), STATUS_OK);
      const char *vswitchTeaming = "com.ostrel.vswitch.port.teaming.policy";
      const bool ether = kind == kClassKindOther;
      ASSERT_EQ(DVSData_Lookup(port, ether ? kEtherTeaming : vswitchTeaming, &e), STATUS_OK);
      EXPECT_EQ(Get<uint32_t>(Bytes(e->data, e->data + e->dataLen), 4), 0x220u);
      EXPECT_NE(DVSData_Lookup(port, ether ? vswitchTeaming : kEtherTeaming, &e), STATUS_OK);
      ASSERT_EQ(DVSData_Lookup(port, "com.ostrel.etherswitch.port.lacp", &e), STATUS_OK);
      EXPECT_EQ(Bytes(e->data, e->data + e->dataLen), (Bytes{1, 0, 0, 0, 2, 0, 0, 0}));
      DVSData_Free(port);
      DVSData_Free(dest);
   }
}

}  // namespace
