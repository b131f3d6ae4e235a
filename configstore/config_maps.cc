// The property-to-store maps: one table per property class, the array that
// selects a table by class, and the lookup the save uses to find the row of
// a property.  The row order matters: the lookup takes the first row whose
// name matches, and the load walks every row top to bottom.
#include <cstddef>
#include <cstdio>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <unordered_map>

#include <dvsconfigstore.h>

#include "configstore/configstore_internal.h"

namespace {

constexpr uint64_t kRebuiltFlag = 0x10;

// The row layout and the numbers that the exported tables and the converter
// table are indexed by.
static_assert(PROP_CONFIG_PATH_MAX == 5 && PROP_CONFIG_NAME_MAX == 128);
static_assert(sizeof(PropConfigMapEntry) == 8 + 5 * 128 + 4 + 4 + 8);
static_assert(offsetof(PropConfigMapEntry, path) == 8);
static_assert(offsetof(PropConfigMapEntry, depth) == 8 + 5 * 128);
static_assert(offsetof(PropConfigMapEntry, propFlag) == 8 + 5 * 128 + 8);
static_assert(PROP_CLASS_GLOBAL == 0 && PROP_CLASS_HOST == 1 && PROP_CLASS_PORT == 2);
// Converter numbers run from 0 to PROP_CONV_END without a gap but 30.
static_assert(PROP_CONV_UINT32 == 0 && PROP_CONV_STRING == 1 && PROP_CONV_INT32 == 2 &&
              PROP_CONV_BOOL_BYTE == 3 && PROP_CONV_BOOL_TEXT == 4 && PROP_CONV_IPV4_ADDRESS == 5 &&
              PROP_CONV_PVLAN_MAP_ETHER == 6 && PROP_CONV_PVLAN_MAP_VSWITCH == 7 &&
              PROP_CONV_LINK_DISCOVERY == 8 && PROP_CONV_MIRROR_SESSIONS == 9 &&
              PROP_CONV_IPFIX == 10 && PROP_CONV_HEALTH_CHECK == 11 &&
              PROP_CONV_RESPOOL_CONFIG == 12 && PROP_CONV_RESPOOL_KEY_LIST == 13 &&
              PROP_CONV_UPLINK_KEY_LIST == 14 && PROP_CONV_SWITCH_VERSION == 15 &&
              PROP_CONV_LACP_GROUPS == 16 && PROP_CONV_TEAMING_ETHER == 17 &&
              PROP_CONV_TEAMING_VSWITCH == 18 && PROP_CONV_ZLT_ENABLED == 19 &&
              PROP_CONV_UPLINK_NAME_LIST == 20 && PROP_CONV_MTU == 21 &&
              PROP_CONV_OPAQUE_DATA == 22 && PROP_CONV_TX_UPLINK == 23 &&
              PROP_CONV_VLAN_ETHER == 24 && PROP_CONV_VLAN_VSWITCH == 25 &&
              PROP_CONV_SHAPING == 26 && PROP_CONV_SECURITY_ETHER == 27 &&
              PROP_CONV_SECURITY_VSWITCH == 28 && PROP_CONV_FILTER_POLICY == 29 &&
              PROP_CONV_PORT_BOOL_TEXT == 31 && PROP_CONV_PT_ALLOWED == 32 &&
              PROP_CONV_PORT_OPAQUE_DATA == 33 && PROP_CONV_ENABLED_TEXT == 34 &&
              PROP_CONV_LACP_POLICY == 35 && PROP_CONV_SKIP == 36 && PROP_CONV_END == 37);

}  // namespace

