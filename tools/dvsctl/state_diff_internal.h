// state_diff_internal.h -- the parts of the host comparison that its files
// share: the conversion catalogue, value display, the field walk and the
// classifiers.  Not used outside state_diff*.cc.
//
//   state_diff_catalogue.cc    the documented conversions; how values are shown
//   state_diff_fields.cc       structured values compared field by field, and
//                              the classifiers of field changes
//   state_diff_properties.cc   the classifiers of whole properties: rows that
//                              share a store key, scalars, lost and added rows
//   state_diff.cc              host blobs read through the host blob view, and
//                              the walk that pairs switches, ports and properties
//   state_diff_render.cc       the report as text and as JSON
#ifndef DVSCTL_STATE_DIFF_INTERNAL_H
#define DVSCTL_STATE_DIFF_INTERNAL_H

#include <cstdint>
#include <string>
#include <vector>

#include "property_codecs.h"
#include "state_diff.h"

namespace dvsctl {
namespace diff {

// ---- the catalogue (state_diff_catalogue.cc) ----

// The flag every property rebuilt from the store carries.
constexpr uint32_t kLoadedFlag = 0x10;

// The documented conversion `id`; throws dvsctl::Error for an id that is
// not in the catalogue (a fault of this tool, not of the input).
const Conversion *Conv(const char *id);

inline const Conversion *ConvIf(bool matches, const char *id) {
   return matches ? Conv(id) : nullptr;
}

std::string Hex32(uint32_t v);
// Text when the value is printable and NUL-terminated, else hex (cut after
// 32 bytes).
std::string ShowBytes(const Bytes &v);
std::string ShowField(const Fields &f);

// ---- field by field (state_diff_fields.cc) ----

extern const Fields kNull;

struct FieldChange {
   std::string path;
   std::string key;  // the last member name on the path
   Fields before;    // null when absent
   Fields after;
   uint64_t bit = 0;  // the single bit of a flag word that changed
   const Fields *beforeParent = &kNull;
   const Fields *afterParent = &kNull;
};

const Fields &MemberOr(const Fields &obj, const std::string &key);

// The changes between two decoded values: flag words bit by bit, lists
// entry by entry (but the mirror port lists, whose entries move, whole).
std::vector<FieldChange> DiffFields(const Fields &before, const Fields &after);

// The conversion that explains a change of a structured value of `kind`;
// null when none does.
const Conversion *ClassifyField(CodecKind kind, const FieldChange &c);

// ---- whole properties (state_diff_properties.cc) ----

enum class ListKind { kGlobal, kHost, kPort };

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

SwitchPair PairSwitches(const HostSwitch &before, const HostSwitch &after);
const HostProp *FindProp(const std::vector<HostProp> &props, const std::string &name);

// A switch version that changed.
const Conversion *ClassifyVersion(const SwitchPair &sw);

// For a property of an etherswitch/vswitch pair: the one of the two a load
// gives back on this switch, and in `saved` whether the save keeps `name`.
// False for other properties.
bool LoadedSibling(const ListPair &l, const std::string &name, std::string &loaded, bool &saved);

// A property present on both sides whose value changed, not structured.
const Conversion *ClassifyScalar(const ListPair &l, const HostProp &b, const HostProp &a);
// A property present before only.
const Conversion *ClassifyLost(const ListPair &l, const HostProp &b);
// A property present after only.
const Conversion *ClassifyAdded(const ListPair &l, const HostProp &a);

}  // namespace diff
}  // namespace dvsctl

#endif  // DVSCTL_STATE_DIFF_INTERNAL_H
