// state_diff_catalogue.cc -- the documented conversions of a store round
// trip, and how the comparison shows values.
#include <algorithm>
#include <cstdio>
#include <cstring>

#include "error.h"
#include "state_diff_internal.h"

namespace dvsctl {
namespace {

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

}  // namespace

const std::vector<Conversion> &DocumentedConversions() {
   return kConversions;
}

namespace diff {

const Conversion *Conv(const char *id) {
   for (const Conversion &c : kConversions) {
      if (std::strcmp(c.id, id) == 0) {
         return &c;
      }
   }
   throw Error(std::string("no documented conversion \"") + id + "\"");
}

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

}  // namespace diff
}  // namespace dvsctl
