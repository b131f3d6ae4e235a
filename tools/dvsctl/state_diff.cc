// state_diff.cc -- two hosts' switch state compared property by property:
// host blobs read through the host blob view, and the walk that pairs
// switches, ports and properties and tallies their differences.
#include "state_diff.h"

#include <algorithm>
#include <map>
#include <set>
#include <utility>

#include <dvsstate.h>

#include "blob_tree.h"
#include "error.h"
#include "host_blob_view.h"
#include "state_diff_internal.h"

namespace dvsctl {
namespace {

using namespace diff;

std::vector<HostProp> Props(const BlobTree &list) {
   std::vector<HostProp> out;
   out.reserve(list.properties.size());
   for (const Property &p : list.properties) {
      out.push_back({p.name, p.flag, StoredValue(p)});
   }
   return out;
}

// The comparison needs every fixed record of a switch and every port's
// data; a switch without them is refused rather than compared in part.
HostSwitch TakeSwitch(const SwitchView &view, const std::string &name) {
   const std::string what = name + ": switch " + view.id;
   if (!view.missing.empty()) {
      throw Error(what + ": no " + view.missing.front() + " record, not a switch blob");
   }
   if (!view.unreadable.empty()) {
      throw Error(what + ": " + view.unreadable.front());
   }
   if (!view.version || !view.className || !view.maxPorts) {
      throw Error(what + ": not a switch blob");  // the view says why among its problems
   }
   HostSwitch sw{
      view.id, *view.version, *view.className, *view.maxPorts, Props(view.global), Props(view.host),
      {}};
   // A second port of the same id (an active port and its shadow) is told
   // apart by its place.
   std::map<std::string, int> portCount;
   for (const PortView &port : view.ports) {
      const int n = ++portCount[port.id];
      sw.ports.push_back({n == 1 ? port.id : port.id + "#" + std::to_string(n), Props(port.data)});
   }
   return sw;
}

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
      const SwitchPair sw = PairSwitches(b, a);
      if (b.version != a.version) {
         Add({b.id, "switch", "version", "", std::to_string(b.version), std::to_string(a.version),
              ClassifyVersion(sw)});
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

   void CompareList(const ListPair &l) {
      std::set<std::string> pairedBefore, pairedAfter;
      // A property the load names after the switch's family comes back
      // under its sibling's name.
      for (const HostProp &b : l.before) {
         std::string loaded;
         bool saved = false;
         if (!LoadedSibling(l, b.name, loaded, saved) || loaded == b.name || !saved ||
             FindProp(l.before, loaded) != nullptr || FindProp(l.after, b.name) != nullptr) {
            continue;
         }
         if (const HostProp *a = FindProp(l.after, loaded)) {
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
      for (const FieldChange &c : DiffFields(fb, fa)) {
         const bool bit = c.bit != 0;
         diffs.push_back(Diff(l, shown, c.path,
                              bit ? (c.before == true ? "set" : "clear") : ShowField(c.before),
                              bit ? (c.after == true ? "set" : "clear") : ShowField(c.after),
                              ClassifyField(*kind, c)));
      }
   }

   DiffReport report_;
};

}  // namespace

HostState ReadHostState(const Bytes &blob, const std::string &name) {
   HostState host;
   for (const SwitchView &sw : ViewHostBlob(blob, name).switches) {
      host.switches.push_back(TakeSwitch(sw, name));
   }
   return host;
}

DiffReport DiffHosts(const HostState &before, const HostState &after) {
   return Differ().Run(before, after);
}

}  // namespace dvsctl
