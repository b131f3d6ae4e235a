// state_diff.cc -- two hosts' switch state compared property by property.
#include "state_diff.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <map>
#include <optional>
#include <set>
#include <sstream>
#include <string_view>
#include <utility>

#include <dvsdata.h>
#include <dvsstate.h>

#include "error.h"
#include "property_codecs.h"
#include "property_list.h"

namespace dvsctl {
namespace {

// The flag every property rebuilt from the store carries.
constexpr uint32_t kLoadedFlag = 0x10;
constexpr uint32_t kEveryType = 0xFFFFFFFF;
constexpr uint32_t kPacketLengthNotSet = 0xFFFFFFFF;
// Switches of versions above this one keep the vswitch private VLAN map.
constexpr uint32_t kLastEtherPvlanVersion = 106;

constexpr const char *kAlias = "com.ostrel.common.alias";
constexpr const char *kVersionProp = "com.ostrel.common.version";
constexpr const char *kPortsetMtu = "com.ostrel.common.portset.mtu";
constexpr const char *kVswitchMtu = "com.ostrel.vswitch.mtu";
constexpr const char *kEtherMtu = "com.ostrel.etherswitch.mtu";
constexpr const char *kPools = "com.ostrel.common.respools.cfg";
constexpr const char *kPortPools = "com.ostrel.common.port.respools.cfg";
constexpr const char *kUplinkKeys = "com.ostrel.common.host.uplinkPorts";
constexpr const char *kPortIpfix = "com.ostrel.etherswitch.port.ipfix";
constexpr const char *kPriority = "com.ostrel.vswitch.port.priority";

// ---- the documented conversions ----------------------------------------------

const std::vector<Conversion> kConversions = {
   // Every property, and the persistent state the save starts from.
   {"flag", "every property", "comes back with flag 0x10: the store keeps no flags"},
   {"volatile", "properties named \"*.volatile.*\"",
    "not saved: the save takes the kernel's persistent state"},
   {"port-not-persisted", "ports that are not active", "not saved: only active ports persist"},
   {"version-from-property", "switch version",
    "the store keeps com.ostrel.common.version; the switch's version comes back as its value"},
   {"alias-from-id", "com.ostrel.common.alias",
    "a switch without an alias is stored under its id, which comes back as its alias"},
   // Scalars.
   {"bool-text", "opaqueDvs, portset.zlt, port.block",
    "kept as a boolean: any text but \"true\" comes back \"false\""},
   {"tx-uplink-text", "port.txUplink",
    "kept as a boolean: any text but \"always\" comes back \"normal\""},
   {"enabled-text", "etherswitch.port.ipfix",
    "kept as a boolean: a text other than \"enabled\" does not come back"},
   {"pt-allowed", "port.ptAllowed", "kept as a boolean: any value but 2 comes back 0"},
   {"bool-byte", "respools.sched, boolean bytes of structured values",
    "kept as a boolean: a non-zero byte comes back 1"},
   {"text-end", "text properties", "bytes after the NUL are not kept; a missing NUL is added"},
   {"name-cut", "name lists", "a name that fills its whole record comes back one shorter"},
   // Rows that share a store key.
   {"mtu-shared-key", "the three mtu properties",
    "one store key: the port-set mtu and the class's own come back with the value saved last"},
   {"rows-share-key", "etherswitch/vswitch property pairs",
    "one store key: of two properties set, only the one the switch's class loads comes back"},
   {"family-row-renamed", "port teaming, vlan, security, txUplink; multicastFilter",
    "one store key for both: the load names it after the switch's class family"},
   {"pvlan-form", "pvlanMap",
    "one store list for both: the vswitch form loads for cswitch and versions above 106, "
    "the etherswitch form for the others"},
   {"vswitch-row-not-saved", "vswitch teaming and port vlan",
    "saved only on switches of the vswitch and cswitch classes"},
   {"mirror-rows-share-key", "the two mirrorSessions properties of a switch or port",
    "one store list: both come back from it"},
   {"port-pools-uplink-only", "port.respools.cfg",
    "rebuilt from the switch's pools, on uplink ports only"},
   {"vlan-from-priority", "port vlan",
    "a priority alone makes the VLAN object, which comes back as plain VLAN 0"},
   {"empty-not-saved", "LACP groups, mirror sessions, name lists",
    "nothing is written for an empty table, so none comes back"},
   {"reserved-zeroed", "reserved bytes of structured values", "not stored; come back zero"},
   // Teaming.
   {"teaming-policy-4-5", "teaming policy",
    "codes 4 and 5 come back as 5 and 4: their store texts map back crosswise"},
   {"teaming-policy-no-text", "teaming policy 0, 6 and above", "no store text; comes back 0"},
   {"teaming-criteria-present", "teaming failureFlags 0x200",
    "set on load when failure_criteria exists, which every save writes"},
   {"teaming-failure-bits", "teaming failureFlags but 0x20, 0x80",
    "only beacon and link-state checks are stored"},
   {"teaming-criteria-values", "teaming percentage, fullDuplex, speed",
    "written into failure_criteria but read from the policy object: come back 0"},
   {"teaming-speed-8-bits", "teaming speed", "where it is read, only its low 8 bits are kept"},
   {"teaming-flag-bits", "teaming teamingFlags but 0x02-0x20", "not stored"},
   // Mirror sessions.
   {"mirror-packet-length", "mirror mirroredPacketLength",
    "only \"not set\" is written: any other length comes back 0xffffffff"},
   {"mirror-legacy-inverted", "mirror sessionFlags 0x10", "legacy_mode is read back inverted"},
   {"mirror-no-normal-traffic", "mirror sessionFlags 0x02", "set with 0x01 on load"},
   {"mirror-encap-vlan-flag", "mirror sessionFlags 0x08",
    "set on load when the encapsulation VLAN id is not 0"},
   {"mirror-flag-bits", "mirror sessionFlags above 0x20", "not stored"},
   {"mirror-wildcard-bits", "mirror wildcard types but 0x01, 0x02, 0x08", "not stored"},
   {"mirror-vlans-not-read", "mirror sources of a remote mirror destination",
    "VLANs are written but not read back"},
   {"mirror-addresses-not-read", "mirror destinations of an encapsulated remote source",
    "addresses are written but not read back"},
   {"mirror-destination-order", "mirror destinations of a mixed-destination session",
    "port keys come back before uplink names"},
   {"mirror-port-kind", "mirror port entry kind",
    "an entry comes back with the kind of the store list it is kept in"},
   {"mirror-header", "mirror table magic and version",
    "the load writes magic 0xfacebeef and version 1"},
   // The other structured values.
   {"ipfix-ipv4-tail", "ipfix collector address", "only the 4 bytes of an IPv4 address are stored"},
   {"health-check-enable", "health check enable",
    "written as \"enable\" but read from \"enabled\": comes back 0"},
   {"pvlan-trailing", "pvlanMap", "bytes after the last whole entry are not stored"},
   {"vlan-empty-trunk", "port vlan trunk without ranges", "comes back as plain VLAN 0"},
   {"vlan-trunk-id", "port vlan vlanId of a trunk", "not stored"},
   {"vlan-flag-bits", "port vlan flags", "only trunk or private is stored; a trunk drops 0x2"},
   {"security-bits", "port security reject bits but 0x1, 0x2, 0x4", "not stored"},
};

const Conversion *Conv(const char *id) {
   for (const Conversion &c : kConversions) {
      if (std::strcmp(c.id, id) == 0) {
         return &c;
      }
   }
   throw Error(std::string("no documented conversion \"") + id + "\"");
}

const Conversion *ConvIf(bool matches, const char *id) {
   return matches ? Conv(id) : nullptr;
}

// ---- reading host blobs --------------------------------------------------------

std::vector<HostProp> ReadProps(const Bytes &blob, const std::string &what) {
   ListPtr list;
   const ReturnStatus status = DecodeList(blob, kEveryType, list);
   if (status != STATUS_OK) {
      throw DecodeError(what, blob, status);
   }
   std::vector<HostProp> out;
   for (const DVSDataEntry *e = list->head; e != nullptr; e = e->next) {
      out.push_back({e->name, e->flag, Bytes(e->data, e->data + e->dataLen)});
   }
   return out;
}

uint32_t U32Field(const HostProp &p, const std::string &what) {
   uint32_t v = 0;
   if (p.value.size() != sizeof v) {
      throw Error(what + ": " + p.name + " is " + std::to_string(p.value.size()) + " bytes, not 4");
   }
   std::memcpy(&v, p.value.data(), sizeof v);
   return v;
}

HostSwitch ReadSwitch(const HostProp &record, const std::string &name) {
   HostSwitch sw;
   sw.id = record.name;
   const std::string what = name + ": switch " + sw.id;
   std::set<std::string> seen;
   std::map<std::string, int> portCount;
   for (HostProp &p : ReadProps(record.value, what)) {
      if (p.name == "switchVersion") {
         sw.version = U32Field(p, what);
      } else if (p.name == "maxPorts") {
         sw.maxPorts = U32Field(p, what);
      } else if (p.name == "className") {
         const void *nul = std::memchr(p.value.data(), '\0', p.value.size());
         if (nul == nullptr) {
            throw Error(what + ": className is not terminated");
         }
         sw.className.assign(reinterpret_cast<const char *>(p.value.data()),
                             static_cast<const uint8_t *>(nul) - p.value.data());
      } else if (p.name == "globalPropList") {
         sw.global = ReadProps(p.value, what + " global properties");
      } else if (p.name == "hostPropList") {
         sw.host = ReadProps(p.value, what + " host properties");
      } else {
         const int n = ++portCount[p.name];
         HostPort port{n == 1 ? p.name : p.name + "#" + std::to_string(n), {}};
         port.props = ReadProps(p.value, what + " port " + p.name);
         sw.ports.push_back(std::move(port));
         continue;
      }
      seen.insert(p.name);
   }
   for (const char *field :
        {"switchVersion", "className", "maxPorts", "globalPropList", "hostPropList"}) {
      if (seen.count(field) == 0) {
         throw Error(what + ": no " + field + " record, not a switch blob");
      }
   }
   return sw;
}

// ---- showing values -------------------------------------------------------------

std::string Hex32(uint32_t v) {
   char text[16];
   std::snprintf(text, sizeof text, "0x%x", v);
   return text;
}

std::string ShowBytes(const Bytes &v) {
   const bool text =
      !v.empty() && v.back() == 0 &&
      std::all_of(v.begin(), v.end() - 1, [](uint8_t c) { return c >= 0x20 && c < 0x7f; });
   if (text) {
      return "\"" + std::string(v.begin(), v.end() - 1) + "\"";
   }
   static const char kDigits[] = "0123456789abcdef";
   constexpr size_t kShown = 32;
   std::string out;
   for (size_t i = 0; i < v.size() && i < kShown; i++) {
      out += kDigits[v[i] >> 4];
      out += kDigits[v[i] & 0xf];
   }
   if (v.size() > kShown) {
      out += "... (" + std::to_string(v.size()) + " bytes)";
   }
   return v.empty() ? "(empty)" : out;
}

std::string ShowField(const Fields &f) {
   if (f.is_null()) {
      return "(absent)";
   }
   std::string text = f.dump(-1, ' ', false, Fields::error_handler_t::replace);
   constexpr size_t kShown = 160;
   if (text.size() > kShown) {
      text = text.substr(0, kShown) + "...";
   }
   return text;
}

// ---- field by field ----------------------------------------------------------------

// Flag words compared bit by bit.
const std::set<std::string> kBitFields = {
   "failureFlags",          "teamingFlags", "sessionFlags", "recvWildcardTypes",
   "transmitWildcardTypes", "flags",        "rejectBits"};
// Lists compared as a whole: their entries move between positions.
const std::set<std::string> kWholeLists = {"destination", "receive", "transmit"};

const Fields kNull;

struct FieldChange {
   std::string path;
   std::string key;  // the last member name on the path
   Fields before;    // null when absent
   Fields after;
   uint64_t bit = 0;  // the single bit of a flag word that changed
   const Fields *beforeParent = &kNull;
   const Fields *afterParent = &kNull;
};

const Fields &MemberOr(const Fields &obj, const std::string &key) {
   if (obj.is_object()) {
      const auto it = obj.find(key);
      if (it != obj.end()) {
         return *it;
      }
   }
   return kNull;
}

uint64_t NumberOr(const Fields &obj, const std::string &key, uint64_t fallback = 0) {
   const Fields &v = MemberOr(obj, key);
   return v.is_number_unsigned() ? v.get<uint64_t>() : fallback;
}

void DiffFields(const std::string &path, const std::string &key, const Fields &b, const Fields &a,
                const Fields &bp, const Fields &ap, std::vector<FieldChange> &out) {
   if (b == a) {
      return;
   }
   auto join = [&](const std::string &k) { return path.empty() ? k : path + "." + k; };
   if (b.is_object() && a.is_object()) {
      for (const auto &[k, v] : b.items()) {
         DiffFields(join(k), k, v, MemberOr(a, k), b, a, out);
      }
      for (const auto &[k, v] : a.items()) {
         if (!b.contains(k)) {
            DiffFields(join(k), k, kNull, v, b, a, out);
         }
      }
      return;
   }
   if (b.is_array() && a.is_array() && b.size() == a.size() && kWholeLists.count(key) == 0) {
      for (size_t i = 0; i < b.size(); i++) {
         DiffFields(path + "[" + std::to_string(i) + "]", key, b[i], a[i], bp, ap, out);
      }
      return;
   }
   if (kBitFields.count(key) != 0 && b.is_number_unsigned() && a.is_number_unsigned()) {
      const uint64_t x = b.get<uint64_t>(), y = a.get<uint64_t>();
      for (uint64_t bit = 1; bit != 0 && bit <= (x | y); bit <<= 1) {
         if (((x ^ y) & bit) != 0) {
            out.push_back({path + "&" + Hex32(static_cast<uint32_t>(bit)), key, (x & bit) != 0,
                           (y & bit) != 0, bit, &bp, &ap});
         }
      }
      return;
   }
   out.push_back({path, key, b, a, 0, &bp, &ap});
}

bool Num(const Fields &f, uint64_t *v) {
   if (!f.is_number_unsigned()) {
      return false;
   }
   *v = f.get<uint64_t>();
   return true;
}

// A bit that was set and is clear now.
bool Cleared(const FieldChange &c) {
   return c.bit != 0 && c.before == true && c.after == false;
}

// A byte that stands for a boolean, non-zero before and 1 after.
bool BoolByte(const FieldChange &c) {
   uint64_t b = 0, a = 0;
   return Num(c.before, &b) && Num(c.after, &a) && b > 1 && a == 1;
}

bool BecameZero(const FieldChange &c) {
   uint64_t a = 1;
   return Num(c.after, &a) && a == 0;
}

const Conversion *ClassifyTeaming(const FieldChange &c) {
   uint64_t b = 0, a = 0;
   const bool nums = Num(c.before, &b) && Num(c.after, &a);
   if (c.key == "policy" && nums) {
      if ((b == 4 && a == 5) || (b == 5 && a == 4)) {
         return Conv("teaming-policy-4-5");
      }
      return ConvIf((b == 0 || b >= 6) && a == 0, "teaming-policy-no-text");
   }
   if (c.key == "failureFlags") {
      if (c.bit == 0x200) {
         return ConvIf(c.after == true, "teaming-criteria-present");
      }
      return ConvIf(Cleared(c) && c.bit != 0x20 && c.bit != 0x80, "teaming-failure-bits");
   }
   if (c.key == "percentage" || c.key == "fullDuplex") {
      return ConvIf(BecameZero(c), "teaming-criteria-values");
   }
   if (c.key == "speed" && nums) {
      if (a == 0) {
         return Conv("teaming-criteria-values");
      }
      return ConvIf(a == (b & 0xff), "teaming-speed-8-bits");
   }
   if (c.key == "teamingFlags") {
      return ConvIf(Cleared(c) && (c.bit & 0x3e) == 0, "teaming-flag-bits");
   }
   return nullptr;
}

// The port entries of one side of a mirror session as a load gives them
// back, by the store list each is kept in.
Fields MirrorPortsAfterLoad(uint64_t sessionType, const std::string &side, const Fields &before) {
   Fields keys = Fields::array(), uplinks = Fields::array();
   auto entry = [](uint32_t kind, const Fields &e) {
      return Fields{{"kind", kind}, {"text", MemberOr(e, "text")}};
   };
   const bool destination = side == "destination";
   if ((destination && sessionType == 4) || (!destination && sessionType == 3)) {
      return keys;  // VLANs and addresses are not read back
   }
   for (const Fields &e : before) {
      const uint64_t kind = NumberOr(e, "kind", UINT64_MAX);
      if (destination && sessionType == 0) {
         if (kind == 0) {
            keys.push_back(entry(0, e));
         } else if (kind == 1) {
            uplinks.push_back(entry(1, e));
         }
      } else if (destination && sessionType == 2) {
         uplinks.push_back(entry(1, e));
      } else {
         keys.push_back(entry(0, e));
      }
   }
   for (Fields &u : uplinks) {
      keys.push_back(std::move(u));
   }
   return keys;
}

const Conversion *ClassifyMirror(const FieldChange &c) {
   uint64_t b = 0, a = 0;
   const bool nums = Num(c.before, &b) && Num(c.after, &a);
   if (c.key == "magic" || c.key == "version") {
      return ConvIf(nums && a == (c.key == "magic" ? 0xFACEBEEF : 1), "mirror-header");
   }
   if (c.key == "reserved") {
      return ConvIf(c.after.is_null(), "reserved-zeroed");
   }
   if (c.key == "mirroredPacketLength") {
      return ConvIf(nums && b != kPacketLengthNotSet && a == kPacketLengthNotSet,
                    "mirror-packet-length");
   }
   if (c.key == "sessionFlags") {
      const uint64_t after = NumberOr(*c.afterParent, "sessionFlags");
      switch (c.bit) {
         case 0x10:
            return Conv("mirror-legacy-inverted");
         case 0x02:
            return ConvIf((c.after == true) == ((after & 0x01) != 0), "mirror-no-normal-traffic");
         case 0x08:
            return ConvIf(
               (c.after == true) == (NumberOr(*c.afterParent, "encapsulationVlanId") != 0),
               "mirror-encap-vlan-flag");
         default:
            return ConvIf(Cleared(c) && c.bit > 0x20, "mirror-flag-bits");
      }
   }
   if (c.key == "recvWildcardTypes" || c.key == "transmitWildcardTypes") {
      return ConvIf(Cleared(c) && (c.bit & 0x0b) == 0, "mirror-wildcard-bits");
   }
   if (c.key == "erspanGraNanosec") {
      return ConvIf(BoolByte(c), "bool-byte");
   }
   if (kWholeLists.count(c.key) != 0 && c.before.is_array()) {
      const uint64_t type = NumberOr(*c.beforeParent, "sessionType", UINT64_MAX);
      if (c.after != MirrorPortsAfterLoad(type, c.key, c.before)) {
         return nullptr;
      }
      const bool destination = c.key == "destination";
      if (destination && type == 4) {
         return Conv("mirror-addresses-not-read");
      }
      if (!destination && type == 3) {
         return Conv("mirror-vlans-not-read");
      }
      return Conv(destination && type == 0 ? "mirror-destination-order" : "mirror-port-kind");
   }
   return nullptr;
}

const Conversion *ClassifyVlan(const FieldChange &c) {
   const uint64_t flags = NumberOr(*c.beforeParent, "flags");
   const bool trunk = (flags & 0x1) != 0;
   const bool ranges = !MemberOr(*c.beforeParent, "ranges").empty();
   if (c.key == "reserved") {
      return ConvIf(c.after.is_null(), "reserved-zeroed");
   }
   if (c.key == "vlanId") {
      return ConvIf(trunk && BecameZero(c), "vlan-trunk-id");
   }
   if (c.key == "flags" && Cleared(c)) {
      if (c.bit == 0x1) {
         return ConvIf(!ranges, "vlan-empty-trunk");
      }
      if (c.bit == 0x2) {
         return ConvIf(trunk, ranges ? "vlan-flag-bits" : "vlan-empty-trunk");
      }
      return Conv("vlan-flag-bits");
   }
   return nullptr;
}

const Conversion *ClassifyField(CodecKind kind, const FieldChange &c) {
   switch (kind) {
      case CodecKind::kTeaming:
         return ClassifyTeaming(c);
      case CodecKind::kMirrorSessions:
         return ClassifyMirror(c);
      case CodecKind::kPortVlan:
         return ClassifyVlan(c);
      case CodecKind::kLacpPolicy:
         if (c.key == "enabled") {
            return ConvIf(BoolByte(c), "bool-byte");
         }
         return ConvIf(c.key == "reserved" && c.after.is_null(), "reserved-zeroed");
      case CodecKind::kPvlanMap:
         if (c.key == "trailing") {
            return ConvIf(c.after.is_null(), "pvlan-trailing");
         }
         return ConvIf(c.key == "reserved" && c.after.is_null(), "reserved-zeroed");
      case CodecKind::kIpfix:
         if (c.key == "internalFlowsOnly" || c.key == "collectorIsIpv6") {
            return ConvIf(BoolByte(c), "bool-byte");
         }
         return ConvIf(c.key == "addressTail" && c.after.is_null(), "ipfix-ipv4-tail");
      case CodecKind::kHealthCheck:
         return ConvIf(c.key == "enable" && BecameZero(c), "health-check-enable");
      case CodecKind::kSecurity:
         return ConvIf(Cleared(c) && c.bit > 0x4, "security-bits");
      case CodecKind::kUplinkNames:
      case CodecKind::kUplinkKeys:
      case CodecKind::kResPoolKeys: {
         const bool cut = c.before.is_string() && c.after.is_string() &&
                          c.after.get<std::string>().size() < c.before.get<std::string>().size() &&
                          c.before.get<std::string>().rfind(c.after.get<std::string>(), 0) == 0;
         return ConvIf(cut, "name-cut");
      }
      default:
         return nullptr;
   }
}

// ---- rows that share a store key -----------------------------------------------------

enum class ListKind { kGlobal, kHost, kPort };

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
   kAlias,
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

const HostProp *FindProp(const std::vector<HostProp> &props, const std::string &name) {
   for (const HostProp &p : props) {
      if (p.name == name) {
         return &p;
      }
   }
   return nullptr;
}

// ---- the comparison ---------------------------------------------------------------------

struct SwitchPair {
   const HostSwitch &before;
   const HostSwitch &after;
   bool family = false;        // class "vswitch" or "cswitch"
   bool vswitchClass = false;  // class "vswitch"
   bool pvlanVswitchForm = false;
   std::vector<std::string> uplinkKeys;  // the ports the load gives the switch's pools
};

struct ListPair {
   const SwitchPair &sw;
   ListKind kind;
   std::string label;  // "global", "host", "port ID"
   const std::vector<HostProp> &before;
   const std::vector<HostProp> &after;
   bool uplinkPort = false;
};

class Differ {
  public:
   DiffReport Run(const HostState &before, const HostState &after) {
      std::set<std::string> seen;
      for (const HostSwitch &b : before.switches) {
         const auto it = std::find_if(after.switches.begin(), after.switches.end(),
                                      [&](const HostSwitch &s) { return s.id == b.id; });
         seen.insert(b.id);
         if (it == after.switches.end()) {
            Add({b.id, "switch", "switch", "", "present", "(absent)", nullptr});
            continue;
         }
         CompareSwitch(b, *it);
      }
      for (const HostSwitch &a : after.switches) {
         if (seen.count(a.id) == 0) {
            Add({a.id, "switch", "switch", "", "(absent)", "present", nullptr});
         }
      }
      return std::move(report_);
   }