// Exported through the declarations in dvsconfigstore.h.
extern "C" {

int32_t dvsconfigstore_debug = 10;

const PropConfigMapEntry dvsGlobalProp2Config[] = {
   {"com.ostrel.common.alias", {"name"}, 1, PROP_CONV_STRING, kRebuiltFlag},
   {"com.ostrel.common.version", {"product", "version"}, 2, PROP_CONV_SWITCH_VERSION, kRebuiltFlag},
   {"com.ostrel.common.portset.mtu", {"settings", "max_mtu"}, 2, PROP_CONV_MTU, kRebuiltFlag},
   {"com.ostrel.vswitch.mtu", {"settings", "max_mtu"}, 2, PROP_CONV_MTU, kRebuiltFlag},
   {"com.ostrel.etherswitch.mtu", {"settings", "max_mtu"}, 2, PROP_CONV_MTU, kRebuiltFlag},
   {"com.ostrel.common.opaqueDvs", {"is_opaque"}, 1, PROP_CONV_BOOL_TEXT, kRebuiltFlag},
   {"com.ostrel.common.uplinkPorts",
    {"uplink_port_names"},
    1,
    PROP_CONV_UPLINK_NAME_LIST,
    kRebuiltFlag},
   {"com.ostrel.etherswitch.lacp",
    {"settings", "lacp_groups"},
    2,
    PROP_CONV_LACP_GROUPS,
    kRebuiltFlag},
   {"com.ostrel.etherswitch.ipv4addr", {"switch_address"}, 1, PROP_CONV_IPV4_ADDRESS, kRebuiltFlag},
   {"com.ostrel.etherswitch.beaconTimeout",
    {"settings", "beacon"},
    2,
    PROP_CONV_INT32,
    kRebuiltFlag},
   {"com.ostrel.etherswitch.pvlanMap",
    {"settings", "pvlans"},
    2,
    PROP_CONV_PVLAN_MAP_ETHER,
    kRebuiltFlag},
   {"com.ostrel.vswitch.pvlanMap",
    {"settings", "pvlans"},
    2,
    PROP_CONV_PVLAN_MAP_VSWITCH,
    kRebuiltFlag},
   {"com.ostrel.etherswitch.cdp",
    {"settings", "link_discovery_protocol"},
    2,
    PROP_CONV_LINK_DISCOVERY,
    kRebuiltFlag},
   {"com.ostrel.etherswitch.mirrorSessions",
    {"settings", "vspans"},
    2,
    PROP_CONV_MIRROR_SESSIONS,
    kRebuiltFlag},
   {"com.ostrel.vswitch.mirrorSessions",
    {"settings", "vspans"},
    2,
    PROP_CONV_MIRROR_SESSIONS,
    kRebuiltFlag},
   {"com.ostrel.common.portset.zlt", {"zlt_enabled"}, 1, PROP_CONV_ZLT_ENABLED, kRebuiltFlag},
   {"com.ostrel.etherswitch.ipfix", {"settings", "ipfix"}, 2, PROP_CONV_IPFIX, kRebuiltFlag},
   {"com.ostrel.etherswitch.multicastFilter",
    {"settings", "multicast_filtering_mode"},
    2,
    PROP_CONV_STRING,
    kRebuiltFlag},
   {"com.ostrel.vswitch.multicastFilter",
    {"settings", "multicast_filtering_mode"},
    2,
    PROP_CONV_STRING,
    kRebuiltFlag},
   // Listed twice: the lookup only ever finds the first, the load converts both.
   {"com.ostrel.etherswitch.multicastFilter",
    {"settings", "multicast_filtering_mode"},
    2,
    PROP_CONV_STRING,
    kRebuiltFlag},
   {"com.ostrel.common.vlanmtucheck.deploy",
    {"health_checks"},
    1,
    PROP_CONV_HEALTH_CHECK,
    kRebuiltFlag},
   {"com.ostrel.common.teamcheck.deploy",
    {"health_checks"},
    1,
    PROP_CONV_HEALTH_CHECK,
    kRebuiltFlag},
   {"com.ostrel.common.respools.cfg",
    {"resource_management", "traffic_resources"},
    2,
    PROP_CONV_RESPOOL_CONFIG,
    kRebuiltFlag},
   {"com.ostrel.common.respools.list",
    {"resource_management", "network_resource_pool_keys"},
    2,
    PROP_CONV_RESPOOL_KEY_LIST,
    kRebuiltFlag},
   {"com.ostrel.common.respools.sched",
    {"resource_management", "enable"},
    2,
    PROP_CONV_BOOL_BYTE,
    kRebuiltFlag},
   {"com.ostrel.common.respools.version",
    {"resource_management", "network_resource_control_version"},
    2,
    PROP_CONV_STRING,
    kRebuiltFlag},
   {"com.ostrel.common.resv.threshold",
    {"resource_management", "pnic_capacity_ratio_for_reservation"},
    2,
    PROP_CONV_UINT32,
    kRebuiltFlag},
   {"com.ostrel.vswitch.teaming",
    {"settings", "uplink_teaming_policy"},
    2,
    PROP_CONV_TEAMING_VSWITCH,
    kRebuiltFlag},
   {"DEFAULT", {"data"}, 1, PROP_CONV_OPAQUE_DATA, kRebuiltFlag},
   {nullptr, {}, 0, PROP_CONV_END, 0},
};

const PropConfigMapEntry dvsPortProp2Config[] = {
   {"com.ostrel.common.port.alias", {"name"}, 1, PROP_CONV_STRING, kRebuiltFlag},
   {"com.ostrel.common.port.connectid", {"connection_cookie"}, 1, PROP_CONV_UINT32, kRebuiltFlag},
   {"com.ostrel.common.port.block",
    {"settings", "blocked"},
    2,
    PROP_CONV_PORT_BOOL_TEXT,
    kRebuiltFlag},
   {"com.ostrel.common.port.ptAllowed",
    {"settings", "direct_io_gen2_allowed"},
    2,
    PROP_CONV_PT_ALLOWED,
    kRebuiltFlag},
   {"com.ostrel.etherswitch.port.txUplink",
    {"settings", "tx_uplink"},
    2,
    PROP_CONV_TX_UPLINK,
    kRebuiltFlag},
   {"com.ostrel.vswitch.port.txUplink",
    {"settings", "tx_uplink"},
    2,
    PROP_CONV_TX_UPLINK,
    kRebuiltFlag},
   {"com.ostrel.common.port.portgroupid", {"port_group_key"}, 1, PROP_CONV_STRING, kRebuiltFlag},
   {"com.ostrel.etherswitch.port.teaming",
    {"settings", "uplink_teaming_policy"},
    2,
    PROP_CONV_TEAMING_ETHER,
    kRebuiltFlag},
   {"com.ostrel.vswitch.port.teaming.policy",
    {"settings", "uplink_teaming_policy"},
    2,
    PROP_CONV_TEAMING_VSWITCH,
    kRebuiltFlag},
   {"com.ostrel.etherswitch.port.vlan",
    {"settings", "vlan"},
    2,
    PROP_CONV_VLAN_ETHER,
    kRebuiltFlag},
   {"com.ostrel.vswitch.port.vlan", {"settings", "vlan"}, 2, PROP_CONV_VLAN_VSWITCH, kRebuiltFlag},
   {"com.ostrel.etherswitch.port.ipfix",
    {"settings", "ipfix_enabled"},
    2,
    PROP_CONV_ENABLED_TEXT,
    kRebuiltFlag},
   {"com.ostrel.common.port.shaper.input",
    {"settings", "in_shaping_policy"},
    2,
    PROP_CONV_SHAPING,
    kRebuiltFlag},
   {"com.ostrel.common.port.shaper.output",
    {"settings", "out_shaping_policy"},
    2,
    PROP_CONV_SHAPING,
    kRebuiltFlag},
   {"com.ostrel.etherswitch.port.security",
    {"settings", "mac_management_policy"},
    2,
    PROP_CONV_SECURITY_ETHER,
    kRebuiltFlag},
   {"com.ostrel.vswitch.port.security",
    {"settings", "mac_management_policy"},
    2,
    PROP_CONV_SECURITY_VSWITCH,
    kRebuiltFlag},
   {"com.ostrel.common.port.dvfilter",
    {"settings", "filter_policy"},
    2,
    PROP_CONV_FILTER_POLICY,
    kRebuiltFlag},
   // The port's resource pools are rebuilt in a later step of the load.
   {"com.ostrel.common.port.respools.cfg",
    {"settings", "network_resource_pools"},
    2,
    PROP_CONV_SKIP,
    kRebuiltFlag},
   {"com.ostrel.common.port.backingType",
    {"settings", "backing_type"},
    2,
    PROP_CONV_STRING,
    kRebuiltFlag},
   {"com.ostrel.vswitch.port.priority",
    {"settings", "vlan", "priority"},
    3,
    PROP_CONV_UINT32,
    kRebuiltFlag},
   {"com.ostrel.vswitch.port.mirrorSessions",
    {"vspans"},
    1,
    PROP_CONV_MIRROR_SESSIONS,
    kRebuiltFlag},
   {"com.ostrel.etherswitch.port.mirrorSessions",
    {"vspans"},
    1,
    PROP_CONV_MIRROR_SESSIONS,
    kRebuiltFlag},
   {"com.ostrel.etherswitch.port.lacp",
    {"settings", "lacp_policy"},
    2,
    PROP_CONV_LACP_POLICY,
    kRebuiltFlag},
   {"DEFAULT", {"data"}, 1, PROP_CONV_PORT_OPAQUE_DATA, kRebuiltFlag},
   {nullptr, {}, 0, PROP_CONV_END, 0},
};

const PropConfigMapEntry dvsHostProp2Config[] = {
   {"com.ostrel.common.host.portset", {"portset_name"}, 1, PROP_CONV_STRING, kRebuiltFlag},
   {"com.ostrel.common.host.uplinkPorts",
    {"uplink_port_keys"},
    1,
    PROP_CONV_UPLINK_KEY_LIST,
    kRebuiltFlag},
   {"DEFAULT", {"data"}, 1, PROP_CONV_OPAQUE_DATA, kRebuiltFlag},
   {nullptr, {}, 0, PROP_CONV_END, 0},
};

// Indexed by property class, which is not the order of the definitions above.
const PropConfigMapEntry *const dvsConfigMaps[3] = {
   dvsGlobalProp2Config,
   dvsHostProp2Config,
   dvsPortProp2Config,
};

DVS_EXPORT const PropConfigMapEntry *GetConfigMap(int32_t propClass) {
   return dvsConfigMaps[propClass];
}

}  // extern "C"

