// The converter of each converter type; type 30 has none.
#include "configstore/converters.h"

namespace dvs::configstore {

namespace {

constexpr PropConverter kNone = {nullptr, nullptr};

}  // namespace

const PropConverter kPropConverters[PROP_CONV_END] = {
   /* 0 PROP_CONV_UINT32 */ {SaveUint32, LoadUint32},
   /* 1 PROP_CONV_STRING */ {SaveString, LoadString},
   /* 2 PROP_CONV_INT32 */ {SaveInt32, LoadInt32},
   /* 3 PROP_CONV_BOOL_BYTE */ {SaveBoolByte, LoadBoolByte},
   /* 4 PROP_CONV_BOOL_TEXT */ {SaveBoolText, LoadBoolText},
   /* 5 PROP_CONV_IPV4_ADDRESS */ {SaveIpv4Address, LoadIpv4Address},
   /* 6 PROP_CONV_PVLAN_MAP_ETHER */ {SavePvlanMap, LoadPvlanMap},
   /* 7 PROP_CONV_PVLAN_MAP_VSWITCH */ {SavePvlanMap, LoadPvlanMap},
   /* 8 PROP_CONV_LINK_DISCOVERY */ {SaveLinkDiscovery, LoadLinkDiscovery},
   /* 9 PROP_CONV_MIRROR_SESSIONS */ {SaveMirrorSessions, LoadMirrorSessions},
   /* 10 PROP_CONV_IPFIX */ {SaveIpfix, LoadIpfix},
   /* 11 PROP_CONV_HEALTH_CHECK */ {SaveHealthCheck, LoadHealthCheck},
   /* 12 PROP_CONV_RESPOOL_CONFIG */ {SaveResPoolConfig, LoadResPoolConfig},
   /* 13 PROP_CONV_RESPOOL_KEY_LIST */ {SaveResPoolKeyList, LoadResPoolKeyList},
   /* 14 PROP_CONV_UPLINK_KEY_LIST */ {SaveUplinkKeyList, LoadUplinkKeyList},
   /* 15 PROP_CONV_SWITCH_VERSION */ {SaveSwitchVersion, LoadSwitchVersion},
   /* 16 PROP_CONV_LACP_GROUPS */ {SaveLacpGroups, LoadLacpGroups},
   /* 17 PROP_CONV_TEAMING_ETHER */ {SaveTeamingEther, LoadTeamingEther},
   /* 18 PROP_CONV_TEAMING_VSWITCH */ {SaveTeamingVswitch, LoadTeamingVswitch},
   /* 19 PROP_CONV_ZLT_ENABLED */ {SaveBoolText, LoadBoolText},
   /* 20 PROP_CONV_UPLINK_NAME_LIST */ {SaveUplinkNameList, LoadUplinkNameList},
   /* 21 PROP_CONV_MTU */ {SaveUint32, LoadUint32},
   /* 22 PROP_CONV_OPAQUE_DATA */ {SaveOpaqueData, LoadOpaqueData},
   /* 23 PROP_CONV_TX_UPLINK */ {SaveTxUplink, LoadTxUplink},
   /* 24 PROP_CONV_VLAN_ETHER */ {SaveVlanEther, LoadVlanEther},
   /* 25 PROP_CONV_VLAN_VSWITCH */ {SaveVlanVswitch, LoadVlanVswitch},
   /* 26 PROP_CONV_SHAPING */ {SaveShaping, LoadShaping},
   /* 27 PROP_CONV_SECURITY_ETHER */ {SaveSecurity, LoadSecurityEther},
   /* 28 PROP_CONV_SECURITY_VSWITCH */ {SaveSecurity, LoadSecurityVswitch},
   /* 29 PROP_CONV_FILTER_POLICY */ {SaveFilterPolicy, LoadFilterPolicy},
   /* 30: no converter */ kNone,
   /* 31 PROP_CONV_PORT_BOOL_TEXT */ {SaveBoolText, LoadBoolText},
   /* 32 PROP_CONV_PT_ALLOWED */ {SavePtAllowed, LoadPtAllowed},
   /* 33 PROP_CONV_PORT_OPAQUE_DATA */ {SaveOpaqueData, LoadOpaqueData},
   /* 34 PROP_CONV_ENABLED_TEXT */ {SaveEnabledText, LoadEnabledText},
   /* 35 PROP_CONV_LACP_POLICY */ {SaveLacpPolicy, LoadLacpPolicy},
   /* 36 PROP_CONV_SKIP */ {SaveSkip, LoadSkip},
};

const PropConverter *GetPropConverter(uint32_t convType) {
   if (convType >= PROP_CONV_END || kPropConverters[convType].save == nullptr) {
      return nullptr;
   }
   return &kPropConverters[convType];
}

}  // namespace dvs::configstore
