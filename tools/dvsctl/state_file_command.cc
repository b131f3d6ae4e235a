// state_file_command.cc -- "kernel persist", "kernel restore", "file show".
#include "state_file_command.h"

#include <iostream>
#include <memory>
#include <string>

#include <dvshyp.h>

#include "kernel_command.h"
#include "property_list.h"
#include "state_command.h"
#include "state_file.h"
#include "subcommands.h"

namespace dvsctl {
namespace {

constexpr const char *kPersistFooter =
   R"(Writes what of the kernel's switch state is meant to outlive a restart:
properties whose names contain ".volatile." are left out, and so are all
ports but the active ones.  The file is replaced atomically.)";

constexpr const char *kRestoreFooter =
   R"(Replaces the kernel's whole switch state with the one in the state file,
as a host does when it starts.  The kernel keeps its old state when the
file is refused.)";

constexpr const char *kFileShowFooter =
   R"(Prints the host configuration blob held in a state file as
"dvsctl state show" prints one (see there for the JSON shape).)";

void RunPersist(const std::string &path) {
   void *buf = nullptr;
   uint32_t len = 0;
   const ReturnStatus status = DVSHYP_PersistentStateGet(&buf, &len);
   const Bytes state = TakeKernelData(buf, status == STATUS_OK ? len : 0);
   CheckStatus(status, "cannot get the persistent kernel state");
   const uint64_t written = WriteStateFileBlob(path, state);
   std::cout << path << ": " << written << " bytes written (host blob of " << state.size()
             << " bytes)\n";
   FlushOutput(std::cout);
}

void RunRestore(const std::string &path) {
   const Bytes state = ReadStateFileBlob(path);
   CheckStatus(DVSHYP_StateInit(state.data(), static_cast<uint32_t>(state.size())),
               "cannot load " + path + " into the kernel");
}

void AddFileSubcommand(CLI::App &group, const char *name, const std::string &description,
                       const char *footer, void (*run)(const std::string &)) {
   auto path = std::make_shared<std::string>();
   CLI::App *cmd = group.add_subcommand(name, description);
   cmd->add_option("file", *path, "State file")->required()->type_name("FILE");
   cmd->footer(footer);
   cmd->callback([path, run] { run(*path); });
}

}  // namespace

void AddPersistSubcommands(CLI::App &kernel) {
   AddFileSubcommand(kernel, "persist",
                     "Write the kernel's persistent switch state to a state file", kPersistFooter,
                     RunPersist);
   AddFileSubcommand(kernel, "restore", "Load the kernel's switch state from a state file",
                     kRestoreFooter, RunRestore);
}

void AddFileCommand(CLI::App &app) {
   CLI::App *file = app.add_subcommand("file", "Read persistent state files");
   file->require_subcommand(1);
   AddShowSubcommand(
      *file, "Print the switch state held in a state file", kFileShowFooter,
      [](const ShowOptions &options) {
         PrintHostBlob(ReadStateFileBlob(options.path), options.path, options);
      },
      ShowInput::kFile);
}

}  // namespace dvsctl