namespace dvs::configstore {

namespace {

// The row the save uses for each name of one class's table, so that a
// lookup does not read every row ahead of it (rows are large and the
// names share long prefixes): the position of the first row of each name
// and of the first catch-all row.  Made once, on first use; an index that
// could not be made (no memory) leaves the lookup to scan.
class RowIndex {
  public:
   explicit RowIndex(uint32_t propClass) noexcept
       : table_(GetConfigMap(static_cast<int32_t>(propClass))) {
      const uint32_t catchAll =
         propClass == PROP_CLASS_PORT ? PROP_CONV_PORT_OPAQUE_DATA : PROP_CONV_OPAQUE_DATA;
      try {
         for (size_t i = 0; table_[i].propName != nullptr; i++) {
            firstOfName_.emplace(table_[i].propName, i);
            if (catchAll_ == kNone && table_[i].convType == catchAll) {
               catchAll_ = i;
            }
         }
         ready_ = true;
      } catch (...) {
         firstOfName_.clear();
      }
   }

   bool Ready() const { return ready_; }

   // The first row named propName or catch-all, whichever comes first.
   const PropConfigMapEntry *Find(const char *propName) const {
      const auto it = firstOfName_.find(propName);
      const size_t named = it != firstOfName_.end() ? it->second : kNone;
      const size_t row = named < catchAll_ ? named : catchAll_;
      return row == kNone ? nullptr : &table_[row];
   }

