// state_diff_properties.cc -- the conversions that explain a whole property's
// change: rows that share a store key, scalars kept in another form, rows the
// save leaves out or the load adds.
#include <algorithm>
#include <cstring>
#include <iterator>
#include <utility>

#include <dvsstate.h>

#include "configstore/property_layouts.h"
#include "state_diff_internal.h"

namespace dvsctl {
namespace diff {
namespace {

// Switches of versions above this one keep the vswitch private VLAN map.
using dvs::layouts::kLastEtherPvlanVersion;

constexpr const char *kVersionProp = "com.ostrel.common.version";
constexpr const char *kPortsetMtu = "com.ostrel.common.portset.mtu";
constexpr const char *kVswitchMtu = "com.ostrel.vswitch.mtu";
constexpr const char *kEtherMtu = "com.ostrel.etherswitch.mtu";
constexpr const char *kPools = "com.ostrel.common.respools.cfg";
constexpr const char *kPortPools = "com.ostrel.common.port.respools.cfg";
constexpr const char *kUplinkKeys = "com.ostrel.common.host.uplinkPorts";
constexpr const char *kPortIpfix = "com.ostrel.etherswitch.port.ipfix";
constexpr const char *kPriority = "com.ostrel.vswitch.port.priority";

struct SiblingRows {
   ListKind list;
   const char *ether;
   const char *vswitch;
   bool vswitchSavedAlways;  // else only on vswitch and cswitch switches
};

constexpr SiblingRows kSiblingRows[] = {
   {ListKind::kPort, "com.ostrel.etherswitch.port.teaming",
    "com.ostrel.vswitch.port.teaming.policy", false},
   {ListKind::kPort, "com.ostrel.etherswitch.port.vlan", "com.ostrel.vswitch.port.vlan", false},
   {ListKind::kPort, "com.ostrel.etherswitch.port.security", "com.ostrel.vswitch.port.security",
    true},
   {ListKind::kPort, "com.ostrel.etherswitch.port.txUplink", "com.ostrel.vswitch.port.txUplink",
    true},
   {ListKind::kGlobal, "com.ostrel.etherswitch.multicastFilter",
    "com.ostrel.vswitch.multicastFilter", true},
   {ListKind::kGlobal, "com.ostrel.etherswitch.pvlanMap", "com.ostrel.vswitch.pvlanMap", true},
};

constexpr std::pair<const char *, const char *> kMirrorRows[] = {
   {"com.ostrel.etherswitch.mirrorSessions", "com.ostrel.vswitch.mirrorSessions"},
   {"com.ostrel.etherswitch.port.mirrorSessions", "com.ostrel.vswitch.port.mirrorSessions"},
};

constexpr const char *kBoolTexts[] = {
   "com.ostrel.common.opaqueDvs", "com.ostrel.common.portset.zlt", "com.ostrel.common.port.block"};
constexpr const char *kTextRows[] = {
   DVS_PROP_SWITCH_ALIAS,
   "com.ostrel.common.port.alias",
   "com.ostrel.common.port.portgroupid",
   "com.ostrel.common.port.backingType",
   "com.ostrel.common.host.portset",
   "com.ostrel.common.respools.version",
   "com.ostrel.etherswitch.multicastFilter",
   "com.ostrel.vswitch.multicastFilter",
};

bool OneOf(const std::string &name, std::initializer_list<const char *> names) {
   return std::any_of(names.begin(), names.end(), [&](const char *n) { return name == n; });
}

template <size_t N>
bool OneOf(const std::string &name, const char *const (&names)[N]) {
   return std::any_of(std::begin(names), std::end(names), [&](const char *n) { return name == n; });
}

bool IsMtu(const std::string &name) {
   return OneOf(name, {kPortsetMtu, kVswitchMtu, kEtherMtu});
}

Bytes TextBytes(const std::string &s) {
   Bytes b(s.begin(), s.end());
   b.push_back(0);
   return b;
}

Bytes U32Bytes(uint32_t v) {
   Bytes b(sizeof v);
   std::memcpy(b.data(), &v, sizeof v);
   return b;
}

// The values of the mtu properties before.
bool MtuValueBefore(const ListPair &l, const Bytes &value) {
   return std::any_of(l.before.begin(), l.before.end(),
                      [&](const HostProp &p) { return IsMtu(p.name) && p.value == value; });
}

bool SwitchPools(const ListPair &l, const Bytes &value) {
   const HostProp *pools = FindProp(l.sw.after.global, kPools);
   return l.uplinkPort && pools != nullptr && pools->value == value;
}

// A table that holds no entries: the save writes nothing for it.
bool EmptyTable(const ListPair &l, const HostProp &p) {
   const std::optional<CodecKind> kind = CodecFor(p.name);
   Fields f;
   std::string why;
   if (!kind || !DecodeProperty(*kind, p.value, {l.sw.before.version}, f, why)) {
      return false;
   }
   for (const char *list : {"groups", "sessions", "names"}) {
      const Fields &v = MemberOr(f, list);
      if (v.is_array()) {
         return v.empty();
      }
   }
   return false;
}

}  // namespace

const HostProp *FindProp(const std::vector<HostProp> &props, const std::string &name) {
   for (const HostProp &p : props) {
      if (p.name == name) {
         return &p;
      }
   }
   return nullptr;
}

SwitchPair PairSwitches(const HostSwitch &b, const HostSwitch &a) {
   SwitchPair sw{b, a, false, false, false, {}};
   sw.vswitchClass = b.className == "vswitch";
   sw.family = sw.vswitchClass || b.className == "cswitch";
   sw.pvlanVswitchForm = b.className == "cswitch" || a.version > kLastEtherPvlanVersion;
   if (const HostProp *keys = FindProp(a.host, kUplinkKeys)) {
      Fields f;
      std::string why;
      if (DecodeProperty(CodecKind::kUplinkKeys, keys->value, {}, f, why)) {
         for (const Fields &name : f["names"]) {
            sw.uplinkKeys.push_back(name.get<std::string>());
         }
      }
   }
   return sw;
}

const Conversion *ClassifyVersion(const SwitchPair &sw) {
   const HostProp *prop = FindProp(sw.before.global, kVersionProp);
   return ConvIf(prop != nullptr && prop->value == U32Bytes(sw.after.version),
                 "version-from-property");
}

bool LoadedSibling(const ListPair &l, const std::string &name, std::string &loaded, bool &saved) {
   for (const SiblingRows &rows : kSiblingRows) {
      if (rows.list != l.kind || (name != rows.ether && name != rows.vswitch)) {
         continue;
      }
      const bool pvlan = std::strcmp(rows.ether, "com.ostrel.etherswitch.pvlanMap") == 0;
      const bool vswitchForm = pvlan ? l.sw.pvlanVswitchForm : l.sw.family;
      saved = name == rows.ether || rows.vswitchSavedAlways || l.sw.family;
      loaded = vswitchForm ? rows.vswitch : rows.ether;
      return true;
   }
   return false;
}

const Conversion *ClassifyScalar(const ListPair &l, const HostProp &b, const HostProp &a) {
   const std::string &n = a.name;
   if (OneOf(n, kBoolTexts)) {
      const bool isTrue = b.value == TextBytes("true");
      return ConvIf(a.value == TextBytes(isTrue ? "true" : "false"), "bool-text");
   }
   if (n == "com.ostrel.etherswitch.port.txUplink" || n == "com.ostrel.vswitch.port.txUplink") {
      const bool always = b.value == TextBytes("always");
      return ConvIf(a.value == TextBytes(always ? "always" : "normal"), "tx-uplink-text");
   }
   if (n == "com.ostrel.common.port.ptAllowed") {
      return ConvIf(b.value != U32Bytes(2) && a.value == U32Bytes(0), "pt-allowed");
   }
   if (n == "com.ostrel.common.respools.sched") {
      return ConvIf(!b.value.empty() && b.value[0] > 1 && a.value == Bytes{1}, "bool-byte");
   }
   if (IsMtu(n)) {
      return ConvIf(MtuValueBefore(l, a.value), "mtu-shared-key");
   }
   if (n == kPortPools) {
      return ConvIf(SwitchPools(l, a.value), "port-pools-uplink-only");
   }
   if (OneOf(n, kTextRows)) {
      const auto nul = std::find(b.value.begin(), b.value.end(), 0);
      return ConvIf(a.value == TextBytes(std::string(b.value.begin(), nul)), "text-end");
   }
   return nullptr;
}

const Conversion *ClassifyLost(const ListPair &l, const HostProp &b) {
   const std::string &n = b.name;
   if (n.find(".volatile.") != std::string::npos) {
      return Conv("volatile");
   }
   if (l.kind == ListKind::kPort && n == kPortPools) {
      return ConvIf(!l.uplinkPort, "port-pools-uplink-only");
   }
   if (n == kPortIpfix) {
      return ConvIf(b.value != TextBytes("enabled"), "enabled-text");
   }
   std::string loaded;
   bool saved = true;
   if (LoadedSibling(l, n, loaded, saved)) {
      if (!saved) {
         return Conv("vswitch-row-not-saved");
      }
      if (loaded != n && FindProp(l.after, loaded) != nullptr) {
         return Conv("rows-share-key");
      }
   }
   if (n == "com.ostrel.vswitch.teaming" && !l.sw.family) {
      return Conv("vswitch-row-not-saved");
   }
   if (IsMtu(n) && FindProp(l.after, kPortsetMtu) != nullptr) {
      const bool loaded = n == kPortsetMtu || (n == kVswitchMtu && l.sw.vswitchClass) ||
                          (n == kEtherMtu && !l.sw.family);
      return ConvIf(!loaded, "mtu-shared-key");
   }
   return ConvIf(EmptyTable(l, b), "empty-not-saved");
}

const Conversion *ClassifyAdded(const ListPair &l, const HostProp &a) {
   const std::string &n = a.name;
   if (l.kind == ListKind::kGlobal && n == DVS_PROP_SWITCH_ALIAS) {
      return ConvIf(a.value == TextBytes(l.sw.before.id), "alias-from-id");
   }
   if (IsMtu(n)) {
      return ConvIf(MtuValueBefore(l, a.value), "mtu-shared-key");
   }
   if (n == kPortPools) {
      return ConvIf(SwitchPools(l, a.value), "port-pools-uplink-only");
   }
   for (const auto &[ether, vswitch] : kMirrorRows) {
      if (n == ether || n == vswitch) {
         const std::string other = n == ether ? vswitch : ether;
         const HostProp *sibling = FindProp(l.after, other);
         return ConvIf(
            FindProp(l.before, other) != nullptr && sibling != nullptr && sibling->value == a.value,
            "mirror-rows-share-key");
      }
   }
   if (n == "com.ostrel.etherswitch.port.vlan" || n == "com.ostrel.vswitch.port.vlan") {
      const bool priorityAlone =
         FindProp(l.before, kPriority) != nullptr &&
         FindProp(l.before, "com.ostrel.etherswitch.port.vlan") == nullptr &&
         FindProp(l.before, "com.ostrel.vswitch.port.vlan") == nullptr;
      return ConvIf(priorityAlone && a.value == Bytes(8, 0), "vlan-from-priority");
   }
   return nullptr;
}

}  // namespace diff
}  // namespace dvsctl
