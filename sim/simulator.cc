// The device commands as the kernel runs them, against the simulator's
// in-memory state.
#include "sim/simulator.h"

#include <hostlibs.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "kernel/wire_protocol.h"

namespace dvs::sim {

// One command on its way through the simulator: the request's texts, its
// input, and the record and output of the answer being built.
struct Simulator::Command {
   uint32_t code = 0;
   DVSHYPCmd record{};
   std::string switchName;
   std::string portId;
   std::string name;
   std::string text;
   std::string_view input;
   Bytes output;
};

namespace {

bool KnownCode(uint32_t code) {
   return code <= DVSHYP_CMD_SWITCH_SET_VERSION || code == DVSHYP_CMD_UPLINK_DATA_SET ||
          code == DVSHYP_CMD_UPLINK_DATA_GET || code == DVSHYP_CMD_EXEC;
}

// A text field of the record; false when it has no terminator.
template <size_t N>
bool ReadText(const char (&field)[N], std::string *out) {
   const void *end = std::memchr(field, '\0', N);
   if (end == nullptr) {
      return false;
   }
   out->assign(field, static_cast<const char *>(end) - field);
   return true;
}

// The uplink index of the uplink commands: decimal text, 0 to INT32_MAX.
bool ParseUplinkIndex(const std::string &text, int32_t *index) {
   if (text.empty() || text.size() > 10) {
      return false;
   }
   uint64_t value = 0;
   for (char c : text) {
      if (c < '0' || c > '9') {
         return false;
      }
      value = value * 10 + static_cast<uint64_t>(c - '0');
   }
   if (value > INT32_MAX) {
      return false;
   }
   *index = static_cast<int32_t>(value);
   return true;
}

ReturnStatus FindSwitch(HostState &state, const std::string &id, Switch **sw) {
   *sw = state.FindSwitch(id);
   return *sw != nullptr ? STATUS_OK : STATUS_NOT_FOUND;
}

// The port that port commands address, and its switch.
ReturnStatus FindPort(HostState &state, const std::string &swId, const std::string &portId,
                      Port **port, Switch **sw = nullptr) {
   Switch *found = nullptr;
   const ReturnStatus status = FindSwitch(state, swId, &found);
   if (status != STATUS_OK) {
      return status;
   }
   if (sw != nullptr) {
      *sw = found;
   }
   *port = found->FindPort(portId);
   return *port != nullptr ? STATUS_OK : STATUS_NOT_FOUND;
}

ReturnStatus SetValue(DVSDataHandle list, const std::string &name, std::string_view value,
                      uint32_t flag) {
   if (name.empty()) {
      return STATUS_BAD_PARAM;
   }
   // The list copies the value; an empty value still needs an address.
   return DVSData_Update(list, name.c_str(), value.empty() ? "" : value.data(),
                         static_cast<uint32_t>(value.size()), flag);
}

ReturnStatus GetValue(DVSDataHandle list, const std::string &name, Bytes *out) {
   return name.empty() ? STATUS_BAD_PARAM : LookupValue(list, name, out);
}

ReturnStatus ClearValue(DVSDataHandle list, const std::string &name) {
   return name.empty() ? STATUS_BAD_PARAM : DVSData_Remove(list, name.c_str());
}

// The global or host list of the command's switch.
ReturnStatus SwitchList(HostState &state, const std::string &swId, bool global,
                        DVSDataHandle *list) {
   Switch *sw = nullptr;
   const ReturnStatus status = FindSwitch(state, swId, &sw);
   if (status == STATUS_OK) {
      *list = global ? sw->global.get() : sw->host.get();
   }
   return status;
}

// Sanitizing drops the zombie ports: the leftovers of ports that were
// removed while still in use, which no longer belong to any client.
void Sanitize(HostState &state) {
   for (Switch &sw : state.switches) {
      sw.ports.erase(std::remove_if(sw.ports.begin(), sw.ports.end(),
                                    [](const Port &port) { return port.type == DVS_PORT_ZOMBIE; }),
                     sw.ports.end());
   }
}

// Whether a command execution manages the faults: those are never faulted
// themselves, so that a planned fault can always be cleared.
bool IsFaultControl(uint32_t code, const DVSHYPCmd &record) {
   if (code != DVSHYP_CMD_EXEC) {
      return false;
   }
   std::string text;
   return ReadText(record.cmdText, &text) && text.compare(0, 5, "fault") == 0 &&
          (text.size() == 5 || text[5] == ' ');
}

}  // namespace

std::string CommandName(uint32_t code) {
   static const char *const kNames[] = {
      "StateInit",       "StateCleanup",      "StateSanitize",    "StateGet",      "SwitchAdd",
      "SwitchRemove",    "SwitchAssociate",   "SwitchDissociate", "GlobalPropGet", "GlobalPropSet",
      "GlobalPropClear", "HostPropGet",       "HostPropSet",      "HostPropClear", "PortAdd",
      "PortRemove",      "PortDataGet",       "PortDataSet",      "PortDataClear", "PortStateGet",
      "PortFind",        "SwitchSetMaxPorts", "SwitchSetVersion"};
   if (code < sizeof kNames / sizeof kNames[0]) {
      return kNames[code];
   }
   switch (code) {
      case DVSHYP_CMD_UPLINK_DATA_SET:
         return "UplinkDataSet";
      case DVSHYP_CMD_UPLINK_DATA_GET:
         return "UplinkDataGet";
      case DVSHYP_CMD_EXEC:
         return "CmdExec";
      default:
         return "code " + std::to_string(code);
   }
}

ReturnStatus Simulator::Run(Command &cmd) {
   const DVSHYPCmd &rec = cmd.record;
   Switch *sw = nullptr;
   Port *port = nullptr;
   DVSDataHandle list = nullptr;
   ReturnStatus status = STATUS_OK;
   switch (cmd.code) {
      case DVSHYP_CMD_STATE_INIT: {
         // The new state replaces the old one only once all of it is read.
         HostState loaded;
         status = DecodeHost(cmd.input, &loaded);
         if (status == STATUS_OK) {
            state_ = std::move(loaded);
         }
         return status;
      }
      case DVSHYP_CMD_STATE_CLEANUP:
         state_ = HostState();
         return STATUS_OK;
      case DVSHYP_CMD_STATE_SANITIZE:
         Sanitize(state_);
         return STATUS_OK;
      case DVSHYP_CMD_STATE_GET:
         return EncodeHost(state_, &cmd.output);
      case DVSHYP_CMD_SWITCH_ADD: {
         Switch added;
         added.id = cmd.switchName;
         added.className = cmd.name;
         added.maxPorts = rec.maxPorts;
         added.version = rec.version;
         return AddSwitch(state_, std::move(added));
      }
      case DVSHYP_CMD_SWITCH_REMOVE:
         status = FindSwitch(state_, cmd.switchName, &sw);
         if (status == STATUS_OK) {
            state_.switches.erase(state_.switches.begin() + (sw - state_.switches.data()));
         }
         return status;
      case DVSHYP_CMD_SWITCH_ASSOCIATE:
      case DVSHYP_CMD_SWITCH_DISSOCIATE:
         status = FindSwitch(state_, cmd.switchName, &sw);
         if (status == STATUS_OK) {
            sw->associated = cmd.code == DVSHYP_CMD_SWITCH_ASSOCIATE;
         }
         return status;
      case DVSHYP_CMD_GLOBAL_PROP_GET:
      case DVSHYP_CMD_HOST_PROP_GET:
         status = SwitchList(state_, cmd.switchName, cmd.code == DVSHYP_CMD_GLOBAL_PROP_GET, &list);
         return status == STATUS_OK ? GetValue(list, cmd.name, &cmd.output) : status;
      case DVSHYP_CMD_GLOBAL_PROP_SET:
      case DVSHYP_CMD_HOST_PROP_SET:
         status = SwitchList(state_, cmd.switchName, cmd.code == DVSHYP_CMD_GLOBAL_PROP_SET, &list);
         return status == STATUS_OK ? SetValue(list, cmd.name, cmd.input, rec.flag) : status;
      case DVSHYP_CMD_GLOBAL_PROP_CLEAR:
      case DVSHYP_CMD_HOST_PROP_CLEAR:
         status =
            SwitchList(state_, cmd.switchName, cmd.code == DVSHYP_CMD_GLOBAL_PROP_CLEAR, &list);
         return status == STATUS_OK ? ClearValue(list, cmd.name) : status;
      case DVSHYP_CMD_PORT_ADD: {
         status = FindSwitch(state_, cmd.switchName, &sw);
         Port added;
         // A port added without data starts with an empty list.
         if (status == STATUS_OK && !cmd.input.empty()) {
            status = DecodePort(cmd.input, &added);
         }
         if (status == STATUS_OK) {
            added.id = cmd.portId;
            status = AddPort(*sw, std::move(added), true);
         }
         return status;
      }
      case DVSHYP_CMD_PORT_REMOVE:
         status = FindSwitch(state_, cmd.switchName, &sw);
         if (status == STATUS_OK) {
            port = sw->FindPort(cmd.portId);
            if (port == nullptr) {
               return STATUS_NOT_FOUND;
            }
            sw->ports.erase(sw->ports.begin() + (port - sw->ports.data()));
         }
         return status;
      case DVSHYP_CMD_PORT_DATA_GET:
         status = FindPort(state_, cmd.switchName, cmd.portId, &port);
         return status == STATUS_OK ? GetValue(port->data.get(), cmd.name, &cmd.output) : status;
      case DVSHYP_CMD_PORT_DATA_SET:
         status = FindPort(state_, cmd.switchName, cmd.portId, &port);
         return status == STATUS_OK ? SetValue(port->data.get(), cmd.name, cmd.input, rec.flag)
                                    : status;
      case DVSHYP_CMD_PORT_DATA_CLEAR:
         status = FindPort(state_, cmd.switchName, cmd.portId, &port);
         return status == STATUS_OK ? ClearValue(port->data.get(), cmd.name) : status;
      case DVSHYP_CMD_PORT_STATE_GET:
         status = FindPort(state_, cmd.switchName, cmd.portId, &port, &sw);
         return status == STATUS_OK ? EncodePort(*sw, *port, &cmd.output) : status;
      case DVSHYP_CMD_PORT_FIND:
         return FindPort(state_, cmd.switchName, cmd.portId, &port);
      case DVSHYP_CMD_SWITCH_SET_MAX_PORTS:
         // A limit below the ports already there only stops further adds.
         status = FindSwitch(state_, cmd.switchName, &sw);
         if (status == STATUS_OK) {
            sw->maxPorts = rec.maxPorts;
         }
         return status;
      case DVSHYP_CMD_SWITCH_SET_VERSION:
         status = FindSwitch(state_, cmd.switchName, &sw);
         if (status == STATUS_OK && !VersionAccepted(rec.version)) {
            status = STATUS_NOT_SUPPORTED;
         }
         if (status == STATUS_OK) {
            sw->version = rec.version;
         }
         return status;
      case DVSHYP_CMD_UPLINK_DATA_SET:
      case DVSHYP_CMD_UPLINK_DATA_GET: {
         int32_t index = 0;
         if (!ParseUplinkIndex(cmd.name, &index)) {
            return STATUS_BAD_PARAM;
         }
         status = FindPort(state_, cmd.switchName, cmd.portId, &port);
         if (status != STATUS_OK) {
            return status;
         }
         if (cmd.code == DVSHYP_CMD_UPLINK_DATA_SET) {
            port->uplinks[index] = UplinkValue{Bytes(cmd.input), rec.flag};
            return STATUS_OK;
         }
         const auto it = port->uplinks.find(index);
         if (it == port->uplinks.end()) {
            return STATUS_NOT_FOUND;
         }
         cmd.output = it->second.value;
         return STATUS_OK;
      }
      case DVSHYP_CMD_EXEC:
         return Exec(cmd.switchName, cmd.text, cmd.input, &cmd.output);
      default:
         return STATUS_NOT_SUPPORTED;
   }
}

std::optional<Fault> Simulator::TakeFault(uint32_t code, const DVSHYPCmd &record) {
   const auto it = faults_.find(code);
   if (it == faults_.end() || IsFaultControl(code, record)) {
      return std::nullopt;
   }
   const Fault fault = it->second;
   if (it->second.count != kFaultAlways && --it->second.count == 0) {
      faults_.erase(it);
   }
   return fault;
}

Reply Simulator::Execute(uint32_t code, const DVSHYPCmd &record, std::string_view input) {
   Command cmd;
   cmd.code = code;
   cmd.record = record;
   cmd.input = input;
   DVSHYPCmd &rec = cmd.record;
   const bool receives = wire::ReceivesData(code), exec = wire::IsExec(code);
   const uint32_t expectedInput = wire::SendsData(code) ? rec.dataLen : (exec ? rec.cmdInLen : 0);

   std::lock_guard<std::mutex> lock(mutex_);
   Reply reply;
   ReturnStatus status = STATUS_OK;
   if (std::optional<Fault> fault = TakeFault(code, record)) {
      if (fault->drop) {
         reply.drop = true;
         if (logger_) {
            logger_(CommandName(code) + ": dropped by a planned fault");
         }
         return reply;
      }
      status = fault->status;
      if (fault->length) {
         (exec ? rec.cmdOutLen : rec.dataLen) = *fault->length;
      }
   } else if (!KnownCode(code)) {
      status = STATUS_NOT_SUPPORTED;
   } else if (input.size() != expectedInput || !ReadText(rec.switchName, &cmd.switchName) ||
              !ReadText(rec.portId, &cmd.portId) || !ReadText(rec.name, &cmd.name) ||
              (exec && !ReadText(rec.cmdText, &cmd.text))) {
      status = STATUS_BAD_PARAM;
   } else {
      status = Run(cmd);
      if (receives || exec) {
         // Results go back only whole: a result larger than the capacity
         // offered fails with the length it needs, and the caller retries.
         // A failed command reports no length.
         uint32_t &length = exec ? rec.cmdOutLen : rec.dataLen;
         if (status == STATUS_OK && cmd.output.size() > wire::kMaxPayload) {
            status = STATUS_NO_MEMORY;  // more than one message can carry
         } else if (status == STATUS_OK && cmd.output.size() > length) {
            status = STATUS_LIMIT_EXCEEDED;
         }
         const bool sized = status == STATUS_OK || status == STATUS_LIMIT_EXCEEDED;
         length = sized ? static_cast<uint32_t>(cmd.output.size()) : 0;
         if (status == STATUS_OK) {
            reply.output = std::move(cmd.output);
         }
      }
   }

   rec.status = status;
   reply.record = rec;
   if (status != STATUS_OK) {
      reply.result = KnownCode(code) ? kCommandFailedErrno : kUnknownCommandErrno;
   }
   if (logger_) {
      std::string line = CommandName(code);
      for (const auto &[label, value] :
           {std::pair{" switch=", &cmd.switchName}, std::pair{" port=", &cmd.portId},
            std::pair{" name=", &cmd.name}, std::pair{" cmd=", &cmd.text}}) {
         if (!value->empty()) {
            line += label + *value;
         }
      }
      line += " in=" + std::to_string(input.size()) +
              " out=" + std::to_string(reply.output.size()) + ": " +
              HYP_ReturnStatusToString(status);
      logger_(line);
   }
   return reply;
}

void Simulator::InjectFaultLocked(const Fault &fault) {
   if (fault.count == 0) {
      faults_.erase(fault.code);
   } else {
      faults_[fault.code] = fault;
   }
}

void Simulator::InjectFault(const Fault &fault) {
   std::lock_guard<std::mutex> lock(mutex_);
   InjectFaultLocked(fault);
}

void Simulator::InjectFault(uint32_t code, uint32_t count, ReturnStatus status,
                            std::optional<uint32_t> length) {
   Fault fault;
   fault.code = code;
   fault.count = count;
   fault.status = status;
   fault.length = length;
   InjectFault(fault);
}

void Simulator::ClearFaults() {
   std::lock_guard<std::mutex> lock(mutex_);
   faults_.clear();
}

void Simulator::SetLogger(Logger logger) {
   std::lock_guard<std::mutex> lock(mutex_);
   logger_ = std::move(logger);
}

}  // namespace dvs::sim
