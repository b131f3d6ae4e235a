// state_file_command.h -- the commands around the persistent state file:
// "kernel persist" and "kernel restore" move the kernel's switch state to
// and from it, "file show" prints it.
#ifndef DVSCTL_STATE_FILE_COMMAND_H
#define DVSCTL_STATE_FILE_COMMAND_H

#include <CLI/CLI.hpp>

namespace dvsctl {

// Adds "persist FILE" and "restore FILE" under the "kernel" group.
void AddPersistSubcommands(CLI::App &kernel);

// Adds "file" and its subcommand "show" to `app`.
void AddFileCommand(CLI::App &app);

}  // namespace dvsctl

#endif  // DVSCTL_STATE_FILE_COMMAND_H
