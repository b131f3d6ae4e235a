// blob_command.h -- the "dvsctl blob" command family.
#ifndef DVSCTL_BLOB_COMMAND_H
#define DVSCTL_BLOB_COMMAND_H

#include <CLI/CLI.hpp>

#include "io.h"

namespace dvsctl {

// Adds "blob" and its subcommands (show, make-sample) to `app`.
void AddBlobCommand(CLI::App &app);

// The blob "make-sample" writes: a small switch-like property list with
// two nested lists, one of them empty.
Bytes MakeSampleBlob();

}  // namespace dvsctl

#endif  // DVSCTL_BLOB_COMMAND_H
