// The port-mirroring session converter.  The property is one table: a
// header, the sessions, then one array of port entries that the sessions
// share, each session owning a consecutive run of it (its destinations,
// then its receive sources, then its transmit sources).  In the store each
// session is one instance of the key's collection, named by the session
// key, with its destinations and sources in three sub-objects.
//
// The two directions are deliberately not mirror images of each other:
// a packet length other than "not set" is not written, the legacy-mode
// flag loads inverted, and the VLAN and address lists of remote sessions
// are written but not read back.
#include <arpa/inet.h>
#include <netinet/in.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>

#include "configstore/configstore_internal.h"
#include "configstore/converters.h"
#include "configstore/property_layouts.h"

namespace dvs::configstore {

namespace cs = ::dvs::configstore::store_calls;

namespace {

using namespace ::dvs::layouts;

// Session flags.
constexpr uint32_t kFlagNoNormalTraffic = 0x01;
constexpr uint32_t kFlagNoNormalTrafficLoaded = 0x02;  // set with 0x01 on load
constexpr uint32_t kFlagKeepOriginalVlan = 0x04;
constexpr uint32_t kFlagEncapVlan = 0x08;
constexpr uint32_t kFlagLegacyMode = 0x10;
constexpr uint32_t kFlagDisabled = 0x20;

// The types that have a text (the table's closing null is not one).
constexpr uint32_t kSessionTypeCount = 5;
constexpr uint32_t kMaxEntrySize = kMirrorEntrySizeWide;

constexpr uint32_t kHeaderSize = sizeof(MirrorTableHeader);
constexpr uint32_t kSessionSize = sizeof(MirrorSession);

// Wildcard bits of the source sides and their texts, in the order written.
struct WildcardType {
   uint16_t bit;
   const char *text;
};
constexpr WildcardType kWildcardTypes[] = {
   {0x01, "VM_VNIC"}, {0x02, "PNIC"}, {0x08, "HOST_HYP_VNIC"}};
constexpr const char *kWildcardList = "wildcard_port_connectee_types";

constexpr const char *kDestination = "destination_port";
constexpr const char *kRecvSource = "source_recv_port";
constexpr const char *kTransmitSource = "source_transmit_port";
constexpr const char *kPortKeys = "port_keys";
constexpr const char *kUplinkNames = "uplink_port_names";

// How the entries of one side of a session are kept in the store.
enum class PortRule {
   kPortKeys,     // every entry's text in "port_keys"
   kUplinkNames,  // every entry's text in "uplink_port_names"
   kVlans,        // every entry's VLAN id in "vlans"
   kAddresses,    // the last entry's address in "addresses"
   kMixed,        // port keys and uplink names by the entry's kind
};

PortRule DestinationRule(uint32_t sessionType) {
   switch (sessionType) {
      case kMirrorRemoteSource:
         return PortRule::kUplinkNames;
      case kMirrorEncapRemoteSource:
         return PortRule::kAddresses;
      case kMirrorMixedDest:
         return PortRule::kMixed;
      default:
         return PortRule::kPortKeys;
   }
}

PortRule SourceRule(uint32_t sessionType) {
   return sessionType == kMirrorRemoteDest ? PortRule::kVlans : PortRule::kPortKeys;
}

// A read-only view of a table that has passed CheckTable.
struct TableView {
   const uint8_t *bytes;
   uint32_t numSessions;
   uint32_t numPorts;
   uint32_t entrySize;

