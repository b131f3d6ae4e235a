// state_diff.h -- two hosts' switch state compared property by property.
//
// The comparison pairs switches by id and ports by id, and compares each
// property's flag and value; a structured value (property_codecs.h) is
// compared field by field.  Every difference is classified: "documented"
// when it is one of the known conversions of a save to the configuration
// store and a load back (DocumentedConversions(): flags become 0x10,
// teaming codes 4 and 5 swap, the legacy bit of a mirror session inverts,
// ...), "unexpected" otherwise.  A difference is documented only when the
// values on both sides are the ones the conversion produces: a teaming
// policy 4 that comes back 3 is unexpected.
#ifndef DVSCTL_STATE_DIFF_H
#define DVSCTL_STATE_DIFF_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "io.h"

namespace dvsctl {

struct HostProp {
   std::string name;
   uint32_t flag = 0;
   Bytes value;
};

struct HostPort {
   std::string id;  // "ID", or "ID#2" for a second port of the same id
   std::vector<HostProp> props;
};

struct HostSwitch {
   std::string id;
   uint32_t version = 0;
   std::string className;
   uint32_t maxPorts = 0;
   std::vector<HostProp> global;
   std::vector<HostProp> host;
   std::vector<HostPort> ports;
};

struct HostState {
   std::vector<HostSwitch> switches;
};

// Reads a host configuration blob through the host blob view, with every
// value as stored.  A blob that does not decode, is not a host blob, or
// holds a switch whose fixed records are missing or unreadable (or a port
// whose data is not a property blob), throws dvsctl::Error naming `name`.
HostState ReadHostState(const Bytes &blob, const std::string &name);

// One known conversion of the store round trip.
struct Conversion {
   const char *id;      // short name, e.g. "teaming-policy-4-5"
   const char *what;    // the property or field it concerns
   const char *reason;  // why it changes
};

const std::vector<Conversion> &DocumentedConversions();

struct Difference {
   std::string switchId;
   std::string list;      // "switch", "global", "host", "port ID"
   std::string property;  // property name ("A -> B" when renamed), or a switch or port field
   std::string field;     // path inside a structured value; empty for the whole property
   std::string before;    // shown values; "(absent)" for a missing one
   std::string after;
   const Conversion *conversion = nullptr;  // null: unexpected
};

struct DiffSummary {
   size_t switches = 0;  // compared (present on both sides)
   size_t ports = 0;
   size_t properties = 0;
   size_t identical = 0;
   size_t flagOnly = 0;         // properties whose one difference is the documented flag
   size_t documentedOnly = 0;   // other properties whose differences are all documented
   size_t unexpectedProps = 0;  // properties with an unexpected difference
   size_t unexpected = 0;       // unexpected differences, switch and port ones included
   std::map<std::string, size_t> byConversion;  // conversion id -> differences
};

struct DiffReport {
   std::vector<Difference> differences;
   DiffSummary summary;
};

DiffReport DiffHosts(const HostState &before, const HostState &after);

// One line per difference (only the unexpected ones with summaryOnly),
// then the summary:
//   documented  flag  switch S port 17 com.ostrel.common.port.alias: flag 0x20 -> 0x10
//   UNEXPECTED  -     switch S global com.ostrel.vswitch.teaming policy: 4 -> 3
std::string RenderDiffText(const DiffReport &report, bool summaryOnly);

// {"differences": [{"switch", "list", "property", "field", "before", "after",
//   "classification": "documented"|"unexpected", "conversion": ID|null}],
//  "summary": {"switches", "ports", "properties", "identical", "flagOnly", "documented",
//   "unexpected", "unexpectedDifferences", "byConversion": {ID: N}}}
nlohmann::ordered_json RenderDiffJson(const DiffReport &report, bool summaryOnly);

}  // namespace dvsctl

#endif  // DVSCTL_STATE_DIFF_H
