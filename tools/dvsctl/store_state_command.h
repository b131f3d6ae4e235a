// store_state_command.h -- the "dvsctl store" commands that move switch
// state between the configuration store and the kernel, host blobs and the
// state file: save, save-blob, load, restore and upgrade.
#ifndef DVSCTL_STORE_STATE_COMMAND_H
#define DVSCTL_STORE_STATE_COMMAND_H

#include <CLI/CLI.hpp>

namespace dvsctl {

// Adds save, save-blob, load, restore and upgrade under the "store" group.
void AddStoreStateSubcommands(CLI::App &store);

}  // namespace dvsctl

#endif  // DVSCTL_STORE_STATE_COMMAND_H