   MirrorSession Session(uint32_t i) const {
      MirrorSession s;
      memcpy(&s, bytes + kHeaderSize + size_t{i} * kSessionSize, sizeof s);
      return s;
   }
   const uint8_t *Entry(uint32_t i) const {
      return bytes + kHeaderSize + size_t{numSessions} * kSessionSize + size_t{i} * entrySize;
   }
};

uint32_t EntryKind(const uint8_t *entry) {
   uint32_t kind;
   memcpy(&kind, entry, sizeof kind);
   return kind;
}

bool EntryIsText(PortRule rule, uint32_t kind) {
   switch (rule) {
      case PortRule::kPortKeys:
      case PortRule::kUplinkNames:
         return true;
      case PortRule::kMixed:
         return kind == kMirrorPortKindKey || kind == kMirrorPortKindUplink;
      default:
         return false;
   }
}

// The text of a port entry, cut at the payload's end (a checked table has
// its NUL inside the payload).
void EntryText(const uint8_t *entry, uint32_t entrySize, char (&text)[kMaxEntrySize]) {
   const uint32_t width = entrySize - kMirrorEntryPayloadAt;
   memcpy(text, entry + kMirrorEntryPayloadAt, width);
   text[width < kMaxEntrySize ? width : kMaxEntrySize - 1] = '\0';
}

// Checks that count entries from first lie in the table and that those the
// rule keeps as texts are terminated inside their payload.
bool CheckSide(const TableView &t, uint32_t session, const char *side, PortRule rule,
               uint64_t first, uint32_t count) {
   if (first + count > t.numPorts) {
      CONFIGSTORE_FAIL("Mirror session %u: %s ports %llu..%llu beyond the %u port entries\n",
                       session, side, static_cast<unsigned long long>(first),
                       static_cast<unsigned long long>(first + count), t.numPorts);
      return false;
   }
   for (uint32_t i = 0; i < count; i++) {
      const uint8_t *entry = t.Entry(static_cast<uint32_t>(first + i));
      if (EntryIsText(rule, EntryKind(entry)) &&
          memchr(entry + kMirrorEntryPayloadAt, '\0', t.entrySize - kMirrorEntryPayloadAt) ==
             nullptr) {
         CONFIGSTORE_FAIL("Mirror session %u: %s port %u not terminated\n", session, side, i);
         return false;
      }
   }
   return true;
}

// Checks the whole table against its length and its own counts before
// anything is written.
int32_t CheckTable(const void *value, uint32_t valueLen, uint32_t entrySize, TableView *t) {
   MirrorTableHeader header;
   if (value == nullptr || valueLen < sizeof header) {
      CONFIGSTORE_FAIL("Mirror session table too short: %u bytes\n", valueLen);
      return kConverterBadValue;
   }
   memcpy(&header, value, sizeof header);
   const uint64_t need = uint64_t{kHeaderSize} + uint64_t{header.numSessions} * kSessionSize +
                         uint64_t{header.numPorts} * entrySize;
   if (need > valueLen) {
      CONFIGSTORE_FAIL(
         "Mirror session table of %u sessions and %u ports needs %llu bytes, has %u\n",
         header.numSessions, header.numPorts, static_cast<unsigned long long>(need), valueLen);
      return kConverterBadValue;
   }
   *t = TableView{static_cast<const uint8_t *>(value), header.numSessions, header.numPorts,
                  entrySize};
   uint64_t next = 0;
   for (uint32_t i = 0; i < t->numSessions; i++) {
      const MirrorSession s = t->Session(i);
      if (memchr(s.key, '\0', sizeof s.key) == nullptr || s.key[0] == '\0' ||
          memchr(s.name, '\0', sizeof s.name) == nullptr) {
         // The key names the session's instance in the store.
         CONFIGSTORE_FAIL("Mirror session %u: key empty, or key or name not terminated\n", i);
         return kConverterBadValue;
      }
      if (s.sessionType >= kSessionTypeCount ||
          s.encapType >= static_cast<uint32_t>(VSPAN_ENCAP_TYPE_NUM)) {
         CONFIGSTORE_FAIL("Mirror session %s: bad session type %u or encap type %u\n", s.key,
                          s.sessionType, s.encapType);
         return kConverterBadValue;
      }
      if (!CheckSide(*t, i, kDestination, DestinationRule(s.sessionType), next, s.numDestPorts)) {
         return kConverterBadValue;
      }
      next += s.numDestPorts;
      if (!CheckSide(*t, i, kRecvSource, SourceRule(s.sessionType), next, s.numRecvPorts)) {
         return kConverterBadValue;
      }
      next += s.numRecvPorts;
      if (!CheckSide(*t, i, kTransmitSource, SourceRule(s.sessionType), next, s.numTransmitPorts)) {
         return kConverterBadValue;
      }
      next += s.numTransmitPorts;
      // Two sessions of one key would share one store instance.
      for (uint32_t j = 0; j < i; j++) {
         if (strcmp(t->Session(j).key, s.key) == 0) {
            CONFIGSTORE_FAIL("Mirror session %u: key %s used twice\n", i, s.key);
            return kConverterBadValue;
         }
      }
   }
   return cs::kSuccess;
}

// The address of an encapsulated destination as text: dotted IPv4, or
// eight groups of four hex digits for IPv6.
void FormatAddress(const uint8_t *entry, char (&text)[40]) {
   const uint8_t *a = entry + kMirrorEntryAddressAt;
   if (entry[kMirrorEntryPayloadAt] != 0) {
      snprintf(text, sizeof text,
               "%02x%02x:%02x%02x:%02x%02x:%02x%02x:%02x%02x:%02x%02x:%02x%02x:%02x%02x", a[0],
               a[1], a[2], a[3], a[4], a[5], a[6], a[7], a[8], a[9], a[10], a[11], a[12], a[13],
               a[14], a[15]);
      return;
   }
   char dotted[INET_ADDRSTRLEN];
   if (inet_ntop(AF_INET, a, dotted, sizeof dotted) == nullptr) {
      dotted[0] = '\0';
   }
   snprintf(text, sizeof text, "%s", dotted);
}

// Writes count entries from first onto side by rule.
int32_t WritePorts(const TableView &t, cs::Object *side, PortRule rule, uint32_t first,
                   uint32_t count) {
   int32_t rc = cs::kSuccess;
   switch (rule) {
      case PortRule::kPortKeys:
         rc = cs::SetValueEmptyList(side, kPortKeys);
         break;
      case PortRule::kUplinkNames:
         rc = cs::SetValueEmptyList(side, kUplinkNames);
         break;
      case PortRule::kVlans:
         rc = cs::SetValueEmptyList(side, "vlans");
         break;
      case PortRule::kMixed:
         rc = cs::SetValueEmptyList(side, kUplinkNames);
         if (rc == cs::kSuccess) {
            rc = cs::SetValueEmptyList(side, kPortKeys);
         }
         break;
      case PortRule::kAddresses:
         break;  // emptied per entry below
   }
   for (uint32_t i = 0; i < count && rc == cs::kSuccess; i++) {
      const uint8_t *entry = t.Entry(first + i);
      const uint32_t kind = EntryKind(entry);
      char text[kMaxEntrySize];
      switch (rule) {
         case PortRule::kPortKeys:
         case PortRule::kUplinkNames:
            EntryText(entry, t.entrySize, text);
            rc = cs::AppendValueString(side, rule == PortRule::kPortKeys ? kPortKeys : kUplinkNames,
                                       text);
            break;
         case PortRule::kMixed:
            if (kind == kMirrorPortKindKey || kind == kMirrorPortKindUplink) {
               EntryText(entry, t.entrySize, text);
               rc = cs::AppendValueString(
                  side, kind == kMirrorPortKindKey ? kPortKeys : kUplinkNames, text);
            }
            break;
         case PortRule::kVlans: {
            uint16_t vlan;
            memcpy(&vlan, entry + kMirrorEntryPayloadAt, sizeof vlan);
            rc = cs::AppendValueInt(side, "vlans", vlan);
            break;
         }
         case PortRule::kAddresses: {
            // Each address replaces the one before: the store keeps one.
            char address[40];
            FormatAddress(entry, address);
            rc = cs::SetValueEmptyList(side, "addresses");
            if (rc == cs::kSuccess) {
               rc = cs::AppendValueString(side, "addresses", address);
            }
            break;
         }
      }
   }
   return rc;
}

int32_t WriteWildcards(cs::Object *side, uint16_t bits) {
   int32_t rc = cs::SetValueEmptyList(side, kWildcardList);
   for (const WildcardType &w : kWildcardTypes) {
      if (rc == cs::kSuccess && (bits & w.bit) != 0) {
         rc = cs::AppendValueString(side, kWildcardList, w.text);
      }
   }
   return rc;
}

// Writes session i, whose port entries start at *nextPort, and advances
// *nextPort past them.  switchObj (may be null) receives the promiscuous
// session's key.
int32_t SaveSession(const TableView &t, uint32_t i, cs::Object *obj, const char *key,
                    cs::Object *switchObj, uint32_t *nextPort) {
   const MirrorSession s = t.Session(i);
   const uint32_t flags = s.sessionFlags;
   cs::Object *inst = nullptr;
   int32_t rc = GetOrCreateSubObject(true, obj, key, s.key, &inst);
   if (rc == cs::kSuccess) {
      rc = cs::SetValueStr(inst, "key", s.key);
   }
   if (rc == cs::kSuccess) {
      rc = cs::SetValueStr(inst, "name", s.name);
   }
   // Only the "not set" length is written; any other length is left out
   // and loads back as not set.
   if (rc == cs::kSuccess && s.mirroredPacketLength == kMirrorPacketLengthNotSet) {
      rc = cs::SetValueUint32(inst, "mirrored_packet_length", kMirrorPacketLengthNotSet);
   }
   if (rc == cs::kSuccess) {
      rc = cs::SetValueStr(inst, "session_type", SESSION_TYPE_LOCAL_ENUM_2_SCHEMA[s.sessionType]);
   }
   if (rc == cs::kSuccess) {
      rc = cs::SetValueBool(inst, "enabled", (flags & kFlagDisabled) == 0);
   }
   if (rc == cs::kSuccess) {
      rc = cs::SetValueBool(inst, "strip_original_vlan", (flags & kFlagKeepOriginalVlan) == 0);
   }
   if (rc != cs::kSuccess) {
      return rc;
   }
   // The results of these two writes are deliberately not checked.
   (void)cs::SetValueBool(inst, "normal_traffic_allowed", (flags & kFlagNoNormalTraffic) == 0);
   (void)cs::SetValueBool(inst, "legacy_mode", (flags & kFlagLegacyMode) != 0);

   if ((flags & kFlagLegacyMode) != 0 && switchObj != nullptr) {
      cs::Object *settings = nullptr;
      rc = GetOrCreateSubObject(true, switchObj, "settings", nullptr, &settings);
      if (rc == cs::kSuccess) {
         rc = cs::SetValueStr(settings, "promiscuous_mode_vspan_session", s.key);
      }
   }

   cs::Object *transmit = nullptr;
   cs::Object *recv = nullptr;
   cs::Object *dest = nullptr;
   if (rc == cs::kSuccess) {
      rc = GetOrCreateSubObject(true, inst, kTransmitSource, nullptr, &transmit);
   }
   if (rc == cs::kSuccess) {
      rc = GetOrCreateSubObject(true, inst, kRecvSource, nullptr, &recv);
   }
   if (rc == cs::kSuccess) {
      rc = cs::SetValueUint32(inst, "encapsulation_vlan_id", s.encapsulationVlanId);
   }
   if (rc == cs::kSuccess) {
      rc = WriteWildcards(recv, s.recvWildcardTypes);
   }
   if (rc == cs::kSuccess) {
      rc = WriteWildcards(transmit, s.transmitWildcardTypes);
   }
   if (rc != cs::kSuccess) {
      return rc;
   }
   (void)cs::SetValueUint32(inst, "sampling_rate", s.samplingRate);
   rc = cs::SetValueStr(inst, "encap_type", ENCAP_TYPE_LOCAL_ENUM_2SCHEMA[s.encapType]);
   if (rc == cs::kSuccess) {
      rc = cs::SetValueUint16(inst, "erspan_id", s.erspanId);
   }
   if (rc == cs::kSuccess) {
      rc = cs::SetValueUint16(inst, "erspan_COS", s.erspanCos);
   }
   if (rc == cs::kSuccess) {
      rc = cs::SetValueBool(inst, "erspan_gra_nanosec", s.erspanGraNanosec != 0);
   }
   if (rc == cs::kSuccess) {
      rc = GetOrCreateSubObject(true, inst, kDestination, nullptr, &dest);
   }
   if (rc == cs::kSuccess) {
      rc = WritePorts(t, dest, DestinationRule(s.sessionType), *nextPort, s.numDestPorts);
      *nextPort += s.numDestPorts;
   }
   if (rc == cs::kSuccess) {
      rc = WritePorts(t, recv, SourceRule(s.sessionType), *nextPort, s.numRecvPorts);
      *nextPort += s.numRecvPorts;
   }
   if (rc == cs::kSuccess) {
      rc = WritePorts(t, transmit, SourceRule(s.sessionType), *nextPort, s.numTransmitPorts);
      *nextPort += s.numTransmitPorts;
   }
   return rc;
}

// ---- load -------------------------------------------------------------------

// The port lists of one session as the store holds them.
struct StringList {
   char **items;
   uint32_t count;
};

struct SessionPorts {
   StringList destKeys;
   StringList destUplinks;
   StringList recvKeys;
   StringList transmitKeys;