  private:
   void Add(Difference d) {
      if (d.conversion == nullptr) {
         report_.summary.unexpected++;
      } else {
         report_.summary.byConversion[d.conversion->id]++;
      }
      report_.differences.push_back(std::move(d));
   }

   // Adds the differences of one property and counts the property.
   void Tally(std::vector<Difference> diffs) {
      DiffSummary &s = report_.summary;
      s.properties++;
      const bool unexpected =
         std::any_of(diffs.begin(), diffs.end(), [](const Difference &d) { return !d.conversion; });
      const bool flagOnly = diffs.size() == 1 && diffs[0].conversion == Conv("flag");
      if (diffs.empty()) {
         s.identical++;
      } else if (flagOnly) {
         s.flagOnly++;
      } else if (unexpected) {
         s.unexpectedProps++;
      } else {
         s.documentedOnly++;
      }
      for (Difference &d : diffs) {
         Add(std::move(d));
      }
   }

   void CompareSwitch(const HostSwitch &b, const HostSwitch &a) {
      report_.summary.switches++;
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
      if (b.version != a.version) {
         const HostProp *prop = FindProp(b.global, kVersionProp);
         const bool fromProp = prop != nullptr && prop->value == U32Bytes(a.version);
         Add({b.id, "switch", "version", "", std::to_string(b.version), std::to_string(a.version),
              ConvIf(fromProp, "version-from-property")});
      }
      if (b.className != a.className) {
         Add({b.id, "switch", "className", "", b.className, a.className, nullptr});
      }
      if (b.maxPorts != a.maxPorts) {
         Add({b.id, "switch", "maxPorts", "", std::to_string(b.maxPorts),
              std::to_string(a.maxPorts), nullptr});
      }
      CompareList({sw, ListKind::kGlobal, "global", b.global, a.global});
      CompareList({sw, ListKind::kHost, "host", b.host, a.host});
      std::set<std::string> seen;
      for (const HostPort &bp : b.ports) {
         seen.insert(bp.id);
         const auto it = std::find_if(a.ports.begin(), a.ports.end(),
                                      [&](const HostPort &p) { return p.id == bp.id; });
         if (it == a.ports.end()) {
            const bool active = FindProp(bp.props, DVS_PROP_PORT_TYPE) == nullptr;
            Add({b.id, "port " + bp.id, "port", "", "present", "(absent)",
                 ConvIf(!active, "port-not-persisted")});
            continue;
         }
         report_.summary.ports++;
         ListPair list{sw, ListKind::kPort, "port " + bp.id, bp.props, it->props};
         list.uplinkPort =
            std::find(sw.uplinkKeys.begin(), sw.uplinkKeys.end(), bp.id) != sw.uplinkKeys.end();
         CompareList(list);
      }
      for (const HostPort &ap : a.ports) {
         if (seen.count(ap.id) == 0) {
            Add({b.id, "port " + ap.id, "port", "", "(absent)", "present", nullptr});
         }
      }
   }

