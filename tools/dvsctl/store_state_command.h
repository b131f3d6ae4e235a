// store_state_command.h -- the "dvsctl store" commands that move switch
// state between the configuration store and the kernel, host blobs and the
// state file: save, save-blob, load, restore and upgrade.
#ifndef DVSCTL_STORE_STATE_COMMAND_H
#define DVSCTL_STORE_STATE_COMMAND_H

#include <CLI/CLI.hpp>

#include "io.h"

namespace dvsctl {

// The host blob the store builds for this host (CONFIGSTORE_HOST with a
// replicated store): its live objects, or with `desired` its desired
// configuration.  The library's messages go to stderr, with progress when
// `verbose`.  Failures throw dvsctl::Error.
Bytes LoadStoreHostBlob(bool desired, bool verbose);

// Adds save, save-blob, load, restore and upgrade under the "store" group.
void AddStoreStateSubcommands(CLI::App &store);

}  // namespace dvsctl

#endif  // DVSCTL_STORE_STATE_COMMAND_H
