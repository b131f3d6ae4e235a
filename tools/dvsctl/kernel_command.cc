// kernel_command.cc -- the "dvsctl kernel" command family.
#include "kernel_command.h"

#include <cstdint>
#include <iostream>
#include <map>
#include <memory>
#include <string>

#include <dvshyp.h>
#include <dvsstate.h>

#include "error.h"
#include "property_list.h"
#include "sample_host.h"
#include "state_command.h"
#include "state_file_command.h"
#include "subcommands.h"

namespace dvsctl {
namespace {

// Flag of the port data records port-add writes.
constexpr uint32_t kConfigProp = 0x20;

constexpr const char *kKernelFooter =
   R"(Every command is one request to the kernel's switch device.  When the
environment variable DVS_DEVICE_PATH names a Unix-domain socket, requests go
to the kernel switch simulator listening there (dvs-kernel-sim) instead.)";

constexpr const char *kShowFooter =
   R"(The kernel's switch state, as a host configuration blob, printed as
"dvsctl state show" prints one (see there for the JSON shape).)";

constexpr const char *kLoadSampleFooter =
   R"(Builds a realistic host (switches of the classes etherswitch, vswitch,
cswitch and zltvswitch in turn, with their versions, teaming, LACP, private
VLANs, mirror sessions, IPFIX, link discovery, health checks, port VLANs,
shaping, security, resource pools and uplinks) and replaces the kernel's
whole switch state with it (DVSHYP_StateInit).  The same seed gives the
same host.)";

const std::map<std::string, uint32_t> kPortTypes = {{"active", DVS_PORT_ACTIVE},
                                                    {"shadow", DVS_PORT_SHADOW},
                                                    {"zombie", DVS_PORT_ZOMBIE},
                                                    {"local-cache", DVS_PORT_LOCAL_CACHE}};

// `text` as an unsigned 32-bit number: decimal, or hex after "0x".
uint32_t ParseU32(const std::string &text, const std::string &what) {
   const bool hex = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
   const std::string digits = hex ? text.substr(2) : text;
   const char *allowed = hex ? "0123456789abcdefABCDEF" : "0123456789";
   if (digits.empty() || digits.size() > 10 ||
       digits.find_first_not_of(allowed) != std::string::npos) {
      throw Error(what + " \"" + text + "\" is not an unsigned 32-bit number");
   }
   const unsigned long long number = std::stoull(digits, nullptr, hex ? 16 : 10);
   if (number > UINT32_MAX) {
      throw Error(what + " \"" + text + "\" is not an unsigned 32-bit number");
   }
   return static_cast<uint32_t>(number);
}

std::string SwitchName(const std::string &id) {
   return "switch " + id;
}

std::string PortName(const std::string &sw, const std::string &port) {
   return "port " + port + " of switch " + sw;
}

void AddShow(CLI::App &kernel) {
   AddShowSubcommand(
      kernel, "Print the kernel's switch state as switches and ports", kShowFooter,
      [](const ShowOptions &options) {
         void *buf = nullptr;
         uint32_t len = 0;
         const ReturnStatus status = DVSHYP_StateGet(&buf, &len);
         const Bytes state = TakeKernelData(buf, status == STATUS_OK ? len : 0);
         CheckStatus(status, "cannot get the kernel state");
         PrintHostBlob(state, "kernel state", options);
      },
      ShowInput::kNone);
}