   // The property of a sibling pair that a load gives back on this switch.
   static std::optional<std::string> LoadedSibling(const ListPair &l, const std::string &name,
                                                   bool *saved) {
      for (const SiblingRows &rows : kSiblingRows) {
         if (rows.list != l.kind || (name != rows.ether && name != rows.vswitch)) {
            continue;
         }
         const bool pvlan = std::strcmp(rows.ether, "com.ostrel.etherswitch.pvlanMap") == 0;
         const bool vswitchForm = pvlan ? l.sw.pvlanVswitchForm : l.sw.family;
         *saved = name == rows.ether || rows.vswitchSavedAlways || l.sw.family;
         return std::string(vswitchForm ? rows.vswitch : rows.ether);
      }
      return std::nullopt;
   }

   void CompareList(const ListPair &l) {
      std::set<std::string> pairedBefore, pairedAfter;
      // A property the load names after the switch's family comes back
      // under its sibling's name.
      for (const HostProp &b : l.before) {
         bool saved = false;
         const std::optional<std::string> loaded = LoadedSibling(l, b.name, &saved);
         if (!loaded || *loaded == b.name || !saved || FindProp(l.before, *loaded) != nullptr ||
             FindProp(l.after, b.name) != nullptr) {
            continue;
         }
         if (const HostProp *a = FindProp(l.after, *loaded)) {
            const bool pvlan = b.name.find("pvlanMap") != std::string::npos;
            std::vector<Difference> diffs;
            diffs.push_back(Diff(l, b.name + " -> " + a->name, "", b.name, a->name,
                                 Conv(pvlan ? "pvlan-form" : "family-row-renamed")));
            CompareValues(l, b.name + " -> " + a->name, b, *a, diffs);
            Tally(std::move(diffs));
            pairedBefore.insert(b.name);
            pairedAfter.insert(a->name);
         }
      }
      std::set<std::string> done;
      for (const HostProp &b : l.before) {
         if (pairedBefore.count(b.name) != 0 || !done.insert(b.name).second) {
            continue;
         }
         if (const HostProp *a = FindProp(l.after, b.name)) {
            std::vector<Difference> diffs;
            CompareValues(l, b.name, b, *a, diffs);
            Tally(std::move(diffs));
         } else {
            Tally({Diff(l, b.name, "", ShowBytes(b.value), "(absent)", ClassifyLost(l, b))});
         }
      }
      for (const HostProp &a : l.after) {
         if (pairedAfter.count(a.name) == 0 && FindProp(l.before, a.name) == nullptr &&
             done.insert(a.name).second) {
            Tally({Diff(l, a.name, "", "(absent)", ShowBytes(a.value), ClassifyAdded(l, a))});
         }
      }
   }

