// Writers of the host configuration blob.  The host blob is a property blob
// with one record per switch, named by the switch id, whose value is the
// switch blob; the switch blob holds the switch settings, its two property
// lists as nested blobs and one port blob per port.  Every record written
// here carries the switch-level flag.
#include <cstdlib>
#include <cstring>

#include "state/state_internal.h"

namespace dvs::state {
namespace {

// Flag word of every record that this code writes.
constexpr uint32_t kSwitchLevelFlag = 0x10;
// Version given to the writer of the host blob.
constexpr uint32_t kHostBlobVersion = 9;
// Switches of this version write their nested lists through the type
// filter, leaving out properties whose flag shares a bit with the mask.
constexpr uint32_t kTypeFilteredVersion = 99;
constexpr uint32_t kTypeFilteredMask = 0x80000064;

// Stores one property list of the switch as a nested blob under `name`.
// A switch without that list writes nothing for it.
ReturnStatus AddNestedList(DVSDataHandle out, const DVSwitch *dvs, DVSDataHandle list,
                           const char *name) {
   if (list == nullptr) {
      return STATUS_OK;
   }
   void *nested = nullptr;
   uint32_t nestedLen = 0;
   ReturnStatus status =
      dvs->version == kTypeFilteredVersion
         ? DVSData_SerializeExTypeProp(list, &nested, &nestedLen, kTypeFilteredMask)
         : DVSData_Serialize(list, &nested, &nestedLen, dvs->version);
   if (status != STATUS_OK) {
      return status;
   }
   status = DVSData_Update(out, name, nested, nestedLen, kSwitchLevelFlag);
   DVSData_FreeAssocData(list, nested);
   return status;
}

// Stores the switch settings and both property lists in `out`, in the
// order the readers expect, logging the first failure.
ReturnStatus AddSwitchRecords(DVSDataHandle out, const DVSwitch *dvs) {
   const uint32_t version = dvs->version;
   ReturnStatus status =
      DVSData_Update(out, "switchVersion", &version, sizeof version, kSwitchLevelFlag);
   if (status != STATUS_OK) {
      STATE_TRACE(0, "Failed to add switch %s version, return %s\n", dvs->id,
                  HYP_ReturnStatusToString(status));
      return status;
   }

   // The whole field is written; only the text up to its terminator is
   // taken from the record, so bytes left behind a shorter earlier name
   // never reach a blob.
   char className[DVS_CLASS_NAME_MAX] = {};
   std::memcpy(className, dvs->className, strnlen(dvs->className, sizeof className - 1));
   status = DVSData_Update(out, "className", className, sizeof className, kSwitchLevelFlag);
   if (status != STATUS_OK) {
      STATE_TRACE(0, "Failed to add switch %s class name, return %s\n", dvs->id,
                  HYP_ReturnStatusToString(status));
      return status;
   }

   // The pending limit is the one that persists.
   const uint32_t maxPorts = dvs->newMaxPorts;
   status = DVSData_Update(out, "maxPorts", &maxPorts, sizeof maxPorts, kSwitchLevelFlag);
   if (status != STATUS_OK) {
      STATE_TRACE(0, "Failed to add switch %s max ports, return %s\n", dvs->id,
                  HYP_ReturnStatusToString(status));
      return status;
   }

   status = AddNestedList(out, dvs, dvs->globalPropList, "globalPropList");
   if (status != STATUS_OK) {
      STATE_TRACE(0, "Failed to add switch %s global property list, return %s\n", dvs->id,
                  HYP_ReturnStatusToString(status));
      return status;
   }

   status = AddNestedList(out, dvs, dvs->hostPropList, "hostPropList");
   if (status != STATUS_OK) {
      STATE_TRACE(0, "Failed to add switch %s host property list, return %s\n", dvs->id,
                  HYP_ReturnStatusToString(status));
      return status;
   }
   return STATUS_OK;
}

// Appends one port blob per port in slot order.  Ports of type 0 are not
// persisted.  Ports may share an id (an active and a shadow port), so
// their records are appended rather than updated.
ReturnStatus AddPorts(DVSDataHandle out, const DVSwitch *dvs) {
   if (dvs->portBitmap == nullptr) {
      return STATUS_OK;
   }
   for (uint32_t bit = BitVector_NextBit(dvs->portBitmap, 0); bit != BITVECTOR_NOT_FOUND;
        bit = BitVector_NextBit(dvs->portBitmap, bit + 1)) {
      DVSPort *port = dvs->ports[bit];
      if (port == nullptr) {
         break;
      }
      if (port->portType == 0) {
         continue;
      }
      void *portBlob = nullptr;
      uint32_t portLen = 0;
      ReturnStatus status = DVSState_PortSerialize(port, &portBlob, &portLen);
      if (status != STATUS_OK) {
         return status;
      }
      status = DVSData_Append(out, port->id, portBlob, portLen, kSwitchLevelFlag);
      DVSData_FreeAssocData(port->data, portBlob);
      if (status != STATUS_OK) {
         return status;
      }
   }
   return STATUS_OK;
}

}  // namespace
}  // namespace dvs::state

