// state_diff_fields.cc -- structured values compared field by field, and the
// conversions that explain a field's change.
#include <set>

#include "configstore/property_layouts.h"
#include "state_diff_internal.h"

namespace dvsctl {
namespace diff {

const Fields kNull;

const Fields &MemberOr(const Fields &obj, const std::string &key) {
   if (obj.is_object()) {
      const auto it = obj.find(key);
      if (it != obj.end()) {
         return *it;
      }
   }
   return kNull;
}

namespace {

constexpr uint32_t kPacketLengthNotSet = dvs::layouts::kMirrorPacketLengthNotSet;

// Flag words compared bit by bit.
const std::set<std::string> kBitFields = {
   "failureFlags",          "teamingFlags", "sessionFlags", "recvWildcardTypes",
   "transmitWildcardTypes", "flags",        "rejectBits"};
// Lists compared as a whole: their entries move between positions.
const std::set<std::string> kWholeLists = {"destination", "receive", "transmit"};

uint64_t NumberOr(const Fields &obj, const std::string &key, uint64_t fallback = 0) {
   const Fields &v = MemberOr(obj, key);
   return v.is_number_unsigned() ? v.get<uint64_t>() : fallback;
}

void Walk(const std::string &path, const std::string &key, const Fields &b, const Fields &a,
          const Fields &bp, const Fields &ap, std::vector<FieldChange> &out) {
   if (b == a) {
      return;
   }
   auto join = [&](const std::string &k) { return path.empty() ? k : path + "." + k; };
   if (b.is_object() && a.is_object()) {
      for (const auto &[k, v] : b.items()) {
         Walk(join(k), k, v, MemberOr(a, k), b, a, out);
      }
      for (const auto &[k, v] : a.items()) {
         if (!b.contains(k)) {
            Walk(join(k), k, kNull, v, b, a, out);
         }
      }
      return;
   }
   if (b.is_array() && a.is_array() && b.size() == a.size() && kWholeLists.count(key) == 0) {
      for (size_t i = 0; i < b.size(); i++) {
         Walk(path + "[" + std::to_string(i) + "]", key, b[i], a[i], bp, ap, out);
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
      const uint32_t expected = c.key == "magic" ? dvs::layouts::kMirrorTableMagic
                                                 : dvs::layouts::kMirrorTableVersion;
      return ConvIf(nums && a == expected, "mirror-header");
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

}  // namespace

std::vector<FieldChange> DiffFields(const Fields &before, const Fields &after) {
   std::vector<FieldChange> changes;
   Walk("", "", before, after, kNull, kNull, changes);
   return changes;
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

}  // namespace diff
}  // namespace dvsctl
