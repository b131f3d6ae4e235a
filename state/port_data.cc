// Port data: the property list that every port carries.  Get, set and clear
// go through one routine that reports a failing list operation with the
// port's identity; read and walk work on the list directly.
#include "state/state_internal.h"

namespace dvs::state {
namespace {

// Operation codes of the common routine.  Any other value is refused.
enum PortDataOp : int {
   kPortDataGet = 0,
   kPortDataSet = 1,
   kPortDataClear = 2,
};

// What a get hands back and a set takes in.
struct PortDataValue {
   void **out;        // get: receives the value pointer
   uint32_t *outLen;  // get: receives the length
   const void *in;    // set: the new value
   uint32_t inLen;    // set: its length
   uint32_t flag;     // set: its flag word
};

const char *SwitchIdOf(const DVSPort *port) {
   return port->dvs != nullptr ? port->dvs->id : "";
}

ReturnStatus PortDataCommon(DVSPort *port, const char *name, const PortDataValue &value, int op) {
   ReturnStatus status = STATUS_FAILURE;
   switch (op) {
      case kPortDataSet:
         // An empty value is refused without the failure message below.
         if (value.in == nullptr || value.inLen == 0) {
            return STATUS_FAILURE;
         }
         status = DVSData_Update(port->data, name, value.in, value.inLen, value.flag);
         break;
      case kPortDataClear:
         status = DVSData_Remove(port->data, name);
         break;
      case kPortDataGet: {
         DVSDataEntry *entry = nullptr;
         status = DVSData_Lookup(port->data, name, &entry);
         if (status == STATUS_OK) {
            *value.outLen = DVSData_Data(entry, value.out);
         }
         break;
      }
      default:
         return STATUS_FAILURE;
   }
   if (status != STATUS_OK) {
      // The text says "set/get" whatever the operation was.
      STATE_TRACE(1,
                  "DVSStatePortDataCommon failed to set/get data switch %s,port %s, data %s "
                  "type %d\n",
                  SwitchIdOf(port), port->id, name, static_cast<int>(port->portType));
   }
   return status;
}

}  // namespace
}  // namespace dvs::state

using namespace dvs::state;

extern "C" {

DVS_EXPORT ReturnStatus DVSState_PortDataGet(DVSPort *port, const char *name, void **val,
                                             uint32_t *len) {
   if (port == nullptr || name == nullptr || val == nullptr || len == nullptr) {
      return STATUS_BAD_PARAM;
   }
   STATE_TRACE(2, "DVSState_PortDataGet %s, %s, %s\n", SwitchIdOf(port), port->id, name);
   return PortDataCommon(port, name, PortDataValue{val, len, nullptr, 0, 0}, kPortDataGet);
}

DVS_EXPORT ReturnStatus DVSState_PortDataSet(DVSPort *port, const char *name, const void *val,
                                             uint32_t len, uint32_t flag) {
   if (port == nullptr || name == nullptr) {
      return STATUS_BAD_PARAM;
   }
   STATE_TRACE(2, "DVSState_PortDataSet %s, %s, %s\n", SwitchIdOf(port), port->id, name);
   return PortDataCommon(port, name, PortDataValue{nullptr, nullptr, val, len, flag}, kPortDataSet);
}

DVS_EXPORT ReturnStatus DVSState_PortDataClear(DVSPort *port, const char *name) {
   if (port == nullptr || name == nullptr) {
      return STATUS_BAD_PARAM;
   }
   STATE_TRACE(2, "DVSState_PortDataClear %s, %s, %s\n", SwitchIdOf(port), port->id, name);
   return PortDataCommon(port, name, PortDataValue{}, kPortDataClear);
}

DVS_EXPORT ReturnStatus DVSState_PortDataRead(DVSPort *port, const char *name, void **val,
                                              uint32_t *len) {
   if (port == nullptr || name == nullptr || val == nullptr) {
      return STATUS_BAD_PARAM;
   }
   DVSDataEntry *entry = nullptr;
   const ReturnStatus status = DVSData_Lookup(port->data, name, &entry);
   if (status != STATUS_OK) {
      return status;
   }
   const uint32_t dataLen = DVSData_Data(entry, val);
   if (len != nullptr) {
      *len = dataLen;
   }
   return STATUS_OK;
}

DVS_EXPORT ReturnStatus DVSState_PortDataForEach(DVSPort *port, DVSPropForEachFn fn, void *ctx) {
   if (port == nullptr) {
      return STATUS_BAD_PARAM;
   }
   return PropListWalk(port->data, fn, ctx);
}

}  // extern "C"
