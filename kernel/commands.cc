// The device commands: the plain command on the kept descriptor, the result
// commands and command execution on a fresh descriptor each, and the
// catalogue of DVSHYP_* commands that fill the record for them.
//
// A record is zeroed, then filled; texts are formatted with "%s" into their
// field, so a longer text is cut and always terminated.  The status field
// leaves the library holding STATUS_FAILURE, so that a command the kernel
// never got to answers with that.
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <hostlibs.h>

#include "kernel/channel.h"

namespace dvs::kernel {
namespace {

// The record is shared with the kernel byte for byte.
static_assert(sizeof(DVSHYPCmd) == DVSHYP_CMD_RECORD_SIZE);
static_assert(offsetof(DVSHYPCmd, switchName) == 0);
static_assert(offsetof(DVSHYPCmd, portId) == 64);
static_assert(offsetof(DVSHYPCmd, name) == 112);
static_assert(offsetof(DVSHYPCmd, maxPorts) == 240);
static_assert(offsetof(DVSHYPCmd, version) == 244);
static_assert(offsetof(DVSHYPCmd, flag) == 248);
static_assert(offsetof(DVSHYPCmd, reserved) == 252);
static_assert(offsetof(DVSHYPCmd, status) == 256);
static_assert(offsetof(DVSHYPCmd, dataLen) == 260);
static_assert(offsetof(DVSHYPCmd, dataAddr) == 264);
static_assert(offsetof(DVSHYPCmd, cmdText) == 272);
static_assert(offsetof(DVSHYPCmd, cmdInLen) == 400);
static_assert(offsetof(DVSHYPCmd, cmdInAddr) == 404);
static_assert(offsetof(DVSHYPCmd, cmdOutLen) == 412);
static_assert(offsetof(DVSHYPCmd, cmdOutAddr) == 416);

// The descriptor of the plain commands: opened on first use, never closed.
Channel &KeptChannel() {
   static Channel kept(/*reconnect=*/true);
   return kept;
}

bool OpenOrReport(Channel &channel) {
   if (channel.Open()) {
      return true;
   }
   HYP_ERROR("failed to open dvsdev device %s\n", DevicePath());
   return false;
}

template <size_t N>
void SetText(char (&field)[N], const char *text) {
   std::snprintf(field, N, "%s", text != nullptr ? text : "");
}

uint64_t AddressOf(const void *p) {
   return reinterpret_cast<uintptr_t>(p);
}

// A zeroed record naming the switch (null for the state-wide commands).
DVSHYPCmd NewRecord(const char *sw) {
   DVSHYPCmd rec;
   std::memset(&rec, 0, sizeof rec);
   if (sw != nullptr) {
      SetText(rec.switchName, sw);
   }
   return rec;
}

DVSHYPCmd PortRecord(const char *sw, const char *port) {
   DVSHYPCmd rec = NewRecord(sw);
   SetText(rec.portId, port);
   return rec;
}

void SetInput(DVSHYPCmd *rec, const void *data, uint32_t len) {
   rec->dataAddr = AddressOf(data);
   rec->dataLen = len;
}

void SetUplink(DVSHYPCmd *rec, int32_t uplink) {
   std::snprintf(rec->name, sizeof rec->name, "%d", uplink);
}

// A result command on a fresh descriptor.  The first buffer offered holds
// DVSHYP_RESULT_CAPACITY bytes; when the kernel refuses it as too small and
// reports a larger need, a buffer of that size is offered once more, and so
// on while the need keeps growing.  On success *buf is the caller's heap
// buffer; on failure it is null and the status is the kernel's.
ReturnStatus ResultCommand(uint32_t code, DVSHYPCmd *rec, void **buf, uint32_t *len) {
   if (buf == nullptr || len == nullptr) {
      return STATUS_BAD_PARAM;
   }
   *buf = nullptr;
   Channel channel;
   if (!OpenOrReport(channel)) {
      return STATUS_FAILURE;
   }
   uint32_t capacity = DVSHYP_RESULT_CAPACITY;
   ReturnStatus status;
   for (;;) {
      void *result = std::malloc(capacity);
      if (result == nullptr) {
         channel.Close();
         return STATUS_NO_MEMORY;
      }
      *buf = result;
      rec->dataAddr = AddressOf(result);
      rec->status = STATUS_FAILURE;
      rec->dataLen = capacity;
      if (channel.Ioctl(code, rec) == 0) {
         status = STATUS_OK;
         // Never report more than the buffer holds.
         if (rec->dataLen > capacity) {
            rec->dataLen = capacity;
         }
         break;
      }
      std::free(result);
      *buf = nullptr;
      status = rec->status;
      if (status != STATUS_LIMIT_EXCEEDED || rec->dataLen <= capacity) {
         break;
      }
      capacity = rec->dataLen;
   }
   channel.Close();
   *len = rec->dataLen;
   return status;
}

// The global and host property commands differ only in their codes.
ReturnStatus SwitchPropGet(uint32_t code, const char *sw, const char *prop, void **buf,
                           uint32_t *len) {
   DVSHYPCmd rec = NewRecord(sw);
   SetText(rec.name, prop);
   return ResultCommand(code, &rec, buf, len);
}

ReturnStatus SwitchPropSet(uint32_t code, const char *sw, const char *prop, const void *val,
                           uint32_t len, uint32_t flag) {
   DVSHYPCmd rec = NewRecord(sw);
   SetText(rec.name, prop);
   SetInput(&rec, val, len);
   rec.flag = flag;
   return DVSHYP_Ioctl(code, &rec);
}

}  // namespace
}  // namespace dvs::kernel