using namespace dvs::state;

extern "C" {

DVS_EXPORT ReturnStatus DVSState_ConfigSerialize(void **blob, uint32_t *len) {
   if (blob == nullptr || len == nullptr) {
      return STATUS_BAD_PARAM;
   }
   STATE_TRACE(1, "DVSState_ConfigSerialize\n");
   DVSDataHandle list = nullptr;
   ReturnStatus status = DVSData_Alloc(&list, std::malloc, std::free);
   if (status != STATUS_OK) {
      STATE_TRACE(0, "DVSState_ConfigSerialize, alloc failed\n");
      return status;
   }

   {
      StateLockGuard guard;
      for (DVSwitch *dvs : globalSwsArray) {
         if (dvs == nullptr) {
            continue;
         }
         void *switchBlob = nullptr;
         uint32_t switchLen = 0;
         status = DVSState_SwitchSerialize(dvs, &switchBlob, &switchLen);
         if (status == STATUS_OK) {
            status = DVSData_Update(list, dvs->id, switchBlob, switchLen, kSwitchLevelFlag);
            std::free(switchBlob);
         }
         if (status != STATUS_OK) {
            // Whatever went wrong, the host blob reports it as one status.
            STATE_TRACE(0, "DVSStateConfigSerializeCB DVS %s failed %s\n", dvs->id,
                        HYP_ReturnStatusToString(status));
            DVSData_Free(list);
            return STATUS_EXISTS;
         }
      }
   }

   status = DVSData_Serialize(list, blob, len, kHostBlobVersion);
   DVSData_Free(list);
   return status;
}

DVS_EXPORT ReturnStatus DVSState_SwitchSerialize(DVSwitch *dvs, void **blob, uint32_t *len) {
   if (dvs == nullptr || blob == nullptr || len == nullptr) {
      return STATUS_BAD_PARAM;
   }
   STATE_TRACE(1, "DVSState_SwitchSerialize %s\n", dvs->id);
   DVSDataHandle list = nullptr;
   ReturnStatus status = DVSData_Alloc(&list, std::malloc, std::free);
   if (status != STATUS_OK) {
      return status;
   }

   status = AddSwitchRecords(list, dvs);
   // Logged whether or not the records above went in.
   STATE_TRACE(1, "Add DVS(%s) property list succesfully\n", dvs->id);
   if (status == STATUS_OK) {
      status = AddPorts(list, dvs);
   }
   if (status == STATUS_OK) {
      status = DVSData_Serialize(list, blob, len, dvs->version);
   }
   DVSData_Free(list);
   // Reported under the reader's name, as the host's tooling expects.
   STATE_TRACE(1, "DVSState_SwitchDeserialize dvs %s return %s\n", dvs->id,
               HYP_ReturnStatusToString(status));
   return status;
}

DVS_EXPORT ReturnStatus DVSState_PortSerialize(DVSPort *port, void **blob, uint32_t *len) {
   if (port == nullptr || port->dvs == nullptr || blob == nullptr || len == nullptr) {
      return STATUS_BAD_PARAM;
   }
   STATE_TRACE(2, "DVSState_PortSerialize %s\n", port->id);
   // Version 99 switches filter only their nested lists, never port data.
   return DVSData_Serialize(port->data, blob, len, port->dvs->version);
}

}  // extern "C"