   static Difference Diff(const ListPair &l, const std::string &prop, const std::string &field,
                          std::string before, std::string after, const Conversion *conv) {
      return {l.sw.before.id, l.label, prop, field, std::move(before), std::move(after), conv};
   }

   void CompareValues(const ListPair &l, const std::string &shown, const HostProp &b,
                      const HostProp &a, std::vector<Difference> &diffs) {
      if (b.flag != a.flag) {
         diffs.push_back(Diff(l, shown, "flag", Hex32(b.flag), Hex32(a.flag),
                              ConvIf(a.flag == kLoadedFlag, "flag")));
      }
      if (b.value == a.value) {
         return;
      }
      const std::optional<CodecKind> kind = CodecFor(a.name);
      if (!kind) {
         diffs.push_back(
            Diff(l, shown, "", ShowBytes(b.value), ShowBytes(a.value), ClassifyScalar(l, b, a)));
         return;
      }
      Fields fb, fa;
      std::string whyB, whyA;
      const bool okB = DecodeProperty(*kind, b.value, {l.sw.before.version}, fb, whyB);
      const bool okA = DecodeProperty(*kind, a.value, {l.sw.after.version}, fa, whyA);
      if (!okB || !okA) {
         diffs.push_back(
            Diff(l, shown, "", ShowBytes(b.value) + (okB ? "" : " (does not decode: " + whyB + ")"),
                 ShowBytes(a.value) + (okA ? "" : " (does not decode: " + whyA + ")"), nullptr));
         return;
      }
      std::vector<FieldChange> changes;
      DiffFields("", "", fb, fa, kNull, kNull, changes);
      for (const FieldChange &c : changes) {
         const bool bit = c.bit != 0;
         diffs.push_back(Diff(l, shown, c.path,
                              bit ? (c.before == true ? "set" : "clear") : ShowField(c.before),
                              bit ? (c.after == true ? "set" : "clear") : ShowField(c.after),
                              ClassifyField(*kind, c)));
      }
   }

