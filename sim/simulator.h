// The kernel switch simulator: the kernel side of the switch device
// commands, for hosts that have no switch device.
//
// A Simulator holds one host's kernel switch state in memory and runs the
// device commands against it, one command record at a time, exactly as the
// kernel answers an ioctl: it writes the command's status into the record,
// returns results through dataLen / cmdOutLen within the capacity the
// caller offers, and makes the ioctl fail (a non-zero errno) whenever the
// status is not STATUS_OK.  The Server (server.h) carries these exchanges
// over a Unix-domain socket; see docs/kernel-simulator.md.
//
// All public members are safe to call from any thread: the state and the
// planned faults sit behind one mutex.
#ifndef DVS_SIM_SIMULATOR_H
#define DVS_SIM_SIMULATOR_H

#include <dvshyp.h>

#include <cerrno>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "sim/sim_state.h"

namespace dvs::sim {

// The errno an ioctl fails with when its command did not succeed; the
// record's status says why.
constexpr uint32_t kCommandFailedErrno = EINVAL;
// The errno for a command code the simulator does not know (the record's
// status is STATUS_NOT_SUPPORTED), as a driver answers an unknown request.
constexpr uint32_t kUnknownCommandErrno = ENOTTY;

// Count of a fault that fails every command of its code until cleared.
constexpr uint32_t kFaultAlways = UINT32_MAX;

// A planned failure of the next commands of one code.  A faulted command is
// not run: its record comes back with the fault's status (and the ioctl
// fails unless that status is STATUS_OK), or its connection is closed
// without an answer.
struct Fault {
   uint32_t code = 0;
   // How many of the next commands of this code fail; kFaultAlways for all.
   uint32_t count = 1;
   ReturnStatus status = STATUS_FAILURE;
   // Close the client's connection instead of answering.
   bool drop = false;
   // When set, written to the answer's dataLen (cmdOutLen for command
   // execution): the length a LIMIT_EXCEEDED answer asks for, say.
   std::optional<uint32_t> length;
};

// Parses a fault list "CODE:COUNT:STATUS[:LENGTH][,...]".  COUNT is a
// number or "*" (every command until cleared; 0 clears the code's fault);
// STATUS is a number (0xbad0006), a status name with or without its
// "STATUS_" prefix (LIMIT_EXCEEDED), or "drop"; LENGTH is a number.  On
// failure returns false with a message in *error.
bool ParseFaults(std::string_view text, std::vector<Fault> *faults, std::string *error);

// The fault in the form ParseFaults reads.
std::string FormatFault(const Fault &fault);

// Name of a command code ("SwitchAdd"), or "code N" for an unknown one.
std::string CommandName(uint32_t code);

// The answer to one command.
struct Reply {
   // 0 when the ioctl succeeds, otherwise the errno it fails with.
   uint32_t result = 0;
   // The request's record with the status, dataLen and cmdOutLen written.
   DVSHYPCmd record{};
   // Result bytes: never more than the capacity offered.
   Bytes output;
   // Set by a "drop" fault: the connection is to be closed unanswered.
   bool drop = false;
};

class Simulator {
  public:
   using Logger = std::function<void(const std::string &line)>;

   Simulator() = default;
   Simulator(const Simulator &) = delete;
   Simulator &operator=(const Simulator &) = delete;

   // Runs one command.  `input` is what the request carried: the dataLen
   // bytes of a data-input command, the cmdInLen bytes of command
   // execution, nothing otherwise; any other length is STATUS_BAD_PARAM.
   Reply Execute(uint32_t code, const DVSHYPCmd &record, std::string_view input);

   // Plans a fault; it replaces any fault planned for the same code, and a
   // count of 0 clears that code's fault.
   void InjectFault(const Fault &fault);
   void InjectFault(uint32_t code, uint32_t count, ReturnStatus status,
                    std::optional<uint32_t> length = std::nullopt);
   void ClearFaults();

   // Called with one line per command run (and nothing when unset).
   void SetLogger(Logger logger);

  private:
   struct Command;

   ReturnStatus Run(Command &cmd);
   // Command execution (code 28): runs `text` for the switch named in the
   // record (may be empty); in exec_commands.cc.
   ReturnStatus Exec(const std::string &switchName, const std::string &text, std::string_view input,
                     Bytes *out);
   void InjectFaultLocked(const Fault &fault);
   // The planned fault that takes this command, counted down; none if the
   // command runs normally.
   std::optional<Fault> TakeFault(uint32_t code, const DVSHYPCmd &record);

   std::mutex mutex_;
   HostState state_;
   std::map<uint32_t, Fault> faults_;
   Logger logger_;
};

}  // namespace dvs::sim

#endif  // DVS_SIM_SIMULATOR_H
