// The property-to-store maps and enumeration tables, row by row, against an
// independent list of the expected rows, and their structural invariants,
// as libdvs exports them.
#include <cstring>
#include <string>
#include <vector>

#include <dvsconfigstore.h>
#include <gtest/gtest.h>

namespace {

struct Row {
   const char *name;
   std::vector<std::string> path;
   uint32_t conv;
};

// Converter numbers are written out, not taken from the header, so a wrong
// macro value fails here too.
const std::vector<Row> kGlobalRows = {
   {"com.ostrel.common.alias", {"name"}, 1},
   {"com.ostrel.common.version", {"product", "version"}, 15},
   {"com.ostrel.common.portset.mtu", {"settings", "max_mtu"}, 21},
   {"com.ostrel.vswitch.mtu", {"settings", "max_mtu"}, 21},
   {"com.ostrel.etherswitch.mtu", {"settings", "max_mtu"}, 21},
   {"com.ostrel.common.opaqueDvs", {"is_opaque"}, 4},
   {"com.ostrel.common.uplinkPorts", {"uplink_port_names"}, 20},
   {"com.ostrel.etherswitch.lacp", {"settings", "lacp_groups"}, 16},
   {"com.ostrel.etherswitch.ipv4addr", {"switch_address"}, 5},
   {"com.ostrel.etherswitch.beaconTimeout", {"settings", "beacon"}, 2},
   {"com.ostrel.etherswitch.pvlanMap", {"settings", "pvlans"}, 6},
   {"com.ostrel.vswitch.pvlanMap", {"settings", "pvlans"}, 7},
   {"com.ostrel.etherswitch.cdp", {"settings", "link_discovery_protocol"}, 8},
   {"com.ostrel.etherswitch.mirrorSessions", {"settings", "vspans"}, 9},
   {"com.ostrel.vswitch.mirrorSessions", {"settings", "vspans"}, 9},
   {"com.ostrel.common.portset.zlt", {"zlt_enabled"}, 19},
   {"com.ostrel.etherswitch.ipfix", {"settings", "ipfix"}, 10},
   {"com.ostrel.etherswitch.multicastFilter", {"settings", "multicast_filtering_mode"}, 1},
   {"com.ostrel.vswitch.multicastFilter", {"settings", "multicast_filtering_mode"}, 1},
   {"com.ostrel.etherswitch.multicastFilter", {"settings", "multicast_filtering_mode"}, 1},
   {"com.ostrel.common.vlanmtucheck.deploy", {"health_checks"}, 11},
   {"com.ostrel.common.teamcheck.deploy", {"health_checks"}, 11},
   {"com.ostrel.common.respools.cfg", {"resource_management", "traffic_resources"}, 12},
   {"com.ostrel.common.respools.list", {"resource_management", "network_resource_pool_keys"}, 13},
   {"com.ostrel.common.respools.sched", {"resource_management", "enable"}, 3},
   {"com.ostrel.common.respools.version",
    {"resource_management", "network_resource_control_version"},
    1},
   {"com.ostrel.common.resv.threshold",
    {"resource_management", "pnic_capacity_ratio_for_reservation"},
    0},
   {"com.ostrel.vswitch.teaming", {"settings", "uplink_teaming_policy"}, 18},
   {"DEFAULT", {"data"}, 22},
};

const std::vector<Row> kPortRows = {
   {"com.ostrel.common.port.alias", {"name"}, 1},
   {"com.ostrel.common.port.connectid", {"connection_cookie"}, 0},
   {"com.ostrel.common.port.block", {"settings", "blocked"}, 31},
   {"com.ostrel.common.port.ptAllowed", {"settings", "direct_io_gen2_allowed"}, 32},
   {"com.ostrel.etherswitch.port.txUplink", {"settings", "tx_uplink"}, 23},
   {"com.ostrel.vswitch.port.txUplink", {"settings", "tx_uplink"}, 23},
   {"com.ostrel.common.port.portgroupid", {"port_group_key"}, 1},
   {"com.ostrel.etherswitch.port.teaming", {"settings", "uplink_teaming_policy"}, 17},
   {"com.ostrel.vswitch.port.teaming.policy", {"settings", "uplink_teaming_policy"}, 18},
   {"com.ostrel.etherswitch.port.vlan", {"settings", "vlan"}, 24},
   {"com.ostrel.vswitch.port.vlan", {"settings", "vlan"}, 25},
   {"com.ostrel.etherswitch.port.ipfix", {"settings", "ipfix_enabled"}, 34},
   {"com.ostrel.common.port.shaper.input", {"settings", "in_shaping_policy"}, 26},
   {"com.ostrel.common.port.shaper.output", {"settings", "out_shaping_policy"}, 26},
   {"com.ostrel.etherswitch.port.security", {"settings", "mac_management_policy"}, 27},
   {"com.ostrel.vswitch.port.security", {"settings", "mac_management_policy"}, 28},
   {"com.ostrel.common.port.dvfilter", {"settings", "filter_policy"}, 29},
   {"com.ostrel.common.port.respools.cfg", {"settings", "network_resource_pools"}, 36},
   {"com.ostrel.common.port.backingType", {"settings", "backing_type"}, 1},
   {"com.ostrel.vswitch.port.priority", {"settings", "vlan", "priority"}, 0},
   {"com.ostrel.vswitch.port.mirrorSessions", {"vspans"}, 9},
   {"com.ostrel.etherswitch.port.mirrorSessions", {"vspans"}, 9},
   {"com.ostrel.etherswitch.port.lacp", {"settings", "lacp_policy"}, 35},
   {"DEFAULT", {"data"}, 33},
};

const std::vector<Row> kHostRows = {
   {"com.ostrel.common.host.portset", {"portset_name"}, 1},
   {"com.ostrel.common.host.uplinkPorts", {"uplink_port_keys"}, 14},
   {"DEFAULT", {"data"}, 22},
};

bool AllZero(const char *field, size_t len) {
   for (size_t i = 0; i < len; i++) {
      if (field[i] != 0) {
         return false;
      }
   }
   return true;
}

// Compares every row up to the closing one, then checks the closing row.
void ExpectTable(const PropConfigMapEntry *table, const std::vector<Row> &rows) {
   for (size_t i = 0; i < rows.size(); i++) {
      SCOPED_TRACE("row " + std::to_string(i) + " " + rows[i].name);
      const PropConfigMapEntry &got = table[i];
      const Row &want = rows[i];
      ASSERT_NE(got.propName, nullptr);
      EXPECT_STREQ(got.propName, want.name);
      EXPECT_EQ(got.depth, want.path.size());
      EXPECT_EQ(got.convType, want.conv);
      EXPECT_EQ(got.propFlag, 0x10u);
      for (size_t c = 0; c < PROP_CONFIG_PATH_MAX; c++) {
         if (c < want.path.size()) {
            EXPECT_STREQ(got.path[c], want.path[c].c_str()) << "component " << c;
            size_t used = std::strlen(got.path[c]);
            EXPECT_TRUE(AllZero(got.path[c] + used, PROP_CONFIG_NAME_MAX - used))
               << "component " << c;
         } else {
            EXPECT_TRUE(AllZero(got.path[c], PROP_CONFIG_NAME_MAX)) << "component " << c;
         }
      }
   }
   const PropConfigMapEntry &end = table[rows.size()];
   EXPECT_EQ(end.propName, nullptr);
   EXPECT_EQ(end.depth, 0u);
   EXPECT_EQ(end.convType, 37u);
   EXPECT_EQ(end.propFlag, 0u);
   EXPECT_TRUE(AllZero(&end.path[0][0], sizeof(end.path)));
}

TEST(ConfigMaps, GlobalTableRows) {
   ExpectTable(dvsGlobalProp2Config, kGlobalRows);
}
TEST(ConfigMaps, PortTableRows) {
   ExpectTable(dvsPortProp2Config, kPortRows);
}
TEST(ConfigMaps, HostTableRows) {
   ExpectTable(dvsHostProp2Config, kHostRows);
}

TEST(ConfigMaps, MapsAreIndexedByClass) {
   EXPECT_EQ(dvsConfigMaps[0], dvsGlobalProp2Config);
   EXPECT_EQ(dvsConfigMaps[1], dvsHostProp2Config);
   EXPECT_EQ(dvsConfigMaps[2], dvsPortProp2Config);
   EXPECT_EQ(GetConfigMap(0), dvsGlobalProp2Config);
   EXPECT_EQ(GetConfigMap(1), dvsHostProp2Config);
   EXPECT_EQ(GetConfigMap(2), dvsPortProp2Config);
   EXPECT_EQ(PROP_CLASS_GLOBAL, 0);
   EXPECT_EQ(PROP_CLASS_HOST, 1);
   EXPECT_EQ(PROP_CLASS_PORT, 2);
}

TEST(ConfigMaps, HeaderConstants) {
   EXPECT_EQ(PROP_CONFIG_PATH_MAX, 5);
   EXPECT_EQ(PROP_CONFIG_NAME_MAX, 128);
   EXPECT_EQ(dvsconfigstore_debug, 10);
   EXPECT_EQ(sizeof(PropConfigMapEntry), 8u + 5u * 128u + 4u + 4u + 8u);

   // Every converter name with its number; 30 has none.
   const std::vector<std::pair<const char *, int>> conv = {
      {"UINT32", PROP_CONV_UINT32},
      {"STRING", PROP_CONV_STRING},
      {"INT32", PROP_CONV_INT32},
      {"BOOL_BYTE", PROP_CONV_BOOL_BYTE},
      {"BOOL_TEXT", PROP_CONV_BOOL_TEXT},
      {"IPV4_ADDRESS", PROP_CONV_IPV4_ADDRESS},
      {"PVLAN_MAP_ETHER", PROP_CONV_PVLAN_MAP_ETHER},
      {"PVLAN_MAP_VSWITCH", PROP_CONV_PVLAN_MAP_VSWITCH},
      {"LINK_DISCOVERY", PROP_CONV_LINK_DISCOVERY},
      {"MIRROR_SESSIONS", PROP_CONV_MIRROR_SESSIONS},
      {"IPFIX", PROP_CONV_IPFIX},
      {"HEALTH_CHECK", PROP_CONV_HEALTH_CHECK},
      {"RESPOOL_CONFIG", PROP_CONV_RESPOOL_CONFIG},
      {"RESPOOL_KEY_LIST", PROP_CONV_RESPOOL_KEY_LIST},
      {"UPLINK_KEY_LIST", PROP_CONV_UPLINK_KEY_LIST},
      {"SWITCH_VERSION", PROP_CONV_SWITCH_VERSION},
      {"LACP_GROUPS", PROP_CONV_LACP_GROUPS},
      {"TEAMING_ETHER", PROP_CONV_TEAMING_ETHER},
      {"TEAMING_VSWITCH", PROP_CONV_TEAMING_VSWITCH},
      {"ZLT_ENABLED", PROP_CONV_ZLT_ENABLED},
      {"UPLINK_NAME_LIST", PROP_CONV_UPLINK_NAME_LIST},
      {"MTU", PROP_CONV_MTU},
      {"OPAQUE_DATA", PROP_CONV_OPAQUE_DATA},
      {"TX_UPLINK", PROP_CONV_TX_UPLINK},
      {"VLAN_ETHER", PROP_CONV_VLAN_ETHER},
      {"VLAN_VSWITCH", PROP_CONV_VLAN_VSWITCH},
      {"SHAPING", PROP_CONV_SHAPING},
      {"SECURITY_ETHER", PROP_CONV_SECURITY_ETHER},
      {"SECURITY_VSWITCH", PROP_CONV_SECURITY_VSWITCH},
      {"FILTER_POLICY", PROP_CONV_FILTER_POLICY},
      {nullptr, 30},
      {"PORT_BOOL_TEXT", PROP_CONV_PORT_BOOL_TEXT},
      {"PT_ALLOWED", PROP_CONV_PT_ALLOWED},
      {"PORT_OPAQUE_DATA", PROP_CONV_PORT_OPAQUE_DATA},
      {"ENABLED_TEXT", PROP_CONV_ENABLED_TEXT},
      {"LACP_POLICY", PROP_CONV_LACP_POLICY},
      {"SKIP", PROP_CONV_SKIP},
      {"END", PROP_CONV_END},
   };
   for (size_t i = 0; i < conv.size(); i++) {
      EXPECT_EQ(conv[i].second, static_cast<int>(i)) << (conv[i].first ? conv[i].first : "-");
   }
}

// A null-terminated text list, as a vector that keeps the nulls.
std::vector<std::string> Texts(const char *const *list, size_t n) {
   std::vector<std::string> out;
   for (size_t i = 0; i < n; i++) {
      out.push_back(list[i] ? list[i] : "<null>");
   }
   return out;
}

std::vector<int32_t> Numbers(const int32_t *list, size_t n) {
   return {list, list + n};
}

TEST(EnumTables, TeamingPolicy) {
   EXPECT_EQ(Numbers(TEAMING_POLICY_ENUM, 6), (std::vector<int32_t>{0, 1, 2, 3, 5, 4}));
   EXPECT_EQ(Texts(TEAMING_POLICY_SCHEMA, 7),
             (std::vector<std::string>{"<null>", "LOADBALANCE_IP", "LOADBALANCE_SRCMAC",
                                       "LOADBALANCE_SRCID", "LOADBALANCE_LOADBASED",
                                       "FAILOVER_EXPLICIT", "<null>"}));
   EXPECT_EQ(Texts(NIC_TEAMING_POLICY_MODE_2_CHARS, 5),
             (std::vector<std::string>{"LOADBALANCE_IP", "LOADBALANCE_SRCMAC", "LOADBALANCE_SRCID",
                                       "FAILOVER_EXPLICIT", "LOADBALANCE_LOADBASED"}));
}

TEST(EnumTables, Lacp) {
   EXPECT_EQ(Texts(LACP_LB_POLICY_SCHEMA, 22),
             (std::vector<std::string>{"NONE",
                                       "DSTMAC",
                                       "SRCMAC",
                                       "SRCMAC_DSTMAC",
                                       "DSTIP",
                                       "SRCIP",
                                       "SRCIP_DSTIP",
                                       "VLAN",
                                       "DSTIP_VLAN",
                                       "SRCIP_VLAN",
                                       "SRCIP_DSTIP_VLAN",
                                       "DSTPORT",
                                       "SRCPORT",
                                       "SRCPORT_DSTPORT",
                                       "DSTIP_DSTPORT",
                                       "SRCIP_SRCPORT",
                                       "SRCIP_DSTIP_SRCPORT_DSTPORT",
                                       "DSTIP_DSTPORT_VLAN",
                                       "SRCIP_SRCPORT_VLAN",
                                       "SRCIP_DSTIP_SRCPORT_DSTPORT_VLAN",
                                       "SRCID",
                                       "<null>"}));
   EXPECT_EQ(Texts(LACP_MODE_2_CAHRS, 4),
             (std::vector<std::string>{"NONE", "ACTIVE", "PASSIVE", "<null>"}));
}

TEST(EnumTables, LinkDiscoveryAndPvlan) {
   EXPECT_EQ(Texts(CDP_OPERATION_2_CHARS, 5),
             (std::vector<std::string>{"NONE", "LISTEN", "ADVERTISE", "BOTH", "<null>"}));
   EXPECT_EQ(Numbers(CHARS_2_CDP_OPERATION, 5), (std::vector<int32_t>{0, 1, 2, 3, 4}));
   EXPECT_EQ(Texts(CDP_MODE_2_CHARS, 3), (std::vector<std::string>{"CDP", "LLDP", "<null>"}));
   EXPECT_EQ(Numbers(CHARS_2_CDP_MODE, 3), (std::vector<int32_t>{0, 1, 2}));
   EXPECT_EQ(Texts(PVLAN_2_CHARS, 5), (std::vector<std::string>{"<null>", "PROMISCUOUS", "ISOLATED",
                                                                "COMMUNITY", "<null>"}));
   EXPECT_EQ(Numbers(CHARS_2_PVLAN, 5), (std::vector<int32_t>{-1, 1, 2, 3, -1}));
}

TEST(EnumTables, MirrorSessions) {
   EXPECT_EQ(VSPAN_ENCAP_TYPE_NUM, 3);
   EXPECT_EQ(VSPAN_SESSION_TYPE_NUM, 6);
   EXPECT_EQ(Texts(ENCAP_TYPE_LOCAL_ENUM_2SCHEMA, 3),
             (std::vector<std::string>{"GRE", "ERSPAN2", "ERSPAN3"}));
   EXPECT_EQ(Texts(SESSION_TYPE_LOCAL_ENUM_2_SCHEMA, 6),
             (std::vector<std::string>{"MIXED_DEST_MIRROR", "DVPORT_MIRROR", "REMOTE_MIRROR_SOURCE",
                                       "REMOTE_MIRROR_DEST", "ENCAPSULATED_REMOTE_MIRROR_SOURCE",
                                       "<null>"}));
}

// Reads a list up to and including its closing null.
std::vector<std::string> NullClosed(const char *const *list) {
   std::vector<std::string> out;
   for (; *list != nullptr; list++) {
      out.push_back(*list);
   }
   out.push_back("<null>");
   return out;
}

TEST(EnumTables, StaleKeyLists) {
   EXPECT_EQ(NullClosed(UNUSED_PRIMITIVE_PROPS),
             (std::vector<std::string>{"name", "portset_name", "max_ports", "is_opaque",
                                       "switch_address", "uplink_port_keys", "uplink_port_names",
                                       "uplink_port_groupKeys", "zlt_enabled", "<null>"}));
   EXPECT_EQ(
      NullClosed(UNUSED_SINGLETON_PROPS),
      (std::vector<std::string>{"settings", "resource_management", "product", "data", "<null>"}));
   EXPECT_EQ(NullClosed(UNUSED_NON_SINGLETON_PROPS),
             (std::vector<std::string>{"ports", "uplink_ports", "hypnic_ports", "vtep_ports",
                                       "health_checks", "<null>"}));
}

}  // namespace