   uint64_t Total() const {
      return uint64_t{destKeys.count} + destUplinks.count + recvKeys.count + transmitKeys.count;
   }
   void Release() {
      for (StringList *l : {&destKeys, &destUplinks, &recvKeys, &transmitKeys}) {
         if (l->items != nullptr) {
            cs::DestroyStringArrayValue(l->items, l->count);
         }
         *l = StringList{};
      }
   }
};

// The list listKey of the sub-object side of inst; an absent side or list
// is an empty list.
int32_t ReadSideList(cs::Object *inst, const char *side, const char *listKey, StringList *out) {
   cs::Object *obj = nullptr;
   int32_t rc = cs::GetSubObject(inst, side, nullptr, &obj);
   if (rc == cs::kSuccess) {
      rc = cs::GetValueStringArray(obj, listKey, &out->items, &out->count);
   }
   if (rc != cs::kSuccess) {
      out->items = nullptr;
      out->count = 0;
   }
   return AbsentIsSuccess(rc);
}

int32_t ReadSessionPorts(cs::Object *inst, SessionPorts *p) {
   int32_t rc = ReadSideList(inst, kDestination, kPortKeys, &p->destKeys);
   if (rc == cs::kSuccess) {
      rc = ReadSideList(inst, kDestination, kUplinkNames, &p->destUplinks);
   }
   if (rc == cs::kSuccess) {
      rc = ReadSideList(inst, kRecvSource, kPortKeys, &p->recvKeys);
   }
   if (rc == cs::kSuccess) {
      rc = ReadSideList(inst, kTransmitSource, kPortKeys, &p->transmitKeys);
   }
   return rc;
}

// A value the session may lack: absent leaves *v as it is.
template <typename T, int32_t (*GetFn)(cs::Object *, const char *, T *)>
int32_t ReadOptional(cs::Object *obj, const char *key, T *v) {
   T read{};
   const int32_t rc = GetFn(obj, key, &read);
   if (rc == cs::kSuccess) {
      *v = read;
   }
   return AbsentIsSuccess(rc);
}

// Reads the boolean key and, when it is false, adds bits to *flags.
int32_t FlagWhenFalse(cs::Object *inst, const char *key, uint32_t bits, uint32_t *flags) {
   bool b = true;
   const int32_t rc = ReadOptional<bool, cs::GetValueBool>(inst, key, &b);
   if (rc == cs::kSuccess && !b) {
      *flags |= bits;
   }
   return rc;
}

int32_t ReadWildcards(cs::Object *inst, const char *side, uint16_t *bits) {
   StringList list{};
   const int32_t rc = ReadSideList(inst, side, kWildcardList, &list);
   *bits = 0;
   for (uint32_t i = 0; i < list.count; i++) {
      for (const WildcardType &w : kWildcardTypes) {
         if (strcmp(list.items[i], w.text) == 0) {
            *bits = static_cast<uint16_t>(*bits | w.bit);
         }
      }
   }
   if (list.items != nullptr) {
      cs::DestroyStringArrayValue(list.items, list.count);
   }
   return rc;
}

// A text of the session mapped to its position in table (count texts, or
// fewer when a null closes it); an absent text leaves *index as it is.
// what names the setting in the message for a text the table lacks.
int32_t ReadEnumText(cs::Object *inst, const char *key, const char *const *table, uint32_t count,
                     const char *what, uint32_t *index) {
   char *text = nullptr;
   int32_t rc = cs::GetValueStr(inst, key, &text);
   if (rc != cs::kSuccess) {
      return AbsentIsSuccess(rc);
   }
   rc = kConverterFailure;
   for (uint32_t i = 0; i < count && table[i] != nullptr; i++) {
      if (strcmp(text, table[i]) == 0) {
         *index = i;
         rc = cs::kSuccess;
         break;
      }
   }
   if (rc != cs::kSuccess) {
      CONFIGSTORE_FAIL("Unknown vspan %s in schema: %s\n", what, text);
   }
   free(text);
   return rc;
}

// Fills the fields of s that the session instance holds, apart from the
// port counts.
int32_t ReadSession(cs::Object *inst, MirrorSession *s) {
   char *text = nullptr;
   int32_t rc = cs::GetValueStr(inst, "key", &text);
   if (rc != cs::kSuccess) {
      return rc;
   }
   snprintf(s->key, sizeof s->key, "%s", text);
   free(text);
   text = nullptr;
   rc = cs::GetValueStr(inst, "name", &text);
   if (rc == cs::kSuccess) {
      snprintf(s->name, sizeof s->name, "%s", text);
      free(text);
   } else if (rc != cs::kNotFound) {
      return rc;
   }

   uint32_t u32 = 0;
   s->mirroredPacketLength =
      cs::GetValueUint32(inst, "mirrored_packet_length", &u32) == cs::kSuccess
         ? u32
         : kMirrorPacketLengthNotSet;
   uint16_t u16 = 0;
   rc = ReadOptional<uint16_t, cs::GetValueUint16>(inst, "encapsulation_vlan_id", &u16);
   if (rc != cs::kSuccess) {
      return rc;
   }
   s->encapsulationVlanId = u16;

   // The flags are the complement of what the store says, except that a
   // legacy-mode session is the one stored with "legacy_mode" false.
   uint32_t flags = 0;
   rc = FlagWhenFalse(inst, "enabled", kFlagDisabled, &flags);
   if (rc == cs::kSuccess) {
      rc = FlagWhenFalse(inst, "strip_original_vlan", kFlagKeepOriginalVlan, &flags);
   }
   if (rc == cs::kSuccess) {
      rc = FlagWhenFalse(inst, "normal_traffic_allowed",
                         kFlagNoNormalTraffic | kFlagNoNormalTrafficLoaded, &flags);
   }
   if (rc == cs::kSuccess) {
      rc = FlagWhenFalse(inst, "legacy_mode", kFlagLegacyMode, &flags);
   }
   if (rc != cs::kSuccess) {
      return rc;
   }
   if (s->encapsulationVlanId != 0) {
      flags |= kFlagEncapVlan;
   }
   s->sessionFlags = flags;

   rc = ReadWildcards(inst, kRecvSource, &u16);
   s->recvWildcardTypes = u16;
   if (rc == cs::kSuccess) {
      rc = ReadWildcards(inst, kTransmitSource, &u16);
      s->transmitWildcardTypes = u16;
   }
   u32 = 0;
   if (rc == cs::kSuccess) {
      rc = ReadEnumText(inst, "session_type", SESSION_TYPE_LOCAL_ENUM_2_SCHEMA,
                        static_cast<uint32_t>(VSPAN_SESSION_TYPE_NUM), "session type", &u32);
      s->sessionType = u32;
   }
   u32 = 0;
   if (rc == cs::kSuccess) {
      rc = ReadOptional<uint32_t, cs::GetValueUint32>(inst, "sampling_rate", &u32);
      s->samplingRate = u32;
   }
   u32 = 0;
   if (rc == cs::kSuccess) {
      rc = ReadEnumText(inst, "encap_type", ENCAP_TYPE_LOCAL_ENUM_2SCHEMA,
                        static_cast<uint32_t>(VSPAN_ENCAP_TYPE_NUM), "encap type", &u32);
      s->encapType = u32;
   }
   u16 = 0;
   if (rc == cs::kSuccess) {
      rc = ReadOptional<uint16_t, cs::GetValueUint16>(inst, "erspan_id", &u16);
      s->erspanId = u16;
   }
   u32 = 0;
   if (rc == cs::kSuccess) {
      rc = ReadOptional<uint32_t, cs::GetValueUint32>(inst, "erspan_COS", &u32);
      s->erspanCos = static_cast<uint8_t>(u32 & 0xFF);
   }
   bool b = false;
   if (rc == cs::kSuccess) {
      rc = ReadOptional<bool, cs::GetValueBool>(inst, "erspan_gra_nanosec", &b);
      s->erspanGraNanosec = b ? 1 : 0;
   }
   return rc;
}

// Appends the texts of list as entries of kind, from entry *next on.
int32_t PutPorts(uint8_t *ports, uint32_t entrySize, const StringList &list, uint32_t kind,
                 const char *sessionKey, uint32_t *next) {
   const uint32_t width = entrySize - kMirrorEntryPayloadAt;
   for (uint32_t i = 0; i < list.count; i++) {
      const size_t len = strlen(list.items[i]);
      if (len >= width) {
         CONFIGSTORE_FAIL("Mirror session %s: port %s longer than %u characters\n", sessionKey,
                          list.items[i], width - 1);
         return kConverterBadValue;
      }
      uint8_t *entry = ports + size_t{*next} * entrySize;
      memcpy(entry, &kind, sizeof kind);
      memcpy(entry + kMirrorEntryPayloadAt, list.items[i], len + 1);
      (*next)++;
   }
   return cs::kSuccess;
}

// Builds the table of n sessions into a zeroed buffer of len bytes.
int32_t FillTable(uint8_t *buf, uint32_t entrySize, cs::Object **insts, SessionPorts *ports,
                  uint32_t n, uint32_t numPorts) {
   const MirrorTableHeader header{kMirrorTableMagic, kMirrorTableVersion, n, numPorts, 0};
   memcpy(buf, &header, sizeof header);
   uint8_t *portArray = buf + kHeaderSize + size_t{n} * kSessionSize;
   uint32_t next = 0;
   for (uint32_t i = 0; i < n; i++) {
      MirrorSession s;
      memset(&s, 0, sizeof s);
      int32_t rc = ReadSession(insts[i], &s);
      if (rc != cs::kSuccess) {
         return rc;
      }
      const SessionPorts &p = ports[i];
      s.firstPortIndex = next;
      s.numDestPorts = p.destKeys.count + p.destUplinks.count;
      s.numRecvPorts = p.recvKeys.count;
      s.numTransmitPorts = p.transmitKeys.count;
      rc = PutPorts(portArray, entrySize, p.destKeys, kMirrorPortKindKey, s.key, &next);
      if (rc == cs::kSuccess) {
         rc = PutPorts(portArray, entrySize, p.destUplinks, kMirrorPortKindUplink, s.key, &next);
      }
      if (rc == cs::kSuccess) {
         rc = PutPorts(portArray, entrySize, p.recvKeys, kMirrorPortKindKey, s.key, &next);
      }
      if (rc == cs::kSuccess) {
         rc = PutPorts(portArray, entrySize, p.transmitKeys, kMirrorPortKindKey, s.key, &next);
      }
      if (rc != cs::kSuccess) {
         return rc;
      }
      memcpy(buf + kHeaderSize + size_t{i} * kSessionSize, &s, sizeof s);
   }
   return cs::kSuccess;
}

// Builds and stores the table from the n session instances.
int32_t LoadSessions(cs::Object **insts, uint32_t n, uint32_t entrySize, DVSDataHandle props,
                     const char *propName, uint64_t propFlag) {
   auto *ports = static_cast<SessionPorts *>(calloc(n, sizeof(SessionPorts)));
   if (ports == nullptr) {
      CONFIGSTORE_FAIL("Failed to alloc memory for DVMirrorSessionTable\n");
      return kConverterFailure;
   }
   int32_t rc = cs::kSuccess;
   uint64_t numPorts = 0;
   for (uint32_t i = 0; i < n && rc == cs::kSuccess; i++) {
      rc = ReadSessionPorts(insts[i], &ports[i]);
      numPorts += ports[i].Total();
   }
   uint8_t *buf = nullptr;
   uint64_t len = 0;
   if (rc == cs::kSuccess) {
      len = uint64_t{kHeaderSize} + uint64_t{n} * kSessionSize + numPorts * entrySize;
      buf = len <= UINT32_MAX ? static_cast<uint8_t *>(calloc(1, len)) : nullptr;
      if (buf == nullptr) {
         CONFIGSTORE_FAIL("Failed to alloc memory for DVMirrorSessionTable\n");
         rc = kConverterFailure;
      }
   }
   if (rc == cs::kSuccess) {
      rc = FillTable(buf, entrySize, insts, ports, n, static_cast<uint32_t>(numPorts));
   }
   if (rc == cs::kSuccess) {
      rc = static_cast<int32_t>(DVSData_Update(props, propName, buf, static_cast<uint32_t>(len),
                                               static_cast<uint32_t>(propFlag)));
   }
   free(buf);
   for (uint32_t i = 0; i < n; i++) {
      ports[i].Release();
   }
   free(ports);
   return rc;
}

}  // namespace

// The promiscuous session's key goes to the switch object's "settings"
// (ctx.switchObj: for a port row, the object of the port's switch).
int32_t SaveMirrorSessions(cs::Object *obj, const char *key, const void *value, uint32_t valueLen,
                           const ConvertContext &ctx) {
   TableView t{};
   int32_t rc = CheckTable(value, valueLen, MirrorPortEntrySize(ctx.version), &t);
   uint32_t nextPort = 0;
   for (uint32_t i = 0; i < t.numSessions && rc == cs::kSuccess; i++) {
      rc = SaveSession(t, i, obj, key, ctx.switchObj, &nextPort);
   }
   return rc;
}

int32_t LoadMirrorSessions(cs::Object *obj, const char *key, DVSDataHandle props,
                           const char *propName, uint64_t propFlag, const ConvertContext &ctx) {
   cs::FilterSpec *filter = nullptr;
   int32_t rc = cs::CreateFilterSpecObject(key, "", "", "", &filter);
   if (rc != cs::kSuccess) {
      return rc;
   }
   cs::Object **insts = nullptr;
   uint32_t n = 0;
   rc = cs::GetSubObjectInstances(obj, filter, &insts, &n);
   cs::DestroyFilterSpecObject(filter);
   if (rc == cs::kNotFound) {
      rc = cs::kSuccess;  // no sessions, no property
   } else if (rc == cs::kSuccess && n >= 1) {
      rc = LoadSessions(insts, n, MirrorPortEntrySize(ctx.version), props, propName, propFlag);
   }
   free(insts);
   return rc;
}

}  // namespace dvs::configstore
