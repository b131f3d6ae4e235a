// property_codecs.cc -- structured property values as named fields.
//
// The layouts come from configstore/property_layouts.h, which the store
// converters use as well; the field tables below name their members, and
// one table drives both the decode and the encode of a record.
#include "property_codecs.h"

#include <arpa/inet.h>
#include <dvsconfigstore.h>
#include <netinet/in.h>

#include <array>
#include <cstring>
#include <utility>
#include <vector>

#include "configstore/property_layouts.h"
#include "error.h"
#include "property_fields.h"

namespace dvsctl {
namespace {

using namespace ::dvs::layouts;
using namespace ::dvsctl::fields;

// ---- field tables ----------------------------------------------------------

constexpr Field kTeamingFields[] = {
   DVSCTL_UINT(UplinkTeamingPolicy, policy),     DVSCTL_UINT(UplinkTeamingPolicy, failureFlags),
   DVSCTL_UINT(UplinkTeamingPolicy, percentage), DVSCTL_UINT(UplinkTeamingPolicy, fullDuplex),
   DVSCTL_UINT(UplinkTeamingPolicy, speed),      DVSCTL_UINT(UplinkTeamingPolicy, teamingFlags),
};

constexpr Field kLacpGroupFields[] = {
   DVSCTL_TEXT(LacpGroupEntry, name),      DVSCTL_TEXT(LacpGroupEntry, key),
   DVSCTL_UINT(LacpGroupEntry, mode),      DVSCTL_UINT(LacpGroupEntry, loadBalanceAlgorithm),
   DVSCTL_UINT(LacpGroupEntry, uplinkNum),
};

constexpr Field kLacpPolicyFields[] = {
   DVSCTL_UINT(LacpPortPolicy, enabled),
   DVSCTL_UINT(LacpPortPolicy, mode),
   DVSCTL_RESERVED(LacpPortPolicy, reserved),
};

constexpr Field kPvlanEntryFields[] = {
   DVSCTL_UINT(PvlanMapEntry, primaryId),
   DVSCTL_UINT(PvlanMapEntry, secondaryId),
   DVSCTL_NAMED_FIELD(PvlanMapEntry, pvlanType, "type", FieldKind::kUint),
   DVSCTL_RESERVED(PvlanMapEntry, reserved),
};

// The port counts and the index of the first port are the table's own
// bookkeeping, not fields.
constexpr Field kMirrorSessionFields[] = {
   DVSCTL_TEXT(MirrorSession, key),
   DVSCTL_TEXT(MirrorSession, name),
   DVSCTL_RESERVED(MirrorSession, reserved1),
   DVSCTL_UINT(MirrorSession, sessionType),
   DVSCTL_UINT(MirrorSession, mirroredPacketLength),
   DVSCTL_UINT(MirrorSession, sessionFlags),
   DVSCTL_UINT(MirrorSession, encapsulationVlanId),
   DVSCTL_UINT(MirrorSession, recvWildcardTypes),
   DVSCTL_UINT(MirrorSession, transmitWildcardTypes),
   DVSCTL_RESERVED(MirrorSession, reserved2),
   DVSCTL_UINT(MirrorSession, samplingRate),
   DVSCTL_UINT(MirrorSession, encapType),
   DVSCTL_UINT(MirrorSession, erspanId),
   DVSCTL_UINT(MirrorSession, erspanCos),
   DVSCTL_UINT(MirrorSession, erspanGraNanosec),
   DVSCTL_RESERVED(MirrorSession, reserved3),
};

// The collector address sits between the two halves: its form follows
// collectorIsIpv6.
constexpr Field kIpfixHeadFields[] = {
   DVSCTL_UINT(IpfixConfig, idleFlowTimeout),
   DVSCTL_UINT(IpfixConfig, activeFlowTimeout),
};
constexpr Field kIpfixTailFields[] = {
   DVSCTL_UINT(IpfixConfig, collectorPort),       DVSCTL_UINT(IpfixConfig, samplingRate),
   DVSCTL_UINT(IpfixConfig, internalFlowsOnly),   DVSCTL_UINT(IpfixConfig, collectorIsIpv6),
   DVSCTL_UINT(IpfixConfig, observationDomainId),
};

// The range count is the length of the "ranges" list.
constexpr Field kVlanHeaderFields[] = {
   DVSCTL_UINT(PortVlanPolicy, flags),
   DVSCTL_UINT(PortVlanPolicy, vlanId),
   DVSCTL_RESERVED(PortVlanPolicy, reserved),
};
constexpr Field kVlanRangeFields[] = {
   DVSCTL_UINT(VlanRange, start),
   DVSCTL_UINT(VlanRange, end),
};

constexpr Field kLinkDiscoveryFields[] = {
   DVSCTL_UINT(LinkDiscoveryConfig, protocol),
   DVSCTL_UINT(LinkDiscoveryConfig, operation),
};
constexpr Field kHealthCheckFields[] = {
   DVSCTL_UINT(HealthCheckDeploy, enable),
   DVSCTL_UINT(HealthCheckDeploy, interval),
};
constexpr Field kShapingFields[] = {
   DVSCTL_UINT(PortShapingPolicy, averageBandwidth),
   DVSCTL_UINT(PortShapingPolicy, peakBandwidth),
   DVSCTL_UINT(PortShapingPolicy, burstSize),
};
constexpr Field kSecurityFields[] = {
   DVSCTL_UINT(PortSecurityPolicy, rejectBits),
};

// ---- records that are nothing but their fields -------------------------------

template <typename Record, auto &kFields>
bool DecodeRecord(const uint8_t *p, size_t len, const CodecContext &, Fields &out,
                  std::string &why) {
   if (!ExactSize(len, sizeof(Record), why)) {
      return false;
   }
   out = Fields::object();
   return DecodeFields(kFields, p, out);
}

template <typename Record, auto &kFields>
Bytes EncodeRecord(const Fields &f, const CodecContext &, const Where &w) {
   Bytes v(sizeof(Record), 0);
   EncodeFields(kFields, f, v.data(), w);
   return v;
}

// ---- teaming ---------------------------------------------------------------

constexpr size_t kTeamingNamesAt = offsetof(UplinkTeamingPolicy, uplinkNames);

bool DecodeTeaming(const uint8_t *p, size_t len, const CodecContext &, Fields &out,
                   std::string &why) {
   if (!ExactSize(len, sizeof(UplinkTeamingPolicy), why)) {
      return false;
   }
   const uint32_t active = Get<uint32_t>(p + offsetof(UplinkTeamingPolicy, numActive));
   const uint32_t standby = Get<uint32_t>(p + offsetof(UplinkTeamingPolicy, numStandby));
   if (uint64_t{active} + standby > kTeamingUplinkSlots) {
      return Refuse(why, std::to_string(active) + " active and " + std::to_string(standby) +
                            " standby uplinks, more than " + std::to_string(kTeamingUplinkSlots) +
                            " slots");
   }
   Fields names[2] = {Fields::array(), Fields::array()};
   for (uint32_t i = 0; i < active + standby; i++) {
      std::string name;
      if (!SlotText(p + kTeamingNamesAt + i * kUplinkNameSlot, kUplinkNameSlot, name)) {
         return Refuse(why, "uplink name " + std::to_string(i) + " is not terminated");
      }
      names[i < active ? 0 : 1].push_back(name);
   }
   out = Fields::object();
   DecodeFields(kTeamingFields, p, out);
   out["active"] = names[0];
   out["standby"] = names[1];
   return true;
}

Bytes EncodeTeaming(const Fields &f, const CodecContext &, const Where &w) {
   Bytes v(sizeof(UplinkTeamingPolicy), 0);
   uint8_t *p = v.data();
   EncodeFields(kTeamingFields, f, p, w);
   const Fields &active = List(f, "active", kTeamingUplinkSlots, w);
   const Fields &standby = List(f, "standby", kTeamingUplinkSlots - active.size(), w);
   Put(p + offsetof(UplinkTeamingPolicy, numActive), static_cast<uint32_t>(active.size()));
   Put(p + offsetof(UplinkTeamingPolicy, numStandby), static_cast<uint32_t>(standby.size()));
   size_t slot = 0;
   for (const auto &[list, key] : {std::pair{&active, "active"}, std::pair{&standby, "standby"}}) {
      for (size_t i = 0; i < list->size(); i++, slot++) {
         const Fields one = {{"name", (*list)[i]}};
         PutText(p + kTeamingNamesAt + slot * kUplinkNameSlot,
                 Text(one, "name", kUplinkNameSlot, w.At(key).Index(i)));
      }
   }
   return v;
}

// ---- LACP groups -------------------------------------------------------------

constexpr size_t kLacpGroupSize = sizeof(LacpGroupEntry);

bool DecodeLacpGroups(const uint8_t *p, size_t len, const CodecContext &, Fields &out,
                      std::string &why) {
   if (len < kCountSize) {
      return Refuse(why, std::to_string(len) + " bytes, too short for the group count");
   }
   const uint32_t count = Get<uint32_t>(p);
   if (!ExactSize(len, kCountSize + uint64_t{count} * kLacpGroupSize, why)) {
      why += " for " + std::to_string(count) + " groups";
      return false;
   }
   out = {{"groups", Fields::array()}};
   for (uint32_t i = 0; i < count; i++) {
      Fields group = Fields::object();
      if (!DecodeFields(kLacpGroupFields, p + kCountSize + i * kLacpGroupSize, group)) {
         return Refuse(why, "group " + std::to_string(i) + ": name or key not terminated");
      }
      out["groups"].push_back(std::move(group));
   }
   return true;
}

Bytes EncodeLacpGroups(const Fields &f, const CodecContext &, const Where &w) {
   const Fields &groups = List(f, "groups", (UINT32_MAX - kCountSize) / kLacpGroupSize, w);
   Bytes v(kCountSize + groups.size() * kLacpGroupSize, 0);
   Put(v.data(), static_cast<uint32_t>(groups.size()));
   for (size_t i = 0; i < groups.size(); i++) {
      EncodeFields(kLacpGroupFields, groups[i], v.data() + kCountSize + i * kLacpGroupSize,
                   w.At("groups").Index(i));
   }
   return v;
}

// ---- private VLAN map --------------------------------------------------------

constexpr size_t kPvlanEntrySize = sizeof(PvlanMapEntry);

bool DecodePvlanMap(const uint8_t *p, size_t len, const CodecContext &, Fields &out,
                    std::string &) {
   out = {{"entries", Fields::array()}};
   const size_t count = len / kPvlanEntrySize;
   for (size_t i = 0; i < count; i++) {
      Fields entry = Fields::object();
      DecodeFields(kPvlanEntryFields, p + i * kPvlanEntrySize, entry);
      out["entries"].push_back(std::move(entry));
   }
   if (len % kPvlanEntrySize != 0) {
      out["trailing"] = Hex(p + count * kPvlanEntrySize, len % kPvlanEntrySize);
   }
   return true;
}

Bytes EncodePvlanMap(const Fields &f, const CodecContext &, const Where &w) {
   const Fields &entries = List(f, "entries", UINT32_MAX / kPvlanEntrySize, w);
   Bytes v(entries.size() * kPvlanEntrySize, 0);
   for (size_t i = 0; i < entries.size(); i++) {
      EncodeFields(kPvlanEntryFields, entries[i], v.data() + i * kPvlanEntrySize,
                   w.At("entries").Index(i));
   }
   if (const auto it = f.find("trailing"); it != f.end()) {
      const size_t n = it->is_string() ? it->get<std::string>().size() / 2 : 0;
      if (n == 0 || n >= kPvlanEntrySize) {
         w.At("trailing").Fail("not 1 to " + std::to_string(kPvlanEntrySize - 1) + " bytes of hex");
      }
      v.resize(v.size() + n, 0);
      OptionalHex(f, "trailing", v.data() + v.size() - n, n, w);
   }
   return v;
}

// ---- mirror sessions -----------------------------------------------------------

constexpr size_t kMirrorHeaderSize = sizeof(MirrorTableHeader);
constexpr size_t kMirrorSessionSize = sizeof(MirrorSession);
constexpr size_t kMirrorCountsAt = offsetof(MirrorSession, numDestPorts);
constexpr size_t kMirrorFirstPortAt = offsetof(MirrorSession, firstPortIndex);
static_assert(offsetof(MirrorSession, numTransmitPorts) == kMirrorCountsAt + 8,
              "the three port counts follow each other in side order");

enum class EntryForm { kText, kVlan, kAddress };

EntryForm DestinationForm(uint32_t sessionType) {
   return sessionType == kMirrorEncapRemoteSource ? EntryForm::kAddress : EntryForm::kText;
}

EntryForm SourceForm(uint32_t sessionType) {
   return sessionType == kMirrorRemoteDest ? EntryForm::kVlan : EntryForm::kText;
}

bool DecodeEntry(const uint8_t *e, size_t entrySize, EntryForm form, Fields &out,
                 std::string &why) {
   out = {{"kind", Get<uint32_t>(e)}};
   switch (form) {
      case EntryForm::kText: {
         std::string text;
         if (!SlotText(e + kMirrorEntryPayloadAt, entrySize - kMirrorEntryPayloadAt, text)) {
            return Refuse(why, "port text not terminated");
         }
         out["text"] = text;
         return true;
      }
      case EntryForm::kVlan:
         out["vlan"] = Get<uint16_t>(e + kMirrorEntryPayloadAt);
         return true;
      case EntryForm::kAddress: {
         char text[INET6_ADDRSTRLEN];
         const bool v6 = e[kMirrorEntryPayloadAt] != 0;
         if (inet_ntop(v6 ? AF_INET6 : AF_INET, e + kMirrorEntryAddressAt, text, sizeof text) ==
             nullptr) {
            return Refuse(why, "address not printable");
         }
         out["address"] = text;
         return true;
      }
   }
   return true;
}

void EncodeEntry(const Fields &entry, size_t entrySize, EntryForm form, uint8_t *e,
                 const Where &w) {
   Put(e, Number<uint32_t>(entry, "kind", w));
   switch (form) {
      case EntryForm::kText:
         PutText(e + kMirrorEntryPayloadAt,
                 Text(entry, "text", entrySize - kMirrorEntryPayloadAt, w));
         break;
      case EntryForm::kVlan:
         Put(e + kMirrorEntryPayloadAt, Number<uint16_t>(entry, "vlan", w));
         break;
      case EntryForm::kAddress: {
         const std::string text = Text(entry, "address", INET6_ADDRSTRLEN, w);
         if (inet_pton(AF_INET, text.c_str(), e + kMirrorEntryAddressAt) == 1) {
            break;
         }
         if (inet_pton(AF_INET6, text.c_str(), e + kMirrorEntryAddressAt) != 1) {
            w.At("address").Fail("\"" + text + "\" is not an IPv4 or IPv6 address");
         }
         e[kMirrorEntryPayloadAt] = 1;
         break;
      }
   }
}

constexpr const char *kMirrorSides[] = {"destination", "receive", "transmit"};

bool DecodeMirror(const uint8_t *p, size_t len, const CodecContext &ctx, Fields &out,
                  std::string &why) {
   if (len < kMirrorHeaderSize) {
      return Refuse(why, std::to_string(len) + " bytes, too short for the table header");
   }
   const uint32_t sessions = Get<uint32_t>(p + offsetof(MirrorTableHeader, numSessions));
   const uint32_t ports = Get<uint32_t>(p + offsetof(MirrorTableHeader, numPorts));
   const size_t entrySize = MirrorPortEntrySize(ctx.switchVersion);
   const uint64_t want =
      kMirrorHeaderSize + uint64_t{sessions} * kMirrorSessionSize + uint64_t{ports} * entrySize;
   if (len != want) {
      return Refuse(why, std::to_string(len) + " bytes, " + std::to_string(sessions) +
                            " sessions and " + std::to_string(ports) + " port entries of " +
                            std::to_string(entrySize) + " bytes take " + std::to_string(want));
   }
   out = {{"magic", Get<uint32_t>(p + offsetof(MirrorTableHeader, magic))},
          {"version", Get<uint32_t>(p + offsetof(MirrorTableHeader, version))}};
   const uint8_t *reserved = p + offsetof(MirrorTableHeader, reserved);
   if (!AllZero(reserved, sizeof(MirrorTableHeader::reserved))) {
      out["reserved"] = Hex(reserved, sizeof(MirrorTableHeader::reserved));
   }
   out["sessions"] = Fields::array();
   const uint8_t *entries = p + kMirrorHeaderSize + size_t{sessions} * kMirrorSessionSize;
   uint64_t next = 0;
   for (uint32_t i = 0; i < sessions; i++) {
      const uint8_t *s = p + kMirrorHeaderSize + size_t{i} * kMirrorSessionSize;
      const std::string which = "session " + std::to_string(i) + ": ";
      Fields session = Fields::object();
      if (!DecodeFields(kMirrorSessionFields, s, session)) {
         return Refuse(why, which + "key or name not terminated");
      }
      const uint32_t type = Get<uint32_t>(s + offsetof(MirrorSession, sessionType));
      const uint32_t first = Get<uint32_t>(s + kMirrorFirstPortAt);
      if (first != next) {
         return Refuse(why, which + "first port index " + std::to_string(first) +
                               ", its ports start at " + std::to_string(next));
      }
      for (size_t side = 0; side < 3; side++) {
         const uint32_t count = Get<uint32_t>(s + kMirrorCountsAt + 4 * side);
         if (next + count > ports) {
            return Refuse(why, which + std::to_string(count) + " " + kMirrorSides[side] +
                                  " ports beyond the " + std::to_string(ports) + " entries");
         }
         const EntryForm form = side == 0 ? DestinationForm(type) : SourceForm(type);
         Fields list = Fields::array();
         for (uint32_t k = 0; k < count; k++, next++) {
            Fields entry;
            if (!DecodeEntry(entries + next * entrySize, entrySize, form, entry, why)) {
               why = which + kMirrorSides[side] + " " + std::to_string(k) + ": " + why;
               return false;
            }
            list.push_back(std::move(entry));
         }
         session[kMirrorSides[side]] = std::move(list);
      }
      out["sessions"].push_back(std::move(session));
   }
   if (next != ports) {
      return Refuse(why, std::to_string(ports - next) + " port entries belong to no session");
   }
   return true;
}

Bytes EncodeMirror(const Fields &f, const CodecContext &ctx, const Where &w) {
   const size_t entrySize = MirrorPortEntrySize(ctx.switchVersion);
   const Fields &sessions = List(f, "sessions", 0xffff, w);
   std::vector<std::array<const Fields *, 3>> sides;
   size_t ports = 0;
   for (size_t i = 0; i < sessions.size(); i++) {
      std::array<const Fields *, 3> lists{};
      for (size_t side = 0; side < 3; side++) {
         lists[side] = &List(sessions[i], kMirrorSides[side], 0xffff, w.At("sessions").Index(i));
         ports += lists[side]->size();
      }
      sides.push_back(lists);
   }
   Bytes v(kMirrorHeaderSize + sessions.size() * kMirrorSessionSize + ports * entrySize, 0);
   uint8_t *p = v.data();
   Put(p + offsetof(MirrorTableHeader, magic),
       f.contains("magic") ? Number<uint32_t>(f, "magic", w) : kMirrorTableMagic);
   Put(p + offsetof(MirrorTableHeader, version),
       f.contains("version") ? Number<uint32_t>(f, "version", w) : kMirrorTableVersion);
   Put(p + offsetof(MirrorTableHeader, numSessions), static_cast<uint32_t>(sessions.size()));
   Put(p + offsetof(MirrorTableHeader, numPorts), static_cast<uint32_t>(ports));
   OptionalHex(f, "reserved", p + offsetof(MirrorTableHeader, reserved),
               sizeof(MirrorTableHeader::reserved), w);
   uint8_t *entries = p + kMirrorHeaderSize + sessions.size() * kMirrorSessionSize;
   uint32_t next = 0;
   for (size_t i = 0; i < sessions.size(); i++) {
      const Fields &in = sessions[i];
      const Where at = w.At("sessions").Index(i);
      uint8_t *s = p + kMirrorHeaderSize + i * kMirrorSessionSize;
      EncodeFields(kMirrorSessionFields, in, s, at);
      const uint32_t type = Get<uint32_t>(s + offsetof(MirrorSession, sessionType));
      Put(s + kMirrorFirstPortAt, next);
      for (size_t side = 0; side < 3; side++) {
         const Fields &list = *sides[i][side];
         Put(s + kMirrorCountsAt + 4 * side, static_cast<uint32_t>(list.size()));
         const EntryForm form = side == 0 ? DestinationForm(type) : SourceForm(type);
         for (size_t k = 0; k < list.size(); k++, next++) {
            EncodeEntry(list[k], entrySize, form, entries + size_t{next} * entrySize,
                        at.At(kMirrorSides[side]).Index(k));
         }
      }
   }
   return v;
}

// ---- IPFIX -----------------------------------------------------------------------

constexpr size_t kIpfixAddressAt = offsetof(IpfixConfig, collectorAddress);
constexpr size_t kIpfixIpv6At = offsetof(IpfixConfig, collectorIsIpv6);
// The bytes of the address slot after an IPv4 address.
constexpr size_t kIpfixTailAt = kIpfixAddressAt + 4;
constexpr size_t kIpfixTailSize = sizeof(IpfixConfig::collectorAddress) - 4;

bool DecodeIpfix(const uint8_t *p, size_t len, const CodecContext &, Fields &out,
                 std::string &why) {
   if (!ExactSize(len, sizeof(IpfixConfig), why)) {
      return false;
   }
   const bool v6 = p[kIpfixIpv6At] != 0;
   char address[INET6_ADDRSTRLEN];
   inet_ntop(v6 ? AF_INET6 : AF_INET, p + kIpfixAddressAt, address, sizeof address);
   out = Fields::object();
   DecodeFields(kIpfixHeadFields, p, out);
   out["collectorAddress"] = address;
   DecodeFields(kIpfixTailFields, p, out);
   if (!v6 && !AllZero(p + kIpfixTailAt, kIpfixTailSize)) {
      out["addressTail"] = Hex(p + kIpfixTailAt, kIpfixTailSize);
   }
   return true;
}

Bytes EncodeIpfix(const Fields &f, const CodecContext &, const Where &w) {
   Bytes v(sizeof(IpfixConfig), 0);
   uint8_t *p = v.data();
   EncodeFields(kIpfixHeadFields, f, p, w);
   EncodeFields(kIpfixTailFields, f, p, w);
   const bool v6 = p[kIpfixIpv6At] != 0;
   const std::string address = Text(f, "collectorAddress", INET6_ADDRSTRLEN, w);
   if (inet_pton(v6 ? AF_INET6 : AF_INET, address.c_str(), p + kIpfixAddressAt) != 1) {
      w.At("collectorAddress")
         .Fail("\"" + address + "\" is not an " + (v6 ? "IPv6" : "IPv4") + " address");
   }
   if (!v6) {
      OptionalHex(f, "addressTail", p + kIpfixTailAt, kIpfixTailSize, w);
   }
   return v;
}

// ---- port VLAN ------------------------------------------------------------------

constexpr size_t kVlanHeaderSize = sizeof(PortVlanPolicy);
constexpr size_t kVlanRangeSize = sizeof(VlanRange);

bool DecodeVlan(const uint8_t *p, size_t len, const CodecContext &, Fields &out, std::string &why) {
   if (len < kVlanHeaderSize) {
      return Refuse(why, std::to_string(len) + " bytes, too short for the VLAN header");
   }
   const uint16_t ranges = Get<uint16_t>(p + offsetof(PortVlanPolicy, rangeCount));
   if (!ExactSize(len, kVlanHeaderSize + size_t{ranges} * kVlanRangeSize, why)) {
      why += " for " + std::to_string(ranges) + " trunk ranges";
      return false;
   }
   out = Fields::object();
   DecodeFields(kVlanHeaderFields, p, out);
   out["ranges"] = Fields::array();
   for (uint16_t i = 0; i < ranges; i++) {
      Fields range = Fields::object();
      DecodeFields(kVlanRangeFields, p + kVlanHeaderSize + size_t{i} * kVlanRangeSize, range);
      out["ranges"].push_back(std::move(range));
   }
   return true;
}

Bytes EncodeVlan(const Fields &f, const CodecContext &, const Where &w) {
   const Fields &ranges = List(f, "ranges", UINT16_MAX, w);
   Bytes v(kVlanHeaderSize + ranges.size() * kVlanRangeSize, 0);
   uint8_t *p = v.data();
   EncodeFields(kVlanHeaderFields, f, p, w);
   Put(p + offsetof(PortVlanPolicy, rangeCount), static_cast<uint16_t>(ranges.size()));
   for (size_t i = 0; i < ranges.size(); i++) {
      EncodeFields(kVlanRangeFields, ranges[i], p + kVlanHeaderSize + i * kVlanRangeSize,
                   w.At("ranges").Index(i));
   }
   return v;
}

// ---- name lists ----------------------------------------------------------------------

// `record`: the bytes a name occupies, its NUL included.
template <size_t record>
bool DecodeNames(const uint8_t *p, size_t len, const CodecContext &, Fields &out,
                 std::string &why) {
   if (len < kCountSize) {
      return Refuse(why, std::to_string(len) + " bytes, too short for the name count");
   }
   const uint32_t count = Get<uint32_t>(p);
   if (!ExactSize(len, kCountSize + uint64_t{count} * record, why)) {
      why += " for " + std::to_string(count) + " names";
      return false;
   }
   out = {{"names", Fields::array()}};
   for (uint32_t i = 0; i < count; i++) {
      // A name may fill its whole record: the store mapping ends it there.
      const auto *r = reinterpret_cast<const char *>(p + kCountSize + size_t{i} * record);
      out["names"].push_back(std::string(r, strnlen(r, record)));
   }
   return true;
}

template <size_t record>
Bytes EncodeNames(const Fields &f, const CodecContext &, const Where &w) {
   const Fields &names = List(f, "names", (UINT32_MAX - kCountSize) / record, w);
   Bytes v(kCountSize + names.size() * record, 0);
   Put(v.data(), static_cast<uint32_t>(names.size()));
   for (size_t i = 0; i < names.size(); i++) {
      const Fields one = {{"name", names[i]}};
      PutText(v.data() + kCountSize + i * record,
              Text(one, "name", record, w.At("names").Index(i)));
   }
   return v;
}

// ---- the codecs ------------------------------------------------------------------

using DecodeFn = bool (*)(const uint8_t *p, size_t len, const CodecContext &ctx, Fields &out,
                          std::string &why);
using EncodeFn = Bytes (*)(const Fields &f, const CodecContext &ctx, const Where &w);

struct Codec {
   CodecKind kind;
   const char *name;
   DecodeFn decode;
   EncodeFn encode;
};

constexpr Codec kCodecs[] = {
   {CodecKind::kTeaming, "teaming", DecodeTeaming, EncodeTeaming},
   {CodecKind::kLacpGroups, "lacp groups", DecodeLacpGroups, EncodeLacpGroups},
   {CodecKind::kLacpPolicy, "lacp policy", DecodeRecord<LacpPortPolicy, kLacpPolicyFields>,
    EncodeRecord<LacpPortPolicy, kLacpPolicyFields>},
   {CodecKind::kPvlanMap, "pvlan map", DecodePvlanMap, EncodePvlanMap},
   {CodecKind::kMirrorSessions, "mirror sessions", DecodeMirror, EncodeMirror},
   {CodecKind::kIpfix, "ipfix", DecodeIpfix, EncodeIpfix},
   {CodecKind::kLinkDiscovery, "link discovery",
    DecodeRecord<LinkDiscoveryConfig, kLinkDiscoveryFields>,
    EncodeRecord<LinkDiscoveryConfig, kLinkDiscoveryFields>},
   {CodecKind::kHealthCheck, "health check", DecodeRecord<HealthCheckDeploy, kHealthCheckFields>,
    EncodeRecord<HealthCheckDeploy, kHealthCheckFields>},
   {CodecKind::kPortVlan, "port vlan", DecodeVlan, EncodeVlan},
   {CodecKind::kShaping, "shaping", DecodeRecord<PortShapingPolicy, kShapingFields>,
    EncodeRecord<PortShapingPolicy, kShapingFields>},
   {CodecKind::kSecurity, "security", DecodeRecord<PortSecurityPolicy, kSecurityFields>,
    EncodeRecord<PortSecurityPolicy, kSecurityFields>},
   {CodecKind::kUplinkNames, "uplink names", DecodeNames<kUplinkNameSlot>,
    EncodeNames<kUplinkNameSlot>},
   {CodecKind::kUplinkKeys, "uplink keys", DecodeNames<kUplinkKeyRecord>,
    EncodeNames<kUplinkKeyRecord>},
   {CodecKind::kResPoolKeys, "pool keys", DecodeNames<kResPoolKeyRecord>,
    EncodeNames<kResPoolKeyRecord>},
};

const Codec *CodecOf(CodecKind kind) {
   for (const Codec &codec : kCodecs) {
      if (codec.kind == kind) {
         return &codec;
      }
   }
   return nullptr;
}

// The codec of each store converter type that converts a structured value.
constexpr std::pair<uint32_t, CodecKind> kConverterCodecs[] = {
   {PROP_CONV_TEAMING_ETHER, CodecKind::kTeaming},
   {PROP_CONV_TEAMING_VSWITCH, CodecKind::kTeaming},
   {PROP_CONV_LACP_GROUPS, CodecKind::kLacpGroups},
   {PROP_CONV_LACP_POLICY, CodecKind::kLacpPolicy},
   {PROP_CONV_PVLAN_MAP_ETHER, CodecKind::kPvlanMap},
   {PROP_CONV_PVLAN_MAP_VSWITCH, CodecKind::kPvlanMap},
   {PROP_CONV_MIRROR_SESSIONS, CodecKind::kMirrorSessions},
   {PROP_CONV_IPFIX, CodecKind::kIpfix},
   {PROP_CONV_LINK_DISCOVERY, CodecKind::kLinkDiscovery},
   {PROP_CONV_HEALTH_CHECK, CodecKind::kHealthCheck},
   {PROP_CONV_VLAN_ETHER, CodecKind::kPortVlan},
   {PROP_CONV_VLAN_VSWITCH, CodecKind::kPortVlan},
   {PROP_CONV_SHAPING, CodecKind::kShaping},
   {PROP_CONV_SECURITY_ETHER, CodecKind::kSecurity},
   {PROP_CONV_SECURITY_VSWITCH, CodecKind::kSecurity},
   {PROP_CONV_UPLINK_NAME_LIST, CodecKind::kUplinkNames},
   {PROP_CONV_UPLINK_KEY_LIST, CodecKind::kUplinkKeys},
   {PROP_CONV_RESPOOL_KEY_LIST, CodecKind::kResPoolKeys},
};

std::optional<CodecKind> CodecOfConverter(uint32_t convType) {
   for (const auto &[type, kind] : kConverterCodecs) {
      if (type == convType) {
         return kind;
      }
   }
   return std::nullopt;
}

}  // namespace

std::optional<CodecKind> CodecFor(std::string_view propName) {
   for (int32_t cls = PROP_CLASS_GLOBAL; cls <= PROP_CLASS_PORT; cls++) {
      for (const PropConfigMapEntry *row = GetConfigMap(cls); row != nullptr && row->propName;
           row++) {
         if (propName == row->propName) {
            if (const auto kind = CodecOfConverter(row->convType)) {
               return kind;
            }
         }
      }
   }
   return std::nullopt;
}

const char *CodecName(CodecKind kind) {
   const Codec *codec = CodecOf(kind);
   return codec != nullptr ? codec->name : "unknown";
}

bool DecodeProperty(CodecKind kind, const uint8_t *data, size_t len, const CodecContext &ctx,
                    Fields &out, std::string &why) {
   if (data == nullptr && len != 0) {
      return Refuse(why, "no value");
   }
   const Codec *codec = CodecOf(kind);
   if (codec == nullptr) {
      return Refuse(why, "unknown codec");
   }
   return codec->decode(data, len, ctx, out, why);
}

Bytes EncodeProperty(CodecKind kind, const Fields &fields, const CodecContext &ctx) {
   const Where w(CodecName(kind));
   if (!fields.is_object()) {
      w.Fail("the fields are not an object");
   }
   const Codec *codec = CodecOf(kind);
   if (codec == nullptr) {
      w.Fail("unknown codec");
   }
   return codec->encode(fields, ctx, w);
}

}  // namespace dvsctl
