// fleet_command.h -- "dvsctl fleet": the hosts that share one replicated
// configuration store, side by side.
#ifndef DVSCTL_FLEET_COMMAND_H
#define DVSCTL_FLEET_COMMAND_H

#include <CLI/CLI.hpp>

namespace dvsctl {

// Adds "fleet hosts" and "fleet diff".
void AddFleetCommand(CLI::App &app);

}  // namespace dvsctl

#endif  // DVSCTL_FLEET_COMMAND_H
