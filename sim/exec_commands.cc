// Command execution (code 28): the text commands that the simulator runs
// for its clients, mostly to look at its state and to plan faults.
//
//   help                   the list of commands
//   summary                one line per switch; with a switch name, that one
//   ports                  the ports of the named switch, one per line
//   echo                   the command input, unchanged
//   fault                  the planned faults, one per line
//   fault FAULT[,FAULT...] plans faults (ParseFaults' syntax)
//   fault clear            drops every planned fault
//
// An unknown command is STATUS_NOT_SUPPORTED; a missing or unknown switch
// STATUS_BAD_PARAM or STATUS_NOT_FOUND.
#include <sstream>
#include <vector>

#include "sim/simulator.h"

namespace dvs::sim {
namespace {

constexpr const char *kHelp =
   "help                   this list\n"
   "summary                one line per switch (only the switch named in the record, if any)\n"
   "ports                  the ports of the switch named in the record, one per line\n"
   "echo                   the command input, unchanged\n"
   "fault                  the planned faults, one per line\n"
   "fault FAULT[,FAULT...] plan faults; FAULT is CODE:COUNT:STATUS[:LENGTH]\n"
   "fault clear            drop all planned faults\n";

std::vector<std::string> Words(const std::string &text) {
   std::istringstream in(text);
   std::vector<std::string> words;
   for (std::string word; in >> word;) {
      words.push_back(word);
   }
   return words;
}

std::string PortTypeName(uint32_t type) {
   switch (type) {
      case DVS_PORT_ACTIVE:
         return "active";
      case DVS_PORT_SHADOW:
         return "shadow";
      case DVS_PORT_ZOMBIE:
         return "zombie";
      case DVS_PORT_LOCAL_CACHE:
         return "local-cache";
      default:
         return "type-" + std::to_string(type);
   }
}

void SummaryLine(const Switch &sw, std::ostream &out) {
   out << sw.id << " class=" << sw.className << " version=" << sw.version
       << " maxPorts=" << sw.maxPorts << " ports=" << sw.ports.size()
       << " associated=" << (sw.associated ? "yes" : "no")
       << " global=" << CountEntries(sw.global.get()) << " host=" << CountEntries(sw.host.get())
       << '\n';
}

}  // namespace

ReturnStatus Simulator::Exec(const std::string &switchName, const std::string &cmdText,
                             std::string_view input, Bytes *out) {
   const std::vector<std::string> words = Words(cmdText);
   const std::string verb = words.empty() ? "" : words[0];
   std::ostringstream text;

   if (verb == "help" && words.size() == 1) {
      text << kHelp;
   } else if (verb == "echo" && words.size() == 1) {
      *out = Bytes(input);
      return STATUS_OK;
   } else if (verb == "summary" && words.size() == 1) {
      if (switchName.empty()) {
         text << "switches: " << state_.switches.size() << '\n';
         for (const Switch &sw : state_.switches) {
            SummaryLine(sw, text);
         }
      } else if (const Switch *sw = state_.FindSwitch(switchName)) {
         SummaryLine(*sw, text);
      } else {
         return STATUS_NOT_FOUND;
      }
   } else if (verb == "ports" && words.size() == 1) {
      if (switchName.empty()) {
         return STATUS_BAD_PARAM;
      }
      const Switch *sw = state_.FindSwitch(switchName);
      if (sw == nullptr) {
         return STATUS_NOT_FOUND;
      }
      for (const Port &port : sw->ports) {
         text << port.id << ' ' << PortTypeName(port.type)
              << " properties=" << CountEntries(port.data.get())
              << " uplinks=" << port.uplinks.size() << '\n';
      }
   } else if (verb == "fault" && words.size() == 1) {
      for (const auto &[code, fault] : faults_) {
         text << FormatFault(fault) << '\n';
      }
   } else if (verb == "fault" && words.size() == 2 && words[1] == "clear") {
      faults_.clear();
   } else if (verb == "fault" && words.size() == 2) {
      std::vector<Fault> planned;
      std::string error;
      if (!ParseFaults(words[1], &planned, &error)) {
         return STATUS_BAD_PARAM;
      }
      for (const Fault &fault : planned) {
         InjectFaultLocked(fault);
      }
   } else {
      return STATUS_NOT_SUPPORTED;
   }
   *out = text.str();
   return STATUS_OK;
}

}  // namespace dvs::sim
