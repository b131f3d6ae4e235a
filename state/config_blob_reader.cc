// Readers of the host configuration blob: rebuild switches, their property
// lists and their ports in the registry from the blobs the writers made.
// The blobs come from the kernel, the state file and the configuration
// store, so every value taken from them is checked for its size before it
// is used; the property-blob reader already guarantees that each record
// lies inside its blob and that each name is terminated.
#include <cstdlib>
#include <cstring>

#include "state/state_internal.h"

namespace dvs::state {
namespace {

// Room for one more character than a switch id may have, so that an
// over-long id from a blob stays terminated here and is refused by the
// switch add instead of being silently cut to a valid one.
constexpr size_t kIdBufferSize = DVS_SWITCH_ID_MAX + 1;

// Reads a 4-byte unsigned value; a value of any other size is malformed.
ReturnStatus ReadU32(DVSDataEntry *entry, uint32_t *out) {
   void *data = nullptr;
   if (DVSData_Data(entry, &data) != sizeof(uint32_t)) {
      return STATUS_BAD_PARAM;
   }
   std::memcpy(out, data, sizeof(uint32_t));
   return STATUS_OK;
}

// Looks up a 4-byte unsigned value by name.
ReturnStatus LookupU32(DVSDataHandle list, const char *name, uint32_t *out) {
   DVSDataEntry *entry = nullptr;
   const ReturnStatus status = DVSData_Lookup(list, name, &entry);
   if (status != STATUS_OK) {
      return status;
   }
   return ReadU32(entry, out);
}

// Takes a nested property list out of the switch list: decodes the value
// of `name` into `*out` and removes the record.  A switch blob without the
// record gets an empty list, so that the switch always holds a valid one.
ReturnStatus TakeNestedList(DVSDataHandle switchList, const char *name, DVSDataHandle *out) {
   DVSDataEntry *entry = nullptr;
   if (DVSData_Lookup(switchList, name, &entry) != STATUS_OK) {
      return DVSData_Alloc(out, std::malloc, std::free);
   }
   void *data = nullptr;
   const uint32_t dataLen = DVSData_Data(entry, &data);
   DVSDataHandle decoded = nullptr;
   const ReturnStatus status = DVSData_Deserialize(&decoded, data, dataLen, std::malloc, std::free);
   if (status != STATUS_OK) {
      return status;
   }
   *out = decoded;
   DVSData_Remove(switchList, name);
   return STATUS_OK;
}

// The switch settings that a switch blob carries.
struct SwitchSettings {
   uint32_t version = 0;
   char className[DVS_CLASS_NAME_MAX] = {};
   uint32_t maxPorts = 0;
};

ReturnStatus ReadSettings(DVSDataHandle switchList, SwitchSettings *settings) {
   ReturnStatus status = LookupU32(switchList, "switchVersion", &settings->version);
   if (status != STATUS_OK) {
      STATE_TRACE(0, "Failed to find switchVersion, status:%d\n\n", static_cast<int>(status));
      return status;
   }

   DVSDataEntry *entry = nullptr;
   status = DVSData_Lookup(switchList, "className", &entry);
   if (status != STATUS_OK) {
      return status;
   }
   // The class name is text of at most 127 characters within the value;
   // a terminator inside the value is not relied upon.
   void *data = nullptr;
   const uint32_t dataLen = DVSData_Data(entry, &data);
   const size_t limit =
      dataLen < sizeof settings->className - 1 ? dataLen : sizeof settings->className - 1;
   std::memcpy(settings->className, data, strnlen(static_cast<const char *>(data), limit));

   return LookupU32(switchList, "maxPorts", &settings->maxPorts);
}

// What a switch restore holds until it hands it on to the switch.
struct SwitchRestore {
   char id[kIdBufferSize] = {};
   DVSDataHandle switchList = nullptr;
   DVSDataHandle hostList = nullptr;
   DVSDataHandle globalList = nullptr;