  private:
   // The names share long prefixes ("com.ostrel.vswitch.port...") and
   // differ near their ends, so the length and the last sixteen bytes tell
   // them apart as well as a hash of every byte does, for less.  Names that
   // agree there only share a bucket.
   struct NameHash {
      size_t operator()(std::string_view s) const noexcept {
         const size_t n = s.size();
         uint64_t a = 0, b = 0;
         if (n >= 8) {
            std::memcpy(&a, s.data() + (n >= 16 ? n - 16 : 0), sizeof a);
            std::memcpy(&b, s.data() + n - 8, sizeof b);
         } else {
            std::memcpy(&a, s.data(), n);
         }
         uint64_t h = (n + 1) * 0x9e3779b97f4a7c15ULL;
         h ^= a * 0xff51afd7ed558ccdULL;
         h = (h << 31) | (h >> 33);
         h ^= b * 0xc4ceb9fe1a85ec53ULL;
         return static_cast<size_t>(h ^ (h >> 29));
      }
   };

   static constexpr size_t kNone = SIZE_MAX;
   const PropConfigMapEntry *table_;
   std::unordered_map<std::string_view, size_t, NameHash> firstOfName_;
   size_t catchAll_ = kNone;
   bool ready_ = false;
};

const PropConfigMapEntry *ScanConfigMap(uint32_t propClass, const char *propName) {
   const uint32_t catchAll =
      propClass == PROP_CLASS_PORT ? PROP_CONV_PORT_OPAQUE_DATA : PROP_CONV_OPAQUE_DATA;
   for (const PropConfigMapEntry *row = GetConfigMap(static_cast<int32_t>(propClass));
        row->propName != nullptr; row++) {
      if (std::strcmp(row->propName, propName) == 0 || row->convType == catchAll) {
         return row;
      }
   }
   return nullptr;
}

}  // namespace

// Returns the row the save uses for propName: the first row of the class's
// table with that exact name, or else the class's catch-all row.  Returns
// null only if the table has no catch-all row ahead of its closing row.
const PropConfigMapEntry *FindConfigMapEntry(uint32_t propClass, const char *propName) {
   static const RowIndex indexes[] = {RowIndex(PROP_CLASS_GLOBAL), RowIndex(PROP_CLASS_HOST),
                                      RowIndex(PROP_CLASS_PORT)};
   static_assert(PROP_CLASS_PORT + 1 == sizeof indexes / sizeof indexes[0]);
   if (propClass > PROP_CLASS_PORT) {
      return nullptr;
   }
   const RowIndex &index = indexes[propClass];
   const PropConfigMapEntry *row =
      index.Ready() ? index.Find(propName) : ScanConfigMap(propClass, propName);
   if (row != nullptr && dvsconfigstore_debug > 0) {
      std::printf("Compare %s : %s success\n", propName, row->propName);
   }
   return row;
}

}  // namespace dvs::configstore
