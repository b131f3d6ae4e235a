// store_command.h -- the "dvsctl store" command family: list, show, put and
// delete objects of the host's configuration store.
#ifndef DVSCTL_STORE_COMMAND_H
#define DVSCTL_STORE_COMMAND_H

#include <CLI/CLI.hpp>

namespace dvsctl {

// Adds "store" and its subcommands to `app`.
void AddStoreCommand(CLI::App &app);

}  // namespace dvsctl

#endif  // DVSCTL_STORE_COMMAND_H