   SwitchRestore() = default;
   SwitchRestore(const SwitchRestore &) = delete;
   SwitchRestore &operator=(const SwitchRestore &) = delete;
   // Whatever the restore did not hand on to the switch is released here.
   ~SwitchRestore() {
      DVSData_Free(hostList);
      DVSData_Free(globalList);
      DVSData_Free(switchList);
   }
};

// Installs the decoded lists on the switch and adds every port record of
// the switch list.  Stops at the first port that cannot be added.
ReturnStatus RestoreIntoSwitch(DVSwitch *dvs, SwitchRestore *restore) {
   DVSData_Free(dvs->hostPropList);
   DVSData_Free(dvs->globalPropList);
   dvs->hostPropList = restore->hostList;
   dvs->globalPropList = restore->globalList;
   restore->hostList = nullptr;
   restore->globalList = nullptr;

   DVSDataEntry *entry = nullptr;
   while (DVSData_Next(restore->switchList, entry, &entry) == STATUS_OK) {
      void *data = nullptr;
      const uint32_t dataLen = DVSData_Data(entry, &data);
      const ReturnStatus status =
         DVSState_PortAddDeserialize(dvs, DVSData_Name(entry), data, dataLen);
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

DVS_EXPORT ReturnStatus DVSState_ConfigDeserialize(const void *blob, uint32_t len) {
   STATE_TRACE(1, "DVSState_ConfigDeserialize\n");
   DVSDataHandle list = nullptr;
   ReturnStatus status = DVSData_Deserialize(&list, blob, len, std::malloc, std::free);
   if (status != STATUS_OK) {
      STATE_TRACE(0, "DVSState_ConfigDeserialize failed %s\n", HYP_ReturnStatusToString(status));
      return status;
   }

   // Nobody sees the registry half restored.
   StateLockGuard guard;
   DVSDataEntry *entry = nullptr;
   while (DVSData_Next(list, entry, &entry) == STATUS_OK) {
      void *data = nullptr;
      const uint32_t dataLen = DVSData_Data(entry, &data);
      status = DVSState_SwitchDeserialize(DVSData_Name(entry), data, dataLen);
      if (status != STATUS_OK) {
         // A host blob is taken whole or not at all: a failure empties the
         // registry, including the switches that were there before.
         STATE_TRACE(0, "DVSState_SwitchDeserialize failed %s\n", HYP_ReturnStatusToString(status));
         DVSState_ConfigReset();
         DVSData_Free(list);
         return status;
      }
   }
   DVSData_Free(list);
   return STATUS_OK;
}

DVS_EXPORT ReturnStatus DVSState_SwitchDeserialize(const char *swId, const void *blob,
                                                   uint32_t len) {
   SwitchRestore restore;
   if (swId != nullptr) {
      std::memcpy(restore.id, swId, strnlen(swId, sizeof restore.id - 1));
   }
   const char *id = restore.id;
   STATE_TRACE(1, "Deserialize DVS %s\n", id);

   ReturnStatus status =
      DVSData_Deserialize(&restore.switchList, blob, len, std::malloc, std::free);
   if (status != STATUS_OK) {
      restore.switchList = nullptr;
      return status;
   }
   status = TakeNestedList(restore.switchList, "hostPropList", &restore.hostList);
   if (status != STATUS_OK) {
      return status;
   }
   status = TakeNestedList(restore.switchList, "globalPropList", &restore.globalList);
   if (status != STATUS_OK) {
      return status;
   }

   SwitchSettings settings;
   status = ReadSettings(restore.switchList, &settings);
   if (status != STATUS_OK) {
      return status;
   }

   // Hold the registry from the find to the last port, so that the switch
   // cannot go away underneath.
   StateLockGuard guard;
   bool created = false;
   if (DVSState_SwitchFind(id) == nullptr) {
      STATE_TRACE(0, "Create DVS %s with portset %s\n", id, "");
      status = DVSState_SwitchAdd(id, settings.className, settings.maxPorts, settings.version);
      if (status != STATUS_OK) {
         STATE_TRACE(0, "Failed to add switch %s/%s/%s/%d\n", id, settings.className, "",
                     static_cast<int>(settings.maxPorts));
         return status;
      }
      created = true;
   }
   // An existing switch keeps its class, limits and version.

   DVSData_Remove(restore.switchList, "className");
   DVSData_Remove(restore.switchList, "maxPorts");
   DVSData_Remove(restore.switchList, "switchVersion");
   DVSwitch *dvs = DVSState_SwitchFind(id);
   if (dvs == nullptr) {
      STATE_TRACE(0, "DVS %s acquire failed\n", id);
      status = STATUS_NOT_FOUND;
   } else {
      status = RestoreIntoSwitch(dvs, &restore);
   }

   if (status != STATUS_OK && created) {
      SwitchRemoveLocked(id);
   }
   STATE_TRACE(status != STATUS_OK ? 0 : 1, "Deserialize dvs %s return %s\n", id,
               HYP_ReturnStatusToString(status));
   return status;
}

DVS_EXPORT ReturnStatus DVSState_PortAddDeserialize(DVSwitch *dvs, const char *portId,
                                                    const void *blob, uint32_t len) {
   if (dvs == nullptr) {
      return STATUS_NOT_FOUND;
   }
   if (portId == nullptr) {
      return STATUS_BAD_PARAM;
   }
   STATE_TRACE(2, "Deserialize %s, %s\n", dvs->id, portId);
   DVSDataHandle data = nullptr;
   ReturnStatus status = DVSData_Deserialize(&data, blob, len, std::malloc, std::free);
   if (status != STATUS_OK) {
      return status;
   }

   DVSDataEntry *typeEntry = nullptr;
   if (DVSData_Lookup(data, DVS_PROP_PORT_TYPE, &typeEntry) == STATUS_OK) {
      // The port type rides in the port data only to cross the blob; it is
      // taken out again whether or not the port could be added.
      uint32_t type = 0;
      status = ReadU32(typeEntry, &type);
      if (status != STATUS_OK) {
         DVSData_Free(data);
         return status;
      }
      status = DVSStatePortAdd(dvs, portId, data, type, nullptr);
      STATE_TRACE(0, "Deserialize DV port(type %d) %s, return %s\n", static_cast<int>(type), portId,
                  HYP_ReturnStatusToString(status));
      DVSData_Remove(data, DVS_PROP_PORT_TYPE);
   } else {
      status = DVSStatePortAdd(dvs, portId, data, DVS_PORT_ACTIVE, nullptr);
      STATE_TRACE(0, "Add active DV port %s, return %s\n", portId,
                  HYP_ReturnStatusToString(status));
   }
   if (status != STATUS_OK) {
      DVSData_Free(data);
   }
   return status;
}

DVS_EXPORT ReturnStatus DVSState_PortDeserialize(const char *swId, const char *portId,
                                                 const void *blob, uint32_t len) {
   if (swId == nullptr) {
      return STATUS_BAD_PARAM;
   }
   // Hold the registry across the find and the add.
   StateLockGuard guard;
   return DVSState_PortAddDeserialize(DVSState_SwitchFind(swId), portId, blob, len);
}

}  // extern "C"
