// property_codecs.h -- structured property values as named fields.
//
// Several switch and port properties hold a packed binary record (a
// teaming policy, a table of mirror sessions, a private VLAN map, ...).
// A codec turns such a value into a JSON object of named fields and makes
// a value from such an object again.  Integers are host byte order, as the
// kernel and the store mapping keep them.
//
// Decoding checks the value against its layout first: a value that is too
// short, too long, or whose counts or texts do not fit is refused with a
// reason, and nothing past its end is ever read.  Bytes a layout reserves
// appear as a "reserved" hex text only when they are not zero, so that a
// value whose reserved bytes are set does not decode like one whose are
// clear.  The padding after the NUL of a text slot has no meaning and is
// not shown.
//
// Field names follow the layouts:
//
//   teaming         {"policy", "failureFlags", "percentage", "fullDuplex", "speed",
//                    "teamingFlags", "active": [S], "standby": [S]}
//   lacp groups     {"groups": [{"name", "key", "mode", "loadBalanceAlgorithm",
//                                "uplinkNum"}]}
//   lacp policy     {"enabled", "mode"}
//   pvlan map       {"entries": [{"primaryId", "secondaryId", "type"}]}
//                   (+ "trailing": hex, bytes after the last whole entry)
//   mirror sessions {"magic", "version", "sessions": [{"key", "name", "sessionType",
//                    "mirroredPacketLength", "sessionFlags", "encapsulationVlanId",
//                    "recvWildcardTypes", "transmitWildcardTypes", "samplingRate",
//                    "encapType", "erspanId", "erspanCos", "erspanGraNanosec",
//                    "destination": [E], "receive": [E], "transmit": [E]}]}
//                   E is {"kind", "text"} (a port key or uplink name), {"kind", "vlan"}
//                   (the sources of a remote mirror destination) or {"kind", "address"}
//                   (the destinations of an encapsulated remote mirror source)
//   ipfix           {"idleFlowTimeout", "activeFlowTimeout", "collectorAddress",
//                    "collectorPort", "samplingRate", "internalFlowsOnly",
//                    "collectorIsIpv6", "observationDomainId"}
//                   (+ "addressTail": hex, the 12 bytes after an IPv4 address)
//   link discovery  {"protocol", "operation"}
//   health check    {"enable", "interval"}
//   port vlan       {"flags", "vlanId", "ranges": [{"start", "end"}]}
//   shaping         {"averageBandwidth", "peakBandwidth", "burstSize"}
//   security        {"rejectBits"}
//   name lists      {"names": [S]}  (uplink names, uplink port keys, pool keys)
#ifndef DVSCTL_PROPERTY_CODECS_H
#define DVSCTL_PROPERTY_CODECS_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "io.h"

namespace dvsctl {

using Fields = nlohmann::ordered_json;

enum class CodecKind {
   kTeaming,
   kLacpGroups,
   kLacpPolicy,
   kPvlanMap,
   kMirrorSessions,
   kIpfix,
   kLinkDiscovery,
   kHealthCheck,
   kPortVlan,
   kShaping,
   kSecurity,
   kUplinkNames,
   kUplinkKeys,
   kResPoolKeys,
};

// What a layout depends on besides the value: the width of a mirror
// session table's port entries follows the switch version
// (dvs::layouts::MirrorPortEntrySize).
struct CodecContext {
   uint32_t switchVersion = 0;
};

// The codec of a property, by its name: the one of the store converter
// its row in libdvs's property-to-store maps names; none for a property
// that is not a structured one.
std::optional<CodecKind> CodecFor(std::string_view propName);

// A short name of the codec ("teaming", "mirror sessions", ...).
const char *CodecName(CodecKind kind);

// Fills `out` with the fields of the value.  Returns false, with `why`
// saying what does not fit, for a value that does not decode; `out` must
// not be used then.
bool DecodeProperty(CodecKind kind, const uint8_t *data, size_t len, const CodecContext &ctx,
                    Fields &out, std::string &why);

inline bool DecodeProperty(CodecKind kind, const Bytes &value, const CodecContext &ctx, Fields &out,
                           std::string &why) {
   return DecodeProperty(kind, value.data(), value.size(), ctx, out, why);
}

// The value made from `fields`.  A missing field, one of the wrong type or
// out of its range, a text too long for its slot or too many list entries
// throw dvsctl::Error naming the codec and the field.  Optional fields
// ("reserved", "trailing", "addressTail") default to zero bytes.
Bytes EncodeProperty(CodecKind kind, const Fields &fields, const CodecContext &ctx);

}  // namespace dvsctl

#endif  // DVSCTL_PROPERTY_CODECS_H
