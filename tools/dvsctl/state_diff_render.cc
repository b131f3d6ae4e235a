// state_diff_render.cc -- a comparison's report as text and as JSON.
#include <cstdio>
#include <sstream>

#include "state_diff.h"

namespace dvsctl {
namespace {

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
      for (const Conversion &c : DocumentedConversions()) {
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
   for (const Conversion &c : DocumentedConversions()) {
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