   // The values of the mtu properties before.
   static bool MtuValueBefore(const ListPair &l, const Bytes &value) {
      return std::any_of(l.before.begin(), l.before.end(),
                         [&](const HostProp &p) { return IsMtu(p.name) && p.value == value; });
   }

   static bool SwitchPools(const ListPair &l, const Bytes &value) {
      const HostProp *pools = FindProp(l.sw.after.global, kPools);
      return l.uplinkPort && pools != nullptr && pools->value == value;
   }

   static const Conversion *ClassifyScalar(const ListPair &l, const HostProp &b,
                                           const HostProp &a) {
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

   // A table that holds no entries: the save writes nothing for it.
   static bool EmptyTable(const ListPair &l, const HostProp &p) {
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

   static const Conversion *ClassifyLost(const ListPair &l, const HostProp &b) {
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
      bool saved = true;
      if (const std::optional<std::string> loaded = LoadedSibling(l, n, &saved)) {
         if (!saved) {
            return Conv("vswitch-row-not-saved");
         }
         if (*loaded != n && FindProp(l.after, *loaded) != nullptr) {
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

   static const Conversion *ClassifyAdded(const ListPair &l, const HostProp &a) {
      const std::string &n = a.name;
      if (l.kind == ListKind::kGlobal && n == kAlias) {
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
            return ConvIf(FindProp(l.before, other) != nullptr && sibling != nullptr &&
                             sibling->value == a.value,
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

   DiffReport report_;
};

std::string Where(const Difference &d) {
   std::string where = "switch " + d.switchId;
   if (d.list != "switch") {
      where += " " + d.list;
   }
   where += " " + d.property;
   if (!d.field.empty()) {
      where += " " + d.field;
   }
   return where;
}

}  // namespace

const std::vector<Conversion> &DocumentedConversions() {
   return kConversions;
}

HostState ReadHostState(const Bytes &blob, const std::string &name) {
   HostState host;
   for (const HostProp &record : ReadProps(blob, name)) {
      host.switches.push_back(ReadSwitch(record, name));
   }
   return host;
}

DiffReport DiffHosts(const HostState &before, const HostState &after) {
   return Differ().Run(before, after);
}

std::string RenderDiffText(const DiffReport &report, bool summaryOnly) {
   std::ostringstream out;
   for (const Difference &d : report.differences) {
      if (summaryOnly && d.conversion != nullptr) {
         continue;
      }
      out << (d.conversion != nullptr ? "documented  " : "UNEXPECTED  ")
          << (d.conversion != nullptr ? d.conversion->id : "-") << "  " << Where(d) << ": "
          << d.before << " -> " << d.after << '\n';
   }
   const DiffSummary &s = report.summary;
   out << "compared " << s.switches << " switches, " << s.ports << " ports, " << s.properties
       << " properties: " << s.identical << " identical, " << s.flagOnly
       << " identical but for the flag, " << s.documentedOnly
       << " changed otherwise as documented, " << s.unexpectedProps << " changed unexpectedly\n";
   if (!s.byConversion.empty()) {
      out << "documented differences by conversion:\n";
      for (const Conversion &c : kConversions) {
         const auto it = s.byConversion.find(c.id);
         if (it != s.byConversion.end()) {
            char count[16];
            std::snprintf(count, sizeof count, "%6zu", it->second);
            out << "  " << count << "  " << c.id << ": " << c.reason << '\n';
         }
      }
   }
   out << "unexpected differences: " << s.unexpected << '\n';
   return out.str();
}

nlohmann::ordered_json RenderDiffJson(const DiffReport &report, bool summaryOnly) {
   nlohmann::ordered_json diffs = nlohmann::ordered_json::array();
   for (const Difference &d : report.differences) {
      if (summaryOnly && d.conversion != nullptr) {
         continue;
      }
      diffs.push_back(
         {{"switch", d.switchId},
          {"list", d.list},
          {"property", d.property},
          {"field", d.field},
          {"before", d.before},
          {"after", d.after},
          {"classification", d.conversion != nullptr ? "documented" : "unexpected"},
          {"conversion", d.conversion != nullptr ? nlohmann::ordered_json(d.conversion->id)
                                                 : nlohmann::ordered_json(nullptr)}});
   }
   const DiffSummary &s = report.summary;
   nlohmann::ordered_json byConversion = nlohmann::ordered_json::object();
   for (const Conversion &c : kConversions) {
      if (const auto it = s.byConversion.find(c.id); it != s.byConversion.end()) {
         byConversion[c.id] = it->second;
      }
   }
   return {{"differences", diffs},
           {"summary",
            {{"switches", s.switches},
             {"ports", s.ports},
             {"properties", s.properties},
             {"identical", s.identical},
             {"flagOnly", s.flagOnly},
             {"documented", s.documentedOnly},
             {"unexpected", s.unexpectedProps},
             {"unexpectedDifferences", s.unexpected},
             {"byConversion", byConversion}}}};
}

}  // namespace dvsctl
