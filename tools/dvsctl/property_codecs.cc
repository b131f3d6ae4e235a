// property_codecs.cc -- structured property values as named fields.
#include "property_codecs.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <array>
#include <cstring>
#include <limits>
#include <utility>
#include <vector>

#include "error.h"

namespace dvsctl {
namespace {

// ---- layouts -------------------------------------------------------------

// Teaming policy.
constexpr size_t kTeamingSize = 2616;
constexpr size_t kTeamingNamesAt = 24;
constexpr size_t kTeamingSlots = 32;
constexpr size_t kTeamingSlot = 81;

// LACP groups and the port's LACP policy.
constexpr size_t kLacpGroupSize = 93;
constexpr size_t kLacpNameSlot = 65;
constexpr size_t kLacpKeyAt = 65;
constexpr size_t kLacpKeySlot = 16;
constexpr size_t kLacpPolicySize = 8;

// Private VLAN map entries.
constexpr size_t kPvlanEntrySize = 8;

// Mirror session tables.
constexpr uint32_t kMirrorMagic = 0xFACEBEEF;
constexpr size_t kMirrorHeaderSize = 20;
constexpr size_t kMirrorSessionSize = 232;
constexpr size_t kMirrorKeySlot = 32;
constexpr size_t kMirrorNameAt = 32;
constexpr size_t kMirrorNameSlot = 81;
constexpr size_t kMirrorPayloadAt = 4;
constexpr size_t kMirrorAddressAt = 8;
constexpr uint32_t kMirrorRemoteDest = 3;
constexpr uint32_t kMirrorEncapSource = 4;
// The reserved runs of a session record: offset and width.
constexpr std::array<std::pair<size_t, size_t>, 3> kMirrorReserved = {
   {{113, 3}, {134, 2}, {148, 68}}};

// The small fixed-size records.
constexpr size_t kIpfixSize = 36;
constexpr size_t kLinkDiscoverySize = 2;
constexpr size_t kHealthCheckSize = 5;
constexpr size_t kVlanHeaderSize = 8;
constexpr size_t kVlanRangeSize = 4;
constexpr size_t kShapingSize = 24;
constexpr size_t kSecuritySize = 4;

struct NameList {
   CodecKind kind;
   size_t record;  // bytes a name occupies, its NUL included
};
constexpr NameList kNameLists[] = {
   {CodecKind::kUplinkNames, 81}, {CodecKind::kUplinkKeys, 48}, {CodecKind::kResPoolKeys, 200}};

struct NamedCodec {
   const char *prop;
   CodecKind kind;
};
constexpr NamedCodec kCodecs[] = {
   {"com.ostrel.vswitch.teaming", CodecKind::kTeaming},
   {"com.ostrel.etherswitch.port.teaming", CodecKind::kTeaming},
   {"com.ostrel.vswitch.port.teaming.policy", CodecKind::kTeaming},
   {"com.ostrel.etherswitch.lacp", CodecKind::kLacpGroups},
   {"com.ostrel.etherswitch.port.lacp", CodecKind::kLacpPolicy},
   {"com.ostrel.etherswitch.pvlanMap", CodecKind::kPvlanMap},
   {"com.ostrel.vswitch.pvlanMap", CodecKind::kPvlanMap},
   {"com.ostrel.etherswitch.mirrorSessions", CodecKind::kMirrorSessions},
   {"com.ostrel.vswitch.mirrorSessions", CodecKind::kMirrorSessions},
   {"com.ostrel.vswitch.port.mirrorSessions", CodecKind::kMirrorSessions},
   {"com.ostrel.etherswitch.port.mirrorSessions", CodecKind::kMirrorSessions},
   {"com.ostrel.etherswitch.ipfix", CodecKind::kIpfix},
   {"com.ostrel.etherswitch.cdp", CodecKind::kLinkDiscovery},
   {"com.ostrel.common.vlanmtucheck.deploy", CodecKind::kHealthCheck},
   {"com.ostrel.common.teamcheck.deploy", CodecKind::kHealthCheck},
   {"com.ostrel.etherswitch.port.vlan", CodecKind::kPortVlan},
   {"com.ostrel.vswitch.port.vlan", CodecKind::kPortVlan},
   {"com.ostrel.common.port.shaper.input", CodecKind::kShaping},
   {"com.ostrel.common.port.shaper.output", CodecKind::kShaping},
   {"com.ostrel.etherswitch.port.security", CodecKind::kSecurity},
   {"com.ostrel.vswitch.port.security", CodecKind::kSecurity},
   {"com.ostrel.common.uplinkPorts", CodecKind::kUplinkNames},
   {"com.ostrel.common.host.uplinkPorts", CodecKind::kUplinkKeys},
   {"com.ostrel.common.respools.list", CodecKind::kResPoolKeys},
};

// ---- bytes ---------------------------------------------------------------

template <typename T>
T Get(const uint8_t *p) {
   T v;
   std::memcpy(&v, p, sizeof v);
   return v;
}

template <typename T>
void Put(uint8_t *p, T v) {
   std::memcpy(p, &v, sizeof v);
}

std::string Hex(const uint8_t *p, size_t n) {
   static const char kDigits[] = "0123456789abcdef";
   std::string out;
   for (size_t i = 0; i < n; i++) {
      out += kDigits[p[i] >> 4];
      out += kDigits[p[i] & 0xf];
   }
   return out;
}

bool AllZero(const uint8_t *p, size_t n) {
   for (size_t i = 0; i < n; i++) {
      if (p[i] != 0) {
         return false;
      }
   }
   return true;
}

// The text of a slot of `width` bytes, up to its NUL; false when the slot
// has none.
bool SlotText(const uint8_t *slot, size_t width, std::string &out) {
   const void *nul = std::memchr(slot, '\0', width);
   if (nul == nullptr) {
      return false;
   }
   out.assign(reinterpret_cast<const char *>(slot), static_cast<const uint8_t *>(nul) - slot);
   return true;
}

// Fails a decode: sets `why` and returns false.
bool Refuse(std::string &why, std::string reason) {
   why = std::move(reason);
   return false;
}

bool ExactSize(size_t len, size_t want, std::string &why) {
   if (len == want) {
      return true;
   }
   return Refuse(why, std::to_string(len) + " bytes, the layout has " + std::to_string(want));
}

// ---- fields for encoding -------------------------------------------------

// Where in the fields an encode is, for its messages: "mirror sessions:
// sessions[1].destination[0]".
class Where {
  public:
   explicit Where(std::string path) : path_(std::move(path)) {}
   Where At(const std::string &key) const { return Where(path_ + "." + key); }
   Where Index(size_t i) const { return Where(path_ + "[" + std::to_string(i) + "]"); }
   [[noreturn]] void Fail(const std::string &what) const { throw Error(path_ + ": " + what); }
   const std::string &Path() const { return path_; }