void AddSwitchCommands(CLI::App &kernel) {
   struct SwitchArgs {
      std::string id;
      std::string className;
      uint32_t maxPorts = 0;
      uint32_t version = 0;
   };
   auto args = std::make_shared<SwitchArgs>();
   CLI::App *add = kernel.add_subcommand("switch-add", "Add a switch to the kernel");
   add->add_option("id", args->id, "Switch id")->required();
   add->add_option("class", args->className, "Class name")->required();
   add->add_option("maxports", args->maxPorts, "Port limit (0: none)")->required();
   add->add_option("version", args->version, "Switch version")->required();
   add->callback([args] {
      CheckStatus(
         DVSHYP_SwitchAdd(args->id.c_str(), args->className.c_str(), args->maxPorts, args->version),
         "cannot add " + SwitchName(args->id));
   });

   CLI::App *remove =
      kernel.add_subcommand("switch-remove", "Remove a switch and its ports from the kernel");
   remove->add_option("id", args->id, "Switch id")->required();
   remove->callback([args] {
      CheckStatus(DVSHYP_SwitchRemove(args->id.c_str()), "cannot remove " + SwitchName(args->id));
   });
}

void AddPropSet(CLI::App &kernel) {
   struct PropArgs {
      std::string id;
      std::string name;
      std::string value;
      bool host = false;
      bool u32 = false;
      uint32_t flag = 0;
   };
   auto args = std::make_shared<PropArgs>();
   CLI::App *cmd = kernel.add_subcommand("prop-set", "Set a global or host property of a switch");
   cmd->add_option("id", args->id, "Switch id")->required();
   cmd->add_option("name", args->name, "Property name")->required();
   cmd->add_option("value", args->value, "Value: the text and its terminating NUL")->required();
   cmd->add_flag("--host", args->host, "Set a host property instead of a global one");
   cmd->add_flag("--u32", args->u32,
                 "VALUE is a number (decimal, or hex with 0x): store it as a 4-byte unsigned "
                 "integer in host byte order");
   cmd->add_option("--flag", args->flag, "Property flag (0: the default type, 0x20)")
      ->capture_default_str();
   cmd->callback([args] {
      const auto set = args->host ? DVSHYP_HostPropSet : DVSHYP_GlobalPropSet;
      Bytes value(args->value.begin(), args->value.end());
      value.push_back('\0');
      if (args->u32) {
         const uint32_t number = ParseU32(args->value, "--u32 value");
         value.assign(reinterpret_cast<const uint8_t *>(&number),
                      reinterpret_cast<const uint8_t *>(&number) + sizeof number);
      }
      CheckStatus(set(args->id.c_str(), args->name.c_str(), value.data(),
                      static_cast<uint32_t>(value.size()), args->flag),
                  "cannot set " + args->name + " on " + SwitchName(args->id));
   });
}

void AddPortCommands(CLI::App &kernel) {
   struct PortArgs {
      std::string sw;
      std::string port;
      std::string alias;
      uint32_t type = DVS_PORT_ACTIVE;
   };
   auto args = std::make_shared<PortArgs>();
   CLI::App *add = kernel.add_subcommand("port-add", "Add a port to a switch in the kernel");
   add->add_option("switch", args->sw, "Switch id")->required();
   add->add_option("port", args->port, "Port id")->required();
   add->add_option("--alias", args->alias, "Port alias (com.ostrel.common.port.alias)");
   add->add_option("--type", args->type, "Port type (default: active)")
      ->transform(CLI::CheckedTransformer(kPortTypes))
      ->type_name("active|shadow|zombie|local-cache");
   add->callback([args] {
      // The kernel takes a port's type from its data and keeps it apart;
      // an active port needs none.
      PropertyListBuilder data;
      if (!args->alias.empty()) {
         data.AppendString(DVS_PROP_PORT_ALIAS, args->alias, kConfigProp);
      }
      if (args->type != DVS_PORT_ACTIVE) {
         data.AppendU32(DVS_PROP_PORT_TYPE, args->type, kConfigProp);
      }
      const Bytes blob = data.Serialize();
      CheckStatus(DVSHYP_PortAdd(args->sw.c_str(), args->port.c_str(), blob.data(),
                                 static_cast<uint32_t>(blob.size())),
                  "cannot add " + PortName(args->sw, args->port));
   });

   CLI::App *remove = kernel.add_subcommand("port-remove", "Remove a port from a switch");
   remove->add_option("switch", args->sw, "Switch id")->required();
   remove->add_option("port", args->port, "Port id")->required();
   remove->callback([args] {
      CheckStatus(DVSHYP_PortRemove(args->sw.c_str(), args->port.c_str()),
                  "cannot remove " + PortName(args->sw, args->port));
   });
}