using namespace dvs::kernel;

extern "C" {

DVS_EXPORT ReturnStatus DVSHYP_Ioctl(uint32_t cmd, DVSHYPCmd *rec) {
   if (rec == nullptr) {
      return STATUS_BAD_PARAM;
   }
   Channel &channel = KeptChannel();
   if (!OpenOrReport(channel)) {
      return STATUS_FAILURE;
   }
   rec->status = STATUS_FAILURE;
   if (channel.Ioctl(cmd, rec) == 0) {
      return STATUS_OK;
   }
   HYP_ERROR("ioctl failed: %s\n", Err_Errno2String(errno));
   return rec->status;
}

DVS_EXPORT ReturnStatus DVSHYP_StateInit(const void *blob, uint32_t len) {
   DVSHYPCmd rec = NewRecord(nullptr);
   SetInput(&rec, blob, len);
   return DVSHYP_Ioctl(DVSHYP_CMD_STATE_INIT, &rec);
}

DVS_EXPORT ReturnStatus DVSHYP_StateCleanup(void) {
   DVSHYPCmd rec = NewRecord(nullptr);
   return DVSHYP_Ioctl(DVSHYP_CMD_STATE_CLEANUP, &rec);
}

DVS_EXPORT ReturnStatus DVSHYP_StateSanitize(void) {
   DVSHYPCmd rec = NewRecord(nullptr);
   return DVSHYP_Ioctl(DVSHYP_CMD_STATE_SANITIZE, &rec);
}

DVS_EXPORT ReturnStatus DVSHYP_StateGet(void **buf, uint32_t *len) {
   DVSHYPCmd rec = NewRecord(nullptr);
   return ResultCommand(DVSHYP_CMD_STATE_GET, &rec, buf, len);
}

DVS_EXPORT ReturnStatus DVSHYP_SwitchAdd(const char *sw, const char *className, uint32_t maxPorts,
                                         uint32_t version) {
   DVSHYPCmd rec = NewRecord(sw);
   SetText(rec.name, className);
   rec.maxPorts = maxPorts;
   rec.version = version;
   return DVSHYP_Ioctl(DVSHYP_CMD_SWITCH_ADD, &rec);
}

DVS_EXPORT ReturnStatus DVSHYP_SwitchRemove(const char *sw) {
   DVSHYPCmd rec = NewRecord(sw);
   return DVSHYP_Ioctl(DVSHYP_CMD_SWITCH_REMOVE, &rec);
}

DVS_EXPORT ReturnStatus DVSHYP_SwitchAssociate(const char *sw) {
   DVSHYPCmd rec = NewRecord(sw);
   return DVSHYP_Ioctl(DVSHYP_CMD_SWITCH_ASSOCIATE, &rec);
}

DVS_EXPORT ReturnStatus DVSHYP_SwitchDissociate(const char *sw) {
   DVSHYPCmd rec = NewRecord(sw);
   return DVSHYP_Ioctl(DVSHYP_CMD_SWITCH_DISSOCIATE, &rec);
}

DVS_EXPORT ReturnStatus DVSHYP_GlobalPropGet(const char *sw, const char *prop, void **buf,
                                             uint32_t *len) {
   return SwitchPropGet(DVSHYP_CMD_GLOBAL_PROP_GET, sw, prop, buf, len);
}

DVS_EXPORT ReturnStatus DVSHYP_GlobalPropSet(const char *sw, const char *prop, const void *val,
                                             uint32_t len, uint32_t flag) {
   return SwitchPropSet(DVSHYP_CMD_GLOBAL_PROP_SET, sw, prop, val, len, flag);
}

DVS_EXPORT ReturnStatus DVSHYPSwitchPropClear(const char *sw, const char *prop, uint32_t cmd) {
   DVSHYPCmd rec = NewRecord(sw);
   SetText(rec.name, prop);
   return DVSHYP_Ioctl(cmd, &rec);
}

DVS_EXPORT ReturnStatus DVSHYP_GlobalPropClear(const char *sw, const char *prop) {
   return DVSHYPSwitchPropClear(sw, prop, DVSHYP_CMD_GLOBAL_PROP_CLEAR);
}

DVS_EXPORT ReturnStatus DVSHYP_HostPropGet(const char *sw, const char *prop, void **buf,
                                           uint32_t *len) {
   return SwitchPropGet(DVSHYP_CMD_HOST_PROP_GET, sw, prop, buf, len);
}

DVS_EXPORT ReturnStatus DVSHYP_HostPropSet(const char *sw, const char *prop, const void *val,
                                           uint32_t len, uint32_t flag) {
   return SwitchPropSet(DVSHYP_CMD_HOST_PROP_SET, sw, prop, val, len, flag);
}

DVS_EXPORT ReturnStatus DVSHYP_HostPropClear(const char *sw, const char *prop) {
   return DVSHYPSwitchPropClear(sw, prop, DVSHYP_CMD_HOST_PROP_CLEAR);
}

DVS_EXPORT ReturnStatus DVSHYP_PortAdd(const char *sw, const char *port, const void *data,
                                       uint32_t len) {
   DVSHYPCmd rec = PortRecord(sw, port);
   SetInput(&rec, data, len);
   return DVSHYP_Ioctl(DVSHYP_CMD_PORT_ADD, &rec);
}

DVS_EXPORT ReturnStatus DVSHYP_PortRemove(const char *sw, const char *port) {
   DVSHYPCmd rec = PortRecord(sw, port);
   return DVSHYP_Ioctl(DVSHYP_CMD_PORT_REMOVE, &rec);
}

DVS_EXPORT ReturnStatus DVSHYP_PortDataGet(const char *sw, const char *port, const char *prop,
                                           void **buf, uint32_t *len) {
   DVSHYPCmd rec = PortRecord(sw, port);
   SetText(rec.name, prop);
   return ResultCommand(DVSHYP_CMD_PORT_DATA_GET, &rec, buf, len);
}

DVS_EXPORT ReturnStatus DVSHYP_PortDataSet(const char *sw, const char *port, const char *prop,
                                           const void *val, uint32_t len, uint32_t flag) {
   DVSHYPCmd rec = PortRecord(sw, port);
   SetText(rec.name, prop);
   SetInput(&rec, val, len);
   rec.flag = flag;
   return DVSHYP_Ioctl(DVSHYP_CMD_PORT_DATA_SET, &rec);
}

DVS_EXPORT ReturnStatus DVSHYP_PortDataClear(const char *sw, const char *port, const char *prop) {
   DVSHYPCmd rec = PortRecord(sw, port);
   SetText(rec.name, prop);
   return DVSHYP_Ioctl(DVSHYP_CMD_PORT_DATA_CLEAR, &rec);
}

DVS_EXPORT ReturnStatus DVSHYP_PortStateGet(const char *sw, const char *port, void **buf,
                                            uint32_t *len) {
   DVSHYPCmd rec = PortRecord(sw, port);
   return ResultCommand(DVSHYP_CMD_PORT_STATE_GET, &rec, buf, len);
}

DVS_EXPORT ReturnStatus DVSHYP_PortFind(const char *sw, const char *port) {
   DVSHYPCmd rec = PortRecord(sw, port);
   return DVSHYP_Ioctl(DVSHYP_CMD_PORT_FIND, &rec);
}

DVS_EXPORT ReturnStatus DVSHYP_SwitchSetMaxPorts(const char *sw, uint32_t maxPorts) {
   DVSHYPCmd rec = NewRecord(sw);
   rec.maxPorts = maxPorts;
   return DVSHYP_Ioctl(DVSHYP_CMD_SWITCH_SET_MAX_PORTS, &rec);
}

DVS_EXPORT ReturnStatus DVSHYP_SwitchSetVersion(const char *sw, uint32_t version) {
   DVSHYPCmd rec = NewRecord(sw);
   rec.version = version;
   return DVSHYP_Ioctl(DVSHYP_CMD_SWITCH_SET_VERSION, &rec);
}

DVS_EXPORT ReturnStatus DVSHYP_UplinkDataSet(const char *sw, const char *port, int32_t uplink,
                                             const void *val, uint32_t len, uint32_t flag) {
   DVSHYPCmd rec = PortRecord(sw, port);
   SetUplink(&rec, uplink);
   SetInput(&rec, val, len);
   rec.flag = flag;
   return DVSHYP_Ioctl(DVSHYP_CMD_UPLINK_DATA_SET, &rec);
}

DVS_EXPORT ReturnStatus DVSHYP_UplinkDataGet(const char *sw, const char *port, int32_t uplink,
                                             void **buf, uint32_t *len) {
   DVSHYPCmd rec = PortRecord(sw, port);
   SetUplink(&rec, uplink);
   return ResultCommand(DVSHYP_CMD_UPLINK_DATA_GET, &rec, buf, len);
}

// Like a result command, with the command output fields, the caller's out
// length showing the capacity of each try, and a different retry rule: it
// retries for as long as the kernel answers STATUS_LIMIT_EXCEEDED, taking
// the need it reports as the next capacity whether or not that is larger.
DVS_EXPORT ReturnStatus DVSHYP_CmdExec(const char *sw, const char *cmd, const void *in,
                                       uint32_t inLen, void **out, uint32_t *outLen) {
   if (out == nullptr || outLen == nullptr) {
      return STATUS_BAD_PARAM;
   }
   *out = nullptr;
   DVSHYPCmd rec = NewRecord(sw);
   SetText(rec.cmdText, cmd);
   rec.cmdInAddr = AddressOf(in);
   rec.cmdInLen = inLen;
   Channel channel;
   if (!OpenOrReport(channel)) {
      return STATUS_FAILURE;
   }
   uint32_t capacity = DVSHYP_RESULT_CAPACITY;
   ReturnStatus status;
   for (;;) {
      *outLen = capacity;
      void *result = std::malloc(capacity);
      if (result == nullptr) {
         HYP_ERROR("failed to alloc buffer memory");
         channel.Close();
         return STATUS_NO_MEMORY;
      }
      *out = result;
      rec.cmdOutAddr = AddressOf(result);
      rec.cmdOutLen = capacity;
      rec.status = STATUS_FAILURE;
      if (channel.Ioctl(DVSHYP_CMD_EXEC, &rec) == 0) {
         status = STATUS_OK;
         if (rec.cmdOutLen > capacity) {
            rec.cmdOutLen = capacity;
         }
         break;
      }
      std::free(result);
      *out = nullptr;
      status = rec.status;
      if (status != STATUS_LIMIT_EXCEEDED) {
         break;
      }
      capacity = rec.cmdOutLen;
   }
   channel.Close();
   *outLen = rec.cmdOutLen;
   return status;
}

DVS_EXPORT void DVSHYP_DataFree(void *buf) {
   std::free(buf);
}

}  // extern "C"