  private:
   std::string path_;
};

const Fields &Member(const Fields &obj, const char *key, const Where &where) {
   if (!obj.is_object()) {
      where.Fail("not an object");
   }
   const auto it = obj.find(key);
   if (it == obj.end()) {
      where.Fail(std::string("missing \"") + key + "\"");
   }
   return *it;
}

uint64_t NumberValue(const Fields &v, uint64_t max, const Where &where) {
   uint64_t n = 0;
   if (v.is_number_unsigned()) {
      n = v.get<uint64_t>();
   } else if (v.is_number_integer() && v.get<int64_t>() >= 0) {
      n = static_cast<uint64_t>(v.get<int64_t>());
   } else {
      where.Fail("not an unsigned integer");
   }
   if (n > max) {
      where.Fail(std::to_string(n) + " is above " + std::to_string(max));
   }
   return n;
}

template <typename T>
T Number(const Fields &obj, const char *key, const Where &where) {
   return static_cast<T>(
      NumberValue(Member(obj, key, where), std::numeric_limits<T>::max(), where.At(key)));
}

std::string Text(const Fields &obj, const char *key, size_t slot, const Where &where) {
   const Fields &v = Member(obj, key, where);
   if (!v.is_string()) {
      where.At(key).Fail("not a text");
   }
   std::string text = v.get<std::string>();
   if (text.size() >= slot || text.find('\0') != std::string::npos) {
      where.At(key).Fail("\"" + text + "\" does not fit " + std::to_string(slot - 1) +
                         " characters");
   }
   return text;
}

const Fields &List(const Fields &obj, const char *key, size_t max, const Where &where) {
   const Fields &v = Member(obj, key, where);
   if (!v.is_array()) {
      where.At(key).Fail("not a list");
   }
   if (v.size() > max) {
      where.At(key).Fail(std::to_string(v.size()) + " entries, at most " + std::to_string(max));
   }
   return v;
}

// The optional hex text `key` into exactly `n` bytes at `p` (zeros when
// absent).
void OptionalHex(const Fields &obj, const char *key, uint8_t *p, size_t n, const Where &where) {
   const auto it = obj.find(key);
   if (it == obj.end()) {
      return;
   }
   if (!it->is_string() || it->get<std::string>().size() != 2 * n) {
      where.At(key).Fail("not " + std::to_string(n) + " bytes of hex");
   }
   const std::string hex = it->get<std::string>();
   for (size_t i = 0; i < n; i++) {
      const std::string pair = hex.substr(2 * i, 2);
      if (pair.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos) {
         where.At(key).Fail("not hex");
      }
      p[i] = static_cast<uint8_t>(std::stoul(pair, nullptr, 16));
   }
}

void PutText(uint8_t *slot, const std::string &text) {
   std::memcpy(slot, text.data(), text.size());
}

// ---- teaming ---------------------------------------------------------------

bool DecodeTeaming(const uint8_t *p, size_t len, Fields &out, std::string &why) {
   if (!ExactSize(len, kTeamingSize, why)) {
      return false;
   }
   const uint32_t active = Get<uint32_t>(p + 16);
   const uint32_t standby = Get<uint32_t>(p + 20);
   if (uint64_t{active} + standby > kTeamingSlots) {
      return Refuse(why, std::to_string(active) + " active and " + std::to_string(standby) +
                            " standby uplinks, more than " + std::to_string(kTeamingSlots) +
                            " slots");
   }
   Fields names[2] = {Fields::array(), Fields::array()};
   for (uint32_t i = 0; i < active + standby; i++) {
      std::string name;
      if (!SlotText(p + kTeamingNamesAt + i * kTeamingSlot, kTeamingSlot, name)) {
         return Refuse(why, "uplink name " + std::to_string(i) + " is not terminated");
      }
      names[i < active ? 0 : 1].push_back(name);
   }
   out = Fields::object();
   out["policy"] = Get<uint32_t>(p);
   out["failureFlags"] = Get<uint32_t>(p + 4);
   out["percentage"] = p[8];
   out["fullDuplex"] = p[9];
   out["speed"] = Get<uint16_t>(p + 10);
   out["teamingFlags"] = Get<uint32_t>(p + 12);
   out["active"] = names[0];
   out["standby"] = names[1];
   return true;
}

Bytes EncodeTeaming(const Fields &f, const Where &w) {
   Bytes v(kTeamingSize, 0);
   uint8_t *p = v.data();
   Put(p, Number<uint32_t>(f, "policy", w));
   Put(p + 4, Number<uint32_t>(f, "failureFlags", w));
   p[8] = Number<uint8_t>(f, "percentage", w);
   p[9] = Number<uint8_t>(f, "fullDuplex", w);
   Put(p + 10, Number<uint16_t>(f, "speed", w));
   Put(p + 12, Number<uint32_t>(f, "teamingFlags", w));
   const Fields &active = List(f, "active", kTeamingSlots, w);
   const Fields &standby = List(f, "standby", kTeamingSlots - active.size(), w);
   Put(p + 16, static_cast<uint32_t>(active.size()));
   Put(p + 20, static_cast<uint32_t>(standby.size()));
   size_t slot = 0;
   for (const auto &[list, key] : {std::pair{&active, "active"}, std::pair{&standby, "standby"}}) {
      for (size_t i = 0; i < list->size(); i++, slot++) {
         const Fields one = {{"name", (*list)[i]}};
         PutText(p + kTeamingNamesAt + slot * kTeamingSlot,
                 Text(one, "name", kTeamingSlot, w.At(key).Index(i)));
      }
   }
   return v;
}

// ---- LACP ------------------------------------------------------------------

bool DecodeLacpGroups(const uint8_t *p, size_t len, Fields &out, std::string &why) {
   if (len < 4) {
      return Refuse(why, std::to_string(len) + " bytes, too short for the group count");
   }
   const uint32_t count = Get<uint32_t>(p);
   if (!ExactSize(len, 4 + uint64_t{count} * kLacpGroupSize, why)) {
      why += " for " + std::to_string(count) + " groups";
      return false;
   }
   out = {{"groups", Fields::array()}};
   for (uint32_t i = 0; i < count; i++) {
      const uint8_t *g = p + 4 + i * kLacpGroupSize;
      std::string name, key;
      if (!SlotText(g, kLacpNameSlot, name) || !SlotText(g + kLacpKeyAt, kLacpKeySlot, key)) {
         return Refuse(why, "group " + std::to_string(i) + ": name or key not terminated");
      }
      out["groups"].push_back({{"name", name},
                               {"key", key},
                               {"mode", Get<uint32_t>(g + 81)},
                               {"loadBalanceAlgorithm", Get<uint32_t>(g + 85)},
                               {"uplinkNum", Get<uint32_t>(g + 89)}});
   }
   return true;
}

Bytes EncodeLacpGroups(const Fields &f, const Where &w) {
   const Fields &groups = List(f, "groups", (UINT32_MAX - 4) / kLacpGroupSize, w);
   Bytes v(4 + groups.size() * kLacpGroupSize, 0);
   Put(v.data(), static_cast<uint32_t>(groups.size()));
   for (size_t i = 0; i < groups.size(); i++) {
      const Where at = w.At("groups").Index(i);
      uint8_t *g = v.data() + 4 + i * kLacpGroupSize;
      PutText(g, Text(groups[i], "name", kLacpNameSlot, at));
      PutText(g + kLacpKeyAt, Text(groups[i], "key", kLacpKeySlot, at));
      Put(g + 81, Number<uint32_t>(groups[i], "mode", at));
      Put(g + 85, Number<uint32_t>(groups[i], "loadBalanceAlgorithm", at));
      Put(g + 89, Number<uint32_t>(groups[i], "uplinkNum", at));
   }
   return v;
}

bool DecodeLacpPolicy(const uint8_t *p, size_t len, Fields &out, std::string &why) {
   if (!ExactSize(len, kLacpPolicySize, why)) {
      return false;
   }
   out = {{"enabled", p[0]}, {"mode", Get<uint32_t>(p + 4)}};
   if (!AllZero(p + 1, 3)) {
      out["reserved"] = Hex(p + 1, 3);
   }
   return true;
}

Bytes EncodeLacpPolicy(const Fields &f, const Where &w) {
   Bytes v(kLacpPolicySize, 0);
   v[0] = Number<uint8_t>(f, "enabled", w);
   OptionalHex(f, "reserved", v.data() + 1, 3, w);
   Put(v.data() + 4, Number<uint32_t>(f, "mode", w));
   return v;
}

// ---- private VLAN map --------------------------------------------------------

bool DecodePvlanMap(const uint8_t *p, size_t len, Fields &out, std::string &) {
   out = {{"entries", Fields::array()}};
   const size_t count = len / kPvlanEntrySize;
   for (size_t i = 0; i < count; i++) {
      const uint8_t *e = p + i * kPvlanEntrySize;
      Fields entry = {
         {"primaryId", Get<uint16_t>(e)}, {"secondaryId", Get<uint16_t>(e + 2)}, {"type", e[4]}};
      if (!AllZero(e + 5, 3)) {
         entry["reserved"] = Hex(e + 5, 3);
      }
      out["entries"].push_back(std::move(entry));
   }
   if (len % kPvlanEntrySize != 0) {
      out["trailing"] = Hex(p + count * kPvlanEntrySize, len % kPvlanEntrySize);
   }
   return true;
}

Bytes EncodePvlanMap(const Fields &f, const Where &w) {
   const Fields &entries = List(f, "entries", UINT32_MAX / kPvlanEntrySize, w);
   Bytes v(entries.size() * kPvlanEntrySize, 0);
   for (size_t i = 0; i < entries.size(); i++) {
      const Where at = w.At("entries").Index(i);
      uint8_t *e = v.data() + i * kPvlanEntrySize;
      Put(e, Number<uint16_t>(entries[i], "primaryId", at));
      Put(e + 2, Number<uint16_t>(entries[i], "secondaryId", at));
      e[4] = Number<uint8_t>(entries[i], "type", at);
      OptionalHex(entries[i], "reserved", e + 5, 3, at);
   }
   if (const auto it = f.find("trailing"); it != f.end()) {
      const size_t n = it->is_string() ? it->get<std::string>().size() / 2 : 0;
      if (n == 0 || n >= kPvlanEntrySize) {
         w.At("trailing").Fail("not 1 to 7 bytes of hex");
      }
      v.resize(v.size() + n, 0);
      OptionalHex(f, "trailing", v.data() + v.size() - n, n, w);
   }
   return v;
}

// ---- mirror sessions -----------------------------------------------------------

enum class EntryForm { kText, kVlan, kAddress };

EntryForm DestinationForm(uint32_t sessionType) {
   return sessionType == kMirrorEncapSource ? EntryForm::kAddress : EntryForm::kText;
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
         if (!SlotText(e + kMirrorPayloadAt, entrySize - kMirrorPayloadAt, text)) {
            return Refuse(why, "port text not terminated");
         }
         out["text"] = text;
         return true;
      }
      case EntryForm::kVlan:
         out["vlan"] = Get<uint16_t>(e + kMirrorPayloadAt);
         return true;
      case EntryForm::kAddress: {
         char text[INET6_ADDRSTRLEN];
         const bool v6 = e[kMirrorPayloadAt] != 0;
         if (inet_ntop(v6 ? AF_INET6 : AF_INET, e + kMirrorAddressAt, text, sizeof text) ==
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
         PutText(e + kMirrorPayloadAt, Text(entry, "text", entrySize - kMirrorPayloadAt, w));
         break;
      case EntryForm::kVlan:
         Put(e + kMirrorPayloadAt, Number<uint16_t>(entry, "vlan", w));
         break;
      case EntryForm::kAddress: {
         const std::string text = Text(entry, "address", INET6_ADDRSTRLEN, w);
         if (inet_pton(AF_INET, text.c_str(), e + kMirrorAddressAt) == 1) {
            break;
         }
         if (inet_pton(AF_INET6, text.c_str(), e + kMirrorAddressAt) != 1) {
            w.At("address").Fail("\"" + text + "\" is not an IPv4 or IPv6 address");
         }
         e[kMirrorPayloadAt] = 1;
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
   const uint32_t sessions = Get<uint32_t>(p + 8);
   const uint32_t ports = Get<uint32_t>(p + 12);
   const size_t entrySize = MirrorPortEntrySize(ctx.switchVersion);
   const uint64_t want =
      kMirrorHeaderSize + uint64_t{sessions} * kMirrorSessionSize + uint64_t{ports} * entrySize;
   if (len != want) {
      return Refuse(why, std::to_string(len) + " bytes, " + std::to_string(sessions) +
                            " sessions and " + std::to_string(ports) + " port entries of " +
                            std::to_string(entrySize) + " bytes take " + std::to_string(want));
   }
   out = {{"magic", Get<uint32_t>(p)}, {"version", Get<uint32_t>(p + 4)}};
   if (!AllZero(p + 16, 4)) {
      out["reserved"] = Hex(p + 16, 4);
   }
   out["sessions"] = Fields::array();
   const uint8_t *entries = p + kMirrorHeaderSize + size_t{sessions} * kMirrorSessionSize;
   uint64_t next = 0;
   for (uint32_t i = 0; i < sessions; i++) {
      const uint8_t *s = p + kMirrorHeaderSize + size_t{i} * kMirrorSessionSize;
      const std::string which = "session " + std::to_string(i) + ": ";
      std::string key, name;
      if (!SlotText(s, kMirrorKeySlot, key) ||
          !SlotText(s + kMirrorNameAt, kMirrorNameSlot, name)) {
         return Refuse(why, which + "key or name not terminated");
      }
      const uint32_t type = Get<uint32_t>(s + 116);
      Fields session = {{"key", key},
                        {"name", name},
                        {"sessionType", type},
                        {"mirroredPacketLength", Get<uint32_t>(s + 120)},
                        {"sessionFlags", Get<uint32_t>(s + 124)},
                        {"encapsulationVlanId", Get<uint16_t>(s + 128)},
                        {"recvWildcardTypes", Get<uint16_t>(s + 130)},
                        {"transmitWildcardTypes", Get<uint16_t>(s + 132)},
                        {"samplingRate", Get<uint32_t>(s + 136)},
                        {"encapType", Get<uint32_t>(s + 140)},
                        {"erspanId", Get<uint16_t>(s + 144)},
                        {"erspanCos", s[146]},
                        {"erspanGraNanosec", s[147]}};
      std::string reserved;
      for (const auto &[at, n] : kMirrorReserved) {
         reserved += Hex(s + at, n);
      }
      if (reserved.find_first_not_of('0') != std::string::npos) {
         session["reserved"] = reserved;
      }
      if (Get<uint32_t>(s + 228) != next) {
         return Refuse(why, which + "first port index " + std::to_string(Get<uint32_t>(s + 228)) +
                               ", its ports start at " + std::to_string(next));
      }
      for (size_t side = 0; side < 3; side++) {
         const uint32_t count = Get<uint32_t>(s + 216 + 4 * side);
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
   Put(p, f.contains("magic") ? Number<uint32_t>(f, "magic", w) : kMirrorMagic);
   Put(p + 4, f.contains("version") ? Number<uint32_t>(f, "version", w) : uint32_t{1});
   Put(p + 8, static_cast<uint32_t>(sessions.size()));
   Put(p + 12, static_cast<uint32_t>(ports));
   OptionalHex(f, "reserved", p + 16, 4, w);
   uint8_t *entries = p + kMirrorHeaderSize + sessions.size() * kMirrorSessionSize;
   uint32_t next = 0;
   for (size_t i = 0; i < sessions.size(); i++) {
      const Fields &in = sessions[i];
      const Where at = w.At("sessions").Index(i);
      uint8_t *s = p + kMirrorHeaderSize + i * kMirrorSessionSize;
      PutText(s, Text(in, "key", kMirrorKeySlot, at));
      PutText(s + kMirrorNameAt, Text(in, "name", kMirrorNameSlot, at));
      const uint32_t type = Number<uint32_t>(in, "sessionType", at);
      Put(s + 116, type);
      Put(s + 120, Number<uint32_t>(in, "mirroredPacketLength", at));
      Put(s + 124, Number<uint32_t>(in, "sessionFlags", at));
      Put(s + 128, Number<uint16_t>(in, "encapsulationVlanId", at));
      Put(s + 130, Number<uint16_t>(in, "recvWildcardTypes", at));
      Put(s + 132, Number<uint16_t>(in, "transmitWildcardTypes", at));
      Put(s + 136, Number<uint32_t>(in, "samplingRate", at));
      Put(s + 140, Number<uint32_t>(in, "encapType", at));
      Put(s + 144, Number<uint16_t>(in, "erspanId", at));
      s[146] = Number<uint8_t>(in, "erspanCos", at);
      s[147] = Number<uint8_t>(in, "erspanGraNanosec", at);
      if (in.contains("reserved")) {
         uint8_t reserved[3 + 2 + 68];
         OptionalHex(in, "reserved", reserved, sizeof reserved, at);
         size_t from = 0;
         for (const auto &[offset, n] : kMirrorReserved) {
            std::memcpy(s + offset, reserved + from, n);
            from += n;
         }
      }
      Put(s + 228, next);
      for (size_t side = 0; side < 3; side++) {
         const Fields &list = *sides[i][side];
         Put(s + 216 + 4 * side, static_cast<uint32_t>(list.size()));
         const EntryForm form = side == 0 ? DestinationForm(type) : SourceForm(type);
         for (size_t k = 0; k < list.size(); k++, next++) {
            EncodeEntry(list[k], entrySize, form, entries + size_t{next} * entrySize,
                        at.At(kMirrorSides[side]).Index(k));
         }
      }
   }
   return v;
}

// ---- monitoring ------------------------------------------------------------------

bool DecodeIpfix(const uint8_t *p, size_t len, Fields &out, std::string &why) {
   if (!ExactSize(len, kIpfixSize, why)) {
      return false;
   }
   const bool v6 = p[31] != 0;
   char address[INET6_ADDRSTRLEN];
   inet_ntop(v6 ? AF_INET6 : AF_INET, p + 8, address, sizeof address);
   out = {{"idleFlowTimeout", Get<uint32_t>(p)},
          {"activeFlowTimeout", Get<uint32_t>(p + 4)},
          {"collectorAddress", address},
          {"collectorPort", Get<uint16_t>(p + 24)},
          {"samplingRate", Get<uint32_t>(p + 26)},
          {"internalFlowsOnly", p[30]},
          {"collectorIsIpv6", p[31]},
          {"observationDomainId", Get<uint32_t>(p + 32)}};
   if (!v6 && !AllZero(p + 12, 12)) {
      out["addressTail"] = Hex(p + 12, 12);
   }
   return true;
}

Bytes EncodeIpfix(const Fields &f, const Where &w) {
   Bytes v(kIpfixSize, 0);
   uint8_t *p = v.data();
   Put(p, Number<uint32_t>(f, "idleFlowTimeout", w));
   Put(p + 4, Number<uint32_t>(f, "activeFlowTimeout", w));
   p[31] = Number<uint8_t>(f, "collectorIsIpv6", w);
   const std::string address = Text(f, "collectorAddress", INET6_ADDRSTRLEN, w);
   if (inet_pton(p[31] != 0 ? AF_INET6 : AF_INET, address.c_str(), p + 8) != 1) {
      w.At("collectorAddress")
         .Fail("\"" + address + "\" is not an " + (p[31] != 0 ? "IPv6" : "IPv4") + " address");
   }
   if (p[31] == 0) {
      OptionalHex(f, "addressTail", p + 12, 12, w);
   }
   Put(p + 24, Number<uint16_t>(f, "collectorPort", w));
   Put(p + 26, Number<uint32_t>(f, "samplingRate", w));
   p[30] = Number<uint8_t>(f, "internalFlowsOnly", w);
   Put(p + 32, Number<uint32_t>(f, "observationDomainId", w));
   return v;
}

bool DecodeLinkDiscovery(const uint8_t *p, size_t len, Fields &out, std::string &why) {
   if (!ExactSize(len, kLinkDiscoverySize, why)) {
      return false;
   }
   out = {{"protocol", p[0]}, {"operation", p[1]}};
   return true;
}

Bytes EncodeLinkDiscovery(const Fields &f, const Where &w) {
   return Bytes{Number<uint8_t>(f, "protocol", w), Number<uint8_t>(f, "operation", w)};
}

bool DecodeHealthCheck(const uint8_t *p, size_t len, Fields &out, std::string &why) {
   if (!ExactSize(len, kHealthCheckSize, why)) {
      return false;
   }
   out = {{"enable", p[0]}, {"interval", Get<uint32_t>(p + 1)}};
   return true;
}

Bytes EncodeHealthCheck(const Fields &f, const Where &w) {
   Bytes v(kHealthCheckSize, 0);
   v[0] = Number<uint8_t>(f, "enable", w);
   Put(v.data() + 1, Number<uint32_t>(f, "interval", w));
   return v;
}

// ---- port policies -----------------------------------------------------------------

bool DecodeVlan(const uint8_t *p, size_t len, Fields &out, std::string &why) {
   if (len < kVlanHeaderSize) {
      return Refuse(why, std::to_string(len) + " bytes, too short for the VLAN header");
   }
   const uint16_t ranges = Get<uint16_t>(p + 6);
   if (!ExactSize(len, kVlanHeaderSize + size_t{ranges} * kVlanRangeSize, why)) {
      why += " for " + std::to_string(ranges) + " trunk ranges";
      return false;
   }
   out = {{"flags", Get<uint16_t>(p)}, {"vlanId", Get<uint16_t>(p + 2)}};
   if (Get<uint16_t>(p + 4) != 0) {
      out["reserved"] = Hex(p + 4, 2);
   }
   out["ranges"] = Fields::array();
   for (uint16_t i = 0; i < ranges; i++) {
      const uint8_t *r = p + kVlanHeaderSize + size_t{i} * kVlanRangeSize;
      out["ranges"].push_back({{"start", Get<uint16_t>(r)}, {"end", Get<uint16_t>(r + 2)}});
   }
   return true;
}

Bytes EncodeVlan(const Fields &f, const Where &w) {
   const Fields &ranges = List(f, "ranges", UINT16_MAX, w);
   Bytes v(kVlanHeaderSize + ranges.size() * kVlanRangeSize, 0);
   uint8_t *p = v.data();
   Put(p, Number<uint16_t>(f, "flags", w));
   Put(p + 2, Number<uint16_t>(f, "vlanId", w));
   OptionalHex(f, "reserved", p + 4, 2, w);
   Put(p + 6, static_cast<uint16_t>(ranges.size()));
   for (size_t i = 0; i < ranges.size(); i++) {
      const Where at = w.At("ranges").Index(i);
      uint8_t *r = p + kVlanHeaderSize + i * kVlanRangeSize;
      Put(r, Number<uint16_t>(ranges[i], "start", at));
      Put(r + 2, Number<uint16_t>(ranges[i], "end", at));
   }
   return v;
}

constexpr const char *kShapingFields[] = {"averageBandwidth", "peakBandwidth", "burstSize"};

bool DecodeShaping(const uint8_t *p, size_t len, Fields &out, std::string &why) {
   if (!ExactSize(len, kShapingSize, why)) {
      return false;
   }
   out = Fields::object();
   for (size_t i = 0; i < 3; i++) {
      out[kShapingFields[i]] = Get<uint64_t>(p + 8 * i);
   }
   return true;
}

Bytes EncodeShaping(const Fields &f, const Where &w) {
   Bytes v(kShapingSize, 0);
   for (size_t i = 0; i < 3; i++) {
      Put(v.data() + 8 * i, Number<uint64_t>(f, kShapingFields[i], w));
   }
   return v;
}

bool DecodeSecurity(const uint8_t *p, size_t len, Fields &out, std::string &why) {
   if (!ExactSize(len, kSecuritySize, why)) {
      return false;
   }
   out = {{"rejectBits", Get<uint32_t>(p)}};
   return true;
}

Bytes EncodeSecurity(const Fields &f, const Where &w) {
   Bytes v(kSecuritySize, 0);
   Put(v.data(), Number<uint32_t>(f, "rejectBits", w));
   return v;
}

// ---- name lists ----------------------------------------------------------------------

size_t NameRecord(CodecKind kind) {
   for (const NameList &list : kNameLists) {
      if (list.kind == kind) {
         return list.record;
      }
   }
   return 0;
}

bool DecodeNames(size_t record, const uint8_t *p, size_t len, Fields &out, std::string &why) {
   if (len < 4) {
      return Refuse(why, std::to_string(len) + " bytes, too short for the name count");
   }
   const uint32_t count = Get<uint32_t>(p);
   if (!ExactSize(len, 4 + uint64_t{count} * record, why)) {
      why += " for " + std::to_string(count) + " names";
      return false;
   }
   out = {{"names", Fields::array()}};
   for (uint32_t i = 0; i < count; i++) {
      // A name may fill its whole record: the store mapping ends it there.
      const auto *r = reinterpret_cast<const char *>(p + 4 + size_t{i} * record);
      out["names"].push_back(std::string(r, strnlen(r, record)));
   }
   return true;
}

Bytes EncodeNames(size_t record, const Fields &f, const Where &w) {
   const Fields &names = List(f, "names", (UINT32_MAX - 4) / record, w);
   Bytes v(4 + names.size() * record, 0);
   Put(v.data(), static_cast<uint32_t>(names.size()));
   for (size_t i = 0; i < names.size(); i++) {
      const Fields one = {{"name", names[i]}};
      PutText(v.data() + 4 + i * record, Text(one, "name", record, w.At("names").Index(i)));
   }
   return v;
}

}  // namespace

uint32_t MirrorPortEntrySize(uint32_t switchVersion) {
   return switchVersion >= 100 ? 52 : 36;
}

std::optional<CodecKind> CodecFor(std::string_view propName) {
   for (const NamedCodec &codec : kCodecs) {
      if (propName == codec.prop) {
         return codec.kind;
      }
   }
   return std::nullopt;
}

const char *CodecName(CodecKind kind) {
   switch (kind) {
      case CodecKind::kTeaming:
         return "teaming";
      case CodecKind::kLacpGroups:
         return "lacp groups";
      case CodecKind::kLacpPolicy:
         return "lacp policy";
      case CodecKind::kPvlanMap:
         return "pvlan map";
      case CodecKind::kMirrorSessions:
         return "mirror sessions";
      case CodecKind::kIpfix:
         return "ipfix";
      case CodecKind::kLinkDiscovery:
         return "link discovery";
      case CodecKind::kHealthCheck:
         return "health check";
      case CodecKind::kPortVlan:
         return "port vlan";
      case CodecKind::kShaping:
         return "shaping";
      case CodecKind::kSecurity:
         return "security";
      case CodecKind::kUplinkNames:
         return "uplink names";
      case CodecKind::kUplinkKeys:
         return "uplink keys";
      case CodecKind::kResPoolKeys:
         return "pool keys";
   }
   return "unknown";
}

bool DecodeProperty(CodecKind kind, const uint8_t *data, size_t len, const CodecContext &ctx,
                    Fields &out, std::string &why) {
   if (data == nullptr && len != 0) {
      return Refuse(why, "no value");
   }
   switch (kind) {
      case CodecKind::kTeaming:
         return DecodeTeaming(data, len, out, why);
      case CodecKind::kLacpGroups:
         return DecodeLacpGroups(data, len, out, why);
      case CodecKind::kLacpPolicy:
         return DecodeLacpPolicy(data, len, out, why);
      case CodecKind::kPvlanMap:
         return DecodePvlanMap(data, len, out, why);
      case CodecKind::kMirrorSessions:
         return DecodeMirror(data, len, ctx, out, why);
      case CodecKind::kIpfix:
         return DecodeIpfix(data, len, out, why);
      case CodecKind::kLinkDiscovery:
         return DecodeLinkDiscovery(data, len, out, why);
      case CodecKind::kHealthCheck:
         return DecodeHealthCheck(data, len, out, why);
      case CodecKind::kPortVlan:
         return DecodeVlan(data, len, out, why);
      case CodecKind::kShaping:
         return DecodeShaping(data, len, out, why);
      case CodecKind::kSecurity:
         return DecodeSecurity(data, len, out, why);
      case CodecKind::kUplinkNames:
      case CodecKind::kUplinkKeys:
      case CodecKind::kResPoolKeys:
         return DecodeNames(NameRecord(kind), data, len, out, why);
   }
   return Refuse(why, "unknown codec");
}

Bytes EncodeProperty(CodecKind kind, const Fields &fields, const CodecContext &ctx) {
   const Where w(CodecName(kind));
   if (!fields.is_object()) {
      w.Fail("the fields are not an object");
   }
   switch (kind) {
      case CodecKind::kTeaming:
         return EncodeTeaming(fields, w);
      case CodecKind::kLacpGroups:
         return EncodeLacpGroups(fields, w);
      case CodecKind::kLacpPolicy:
         return EncodeLacpPolicy(fields, w);
      case CodecKind::kPvlanMap:
         return EncodePvlanMap(fields, w);
      case CodecKind::kMirrorSessions:
         return EncodeMirror(fields, ctx, w);
      case CodecKind::kIpfix:
         return EncodeIpfix(fields, w);
      case CodecKind::kLinkDiscovery:
         return EncodeLinkDiscovery(fields, w);
      case CodecKind::kHealthCheck:
         return EncodeHealthCheck(fields, w);
      case CodecKind::kPortVlan:
         return EncodeVlan(fields, w);
      case CodecKind::kShaping:
         return EncodeShaping(fields, w);
      case CodecKind::kSecurity:
         return EncodeSecurity(fields, w);
      case CodecKind::kUplinkNames:
      case CodecKind::kUplinkKeys:
      case CodecKind::kResPoolKeys:
         return EncodeNames(NameRecord(kind), fields, w);
   }
   w.Fail("unknown codec");
}

}  // namespace dvsctl
