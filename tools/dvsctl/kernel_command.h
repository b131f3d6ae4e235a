// kernel_command.h -- the "dvsctl kernel" command family: the kernel's
// switch state, through the switch device (or the simulator's socket that
// DVS_DEVICE_PATH names).
#ifndef DVSCTL_KERNEL_COMMAND_H
#define DVSCTL_KERNEL_COMMAND_H

#include <cstdint>

#include <CLI/CLI.hpp>

#include "io.h"

namespace dvsctl {

// Adds "kernel" and its subcommands to `app`.
void AddKernelCommand(CLI::App &app);

// Copies a result buffer that a DVSHYP_* get command handed out and
// releases it with DVSHYP_DataFree.
Bytes TakeKernelData(void *buf, uint32_t len);

}  // namespace dvsctl

#endif  // DVSCTL_KERNEL_COMMAND_H
