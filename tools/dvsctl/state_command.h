// state_command.h -- the "dvsctl state" command family: host configuration
// blobs of the switch registry.
#ifndef DVSCTL_STATE_COMMAND_H
#define DVSCTL_STATE_COMMAND_H

#include <CLI/CLI.hpp>

#include "host_blob_view.h"
#include "io.h"
#include "subcommands.h"

namespace dvsctl {

// Adds "state" and its subcommands (show, make-sample, diff) to `app`.
void AddStateCommand(CLI::App &app);

// Prints `blob` as switches and ports (text, or JSON with --json), as
// "state show" does; every command that shows a host blob uses it.  A blob
// that does not decode, or is not a host blob, throws dvsctl::Error naming
// `name`.
void PrintHostBlob(const Bytes &blob, const std::string &name, const ShowOptions &options);

// Builds a small registry in this process (two switches, ports of every
// type), returns its host configuration blob and empties the registry
// again.  Library failures throw dvsctl::Error with the status text.
Bytes MakeSampleHostBlob();

}  // namespace dvsctl

#endif  // DVSCTL_STATE_COMMAND_H
