// Enumeration texts written to and read from the store by the structured
// converters, and the store keys the save clears on an existing switch
// object.  Every text is stored exactly as written here.
#include <dvsconfigstore.h>

#include <iterator>

// Exported through the declarations in dvsconfigstore.h.
extern "C" {

// Teaming policy: kernel number by position, and text by kernel number.
const int32_t TEAMING_POLICY_ENUM[] = {0, 1, 2, 3, 5, 4};
const char *const TEAMING_POLICY_SCHEMA[] = {
   nullptr,
   "LOADBALANCE_IP",
   "LOADBALANCE_SRCMAC",
   "LOADBALANCE_SRCID",
   "LOADBALANCE_LOADBASED",
   "FAILOVER_EXPLICIT",
   nullptr,
};
const char *const NIC_TEAMING_POLICY_MODE_2_CHARS[] = {
   "LOADBALANCE_IP",    "LOADBALANCE_SRCMAC",    "LOADBALANCE_SRCID",
   "FAILOVER_EXPLICIT", "LOADBALANCE_LOADBASED",
};

const char *const LACP_LB_POLICY_SCHEMA[] = {
   "NONE",
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
   nullptr,
};
// The name is misspelt, and exported as it is.
const char *const LACP_MODE_2_CAHRS[] = {"NONE", "ACTIVE", "PASSIVE", nullptr};

const char *const CDP_OPERATION_2_CHARS[] = {"NONE", "LISTEN", "ADVERTISE", "BOTH", nullptr};
const int32_t CHARS_2_CDP_OPERATION[] = {0, 1, 2, 3, 4};
const char *const CDP_MODE_2_CHARS[] = {"CDP", "LLDP", nullptr};
const int32_t CHARS_2_CDP_MODE[] = {0, 1, 2};

const char *const PVLAN_2_CHARS[] = {nullptr, "PROMISCUOUS", "ISOLATED", "COMMUNITY", nullptr};
const int32_t CHARS_2_PVLAN[] = {-1, 1, 2, 3, -1};

const char *const ENCAP_TYPE_LOCAL_ENUM_2SCHEMA[] = {"GRE", "ERSPAN2", "ERSPAN3"};
const char *const SESSION_TYPE_LOCAL_ENUM_2_SCHEMA[] = {
   "MIXED_DEST_MIRROR",
   "DVPORT_MIRROR",
   "REMOTE_MIRROR_SOURCE",
   "REMOTE_MIRROR_DEST",
   "ENCAPSULATED_REMOTE_MIRROR_SOURCE",
   nullptr,
};
const int32_t VSPAN_ENCAP_TYPE_NUM =
   sizeof(ENCAP_TYPE_LOCAL_ENUM_2SCHEMA) / sizeof(ENCAP_TYPE_LOCAL_ENUM_2SCHEMA[0]);
const int32_t VSPAN_SESSION_TYPE_NUM =
   sizeof(SESSION_TYPE_LOCAL_ENUM_2_SCHEMA) / sizeof(SESSION_TYPE_LOCAL_ENUM_2_SCHEMA[0]);

// Keys whose value is removed from the switch object.
const char *const UNUSED_PRIMITIVE_PROPS[] = {
   "name",
   "portset_name",
   "max_ports",
   "is_opaque",
   "switch_address",
   "uplink_port_keys",
   "uplink_port_names",
   "uplink_port_groupKeys",
   "zlt_enabled",
   nullptr,
};
// Sub-objects deleted by key, with the empty instance id.
const char *const UNUSED_SINGLETON_PROPS[] = {
   "settings", "resource_management", "product", "data", nullptr,
};
// Sub-objects of which every instance is deleted.
const char *const UNUSED_NON_SINGLETON_PROPS[] = {
   "ports", "uplink_ports", "hypnic_ports", "vtep_ports", "health_checks", nullptr,
};

}  // extern "C"

// Each number table pairs with its text table entry for entry; a policy
// position names one of the five policies with a text.
static_assert(std::size(TEAMING_POLICY_ENUM) == 6 && std::size(TEAMING_POLICY_SCHEMA) == 7);
static_assert(std::size(NIC_TEAMING_POLICY_MODE_2_CHARS) + 1 == std::size(TEAMING_POLICY_ENUM));
static_assert(std::size(LACP_LB_POLICY_SCHEMA) == 22 && std::size(LACP_MODE_2_CAHRS) == 4);
static_assert(std::size(CDP_OPERATION_2_CHARS) == 5 &&
              std::size(CHARS_2_CDP_OPERATION) == std::size(CDP_OPERATION_2_CHARS));
static_assert(std::size(CDP_MODE_2_CHARS) == 3 &&
              std::size(CHARS_2_CDP_MODE) == std::size(CDP_MODE_2_CHARS));
static_assert(std::size(PVLAN_2_CHARS) == 5 &&
              std::size(CHARS_2_PVLAN) == std::size(PVLAN_2_CHARS));
static_assert(std::size(ENCAP_TYPE_LOCAL_ENUM_2SCHEMA) == 3 &&
              std::size(SESSION_TYPE_LOCAL_ENUM_2_SCHEMA) == 6);
static_assert(std::size(UNUSED_PRIMITIVE_PROPS) == 10 && std::size(UNUSED_SINGLETON_PROPS) == 5 &&
              std::size(UNUSED_NON_SINGLETON_PROPS) == 6);