void AddLoadSample(CLI::App &kernel) {
   auto options = std::make_shared<SampleHostOptions>();
   CLI::App *cmd = kernel.add_subcommand(
      "load-sample", "Replace the kernel's switch state with a realistic sample host");
   cmd->add_option("--switches", options->switches, "Number of switches (1 to 32)")
      ->capture_default_str();
   cmd->add_option("--ports", options->ports, "Number of ports over all switches")
      ->capture_default_str();
   cmd->add_option("--seed", options->seed, "Seed of the host's ids and values")
      ->capture_default_str();
   cmd->footer(kLoadSampleFooter);
   cmd->callback([options] {
      const Bytes blob = BuildSampleHost(*options);
      CheckStatus(DVSHYP_StateInit(blob.data(), static_cast<uint32_t>(blob.size())),
                  "cannot load the sample host into the kernel");
      std::cout << "kernel state replaced: " << options->switches << " switches, " << options->ports
                << " ports (host blob of " << blob.size() << " bytes)\n";
      FlushOutput(std::cout);
   });
}

void AddExec(CLI::App &kernel) {
   struct ExecArgs {
      std::string first;  // the switch when a command follows, else the command
      std::string command;
      std::string input;
   };
   auto args = std::make_shared<ExecArgs>();
   CLI::App *cmd =
      kernel.add_subcommand("exec", "Run a kernel switch command and print its output");
   // "exec [SWITCH] COMMAND": positionals fill from the left, so the first
   // one is the switch only when a second one follows.
   cmd->add_option("switch-or-command", args->first,
                   "The command text (e.g. help), or the switch it is about when COMMAND follows")
      ->required();
   CLI::Option *second = cmd->add_option("command", args->command, "The command text");
   cmd->add_option("--input", args->input, "Input handed to the command");
   cmd->callback([args, second] {
      const bool hasSwitch = second->count() > 0;
      const std::string &command = hasSwitch ? args->command : args->first;
      const char *sw = hasSwitch ? args->first.c_str() : nullptr;
      void *out = nullptr;
      uint32_t outLen = 0;
      const ReturnStatus status =
         DVSHYP_CmdExec(sw, command.c_str(), args->input.data(),
                        static_cast<uint32_t>(args->input.size()), &out, &outLen);
      const Bytes output = TakeKernelData(out, status == STATUS_OK ? outLen : 0);
      CheckStatus(status, "cannot run \"" + command + "\"");
      std::cout.write(reinterpret_cast<const char *>(output.data()),
                      static_cast<std::streamsize>(output.size()));
      if (!output.empty() && output.back() != '\n') {
         std::cout << '\n';
      }
      FlushOutput(std::cout);
   });
}

}  // namespace

Bytes TakeKernelData(void *buf, uint32_t len) {
   const std::unique_ptr<void, decltype(&DVSHYP_DataFree)> owned(buf, &DVSHYP_DataFree);
   const auto *bytes = static_cast<const uint8_t *>(buf);
   return bytes != nullptr ? Bytes(bytes, bytes + len) : Bytes{};
}

void AddKernelCommand(CLI::App &app) {
   CLI::App *kernel = app.add_subcommand("kernel", "Read and change the kernel's switch state");
   kernel->require_subcommand(1);
   kernel->footer(kKernelFooter);

   AddShow(*kernel);
   AddSwitchCommands(*kernel);
   AddPropSet(*kernel);
   AddPortCommands(*kernel);
   AddExec(*kernel);
   AddLoadSample(*kernel);
   AddPersistSubcommands(*kernel);
}

}  // namespace dvsctl
