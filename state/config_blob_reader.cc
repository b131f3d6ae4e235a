// Readers of the host configuration blob: rebuild switches, their property
// lists and their ports in the registry from the blobs the writers made.
// The blobs come from the kernel, the state file and the configuration
// store, so every value taken from them is checked for its size before it
// is used.  Each blob is checked whole by the property-blob checks first,
// which guarantee that each record lies inside its blob and that each name
// is terminated; the host and switch blobs are then read in place, and
// only the property lists that the registry keeps are built.
#include <cstdlib>
#include <cstring>

#include "data/blob_view.h"
#include "data/nested_sums.h"
#include "state/list_memory.h"
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

// The switch blob's records that are not ports: the first kept record of
// each of these names.  Every other kept record, in blob order, is a port.
struct SwitchParts {
   enum Part { kHostList, kGlobalList, kVersion, kClassName, kMaxPorts, kCount };
   static constexpr const char *kNames[kCount] = {DVS_REC_HOST_PROPS, DVS_REC_GLOBAL_PROPS,
                                                  DVS_REC_SWITCH_VERSION, DVS_REC_CLASS_NAME,
                                                  DVS_REC_MAX_PORTS};
   const dvs::data::RecordView *Get(Part part) const { return found[part] ? &recs[part] : nullptr; }
   bool IsPart(const dvs::data::RecordView &rec) const {
      for (int i = 0; i < kCount; i++) {
         if (found[i] && recs[i].data == rec.data) {
            return true;
         }
      }
      return false;
   }

   dvs::data::RecordView recs[kCount] = {};
   bool found[kCount] = {};
};

void FindSwitchParts(const void *blob, SwitchParts *parts) {
   dvs::data::ForEachCheckedRecord(
      blob, DVSDATA_DESERIALIZE_MASK, [&](const dvs::data::RecordView &rec) {
         for (int i = 0; i < SwitchParts::kCount; i++) {
            if (!parts->found[i] && dvs::data::NamesEqual(rec.name, SwitchParts::kNames[i])) {
               parts->recs[i] = rec;
               parts->found[i] = true;
               break;
            }
         }
         return STATUS_OK;
      });
}

// Reads a 4-byte unsigned value; a value of any other size is malformed.
ReturnStatus ReadU32(const dvs::data::RecordView &rec, uint32_t *out) {
   if (rec.dataLen != sizeof(uint32_t)) {
      return STATUS_BAD_PARAM;
   }
   std::memcpy(out, rec.data, sizeof(uint32_t));
   return STATUS_OK;
}

// The word sum of a record's value when the host blob's check took it.
const uint32_t *WordSumOf(const dvs::data::NestedSums *sums, const dvs::data::RecordView &rec) {
   return sums != nullptr ? sums->Find(rec.data, rec.dataLen) : nullptr;
}

// Decodes a nested property list of the switch blob into `*out`.  A switch
// blob without it gets an empty list, so that the switch always holds a
// valid one.
ReturnStatus TakeNestedList(const dvs::data::RecordView *rec, const dvs::data::NestedSums *sums,
                            ListMemory memory, DVSDataHandle *out) {
   if (rec == nullptr) {
      return DVSData_Alloc(out, memory.alloc, memory.free);
   }
   DVSDataHandle decoded = nullptr;
   const ReturnStatus status =
      dvs::data::DeserializeList(&decoded, rec->data, rec->dataLen, memory.alloc, memory.free,
                                 DVSDATA_DESERIALIZE_MASK, WordSumOf(sums, *rec));
   if (status != STATUS_OK) {
      return status;
   }
   *out = decoded;
   return STATUS_OK;
}

// The switch settings that a switch blob carries.
struct SwitchSettings {
   uint32_t version = 0;
   char className[DVS_CLASS_NAME_MAX] = {};
   uint32_t maxPorts = 0;
};

ReturnStatus ReadSettings(const SwitchParts &parts, SwitchSettings *settings) {
   const dvs::data::RecordView *version = parts.Get(SwitchParts::kVersion);
   ReturnStatus status =
      version != nullptr ? ReadU32(*version, &settings->version) : STATUS_NOT_FOUND;
   if (status != STATUS_OK) {
      STATE_TRACE(0, "Failed to find switchVersion, status:%d\n\n", static_cast<int>(status));
      return status;
   }

   const dvs::data::RecordView *className = parts.Get(SwitchParts::kClassName);
   if (className == nullptr) {
      return STATUS_NOT_FOUND;
   }
   // The class name is text of at most 127 characters within the value;
   // a terminator inside the value is not relied upon.
   const uint32_t limit = className->dataLen < sizeof settings->className - 1
                             ? className->dataLen
                             : sizeof settings->className - 1;
   const auto *text = reinterpret_cast<const char *>(className->data);
   std::memcpy(settings->className, text, strnlen(text, limit));

   const dvs::data::RecordView *maxPorts = parts.Get(SwitchParts::kMaxPorts);
   return maxPorts != nullptr ? ReadU32(*maxPorts, &settings->maxPorts) : STATUS_NOT_FOUND;
}

// What a switch restore holds until it hands it on to the switch.
struct SwitchRestore {
   char id[kIdBufferSize] = {};
   DVSDataHandle hostList = nullptr;
   DVSDataHandle globalList = nullptr;

   SwitchRestore() = default;
   SwitchRestore(const SwitchRestore &) = delete;
   SwitchRestore &operator=(const SwitchRestore &) = delete;
   // Whatever the restore did not hand on to the switch is released here.
   ~SwitchRestore() {
      DVSData_Free(hostList);
      DVSData_Free(globalList);
   }
};

// Adds a port from its blob, whose words sum to *wordSum when known.
ReturnStatus PortAddDeserialize(DVSwitch *dvs, const char *portId, const void *blob, uint32_t len,
                                const uint32_t *wordSum, ListMemory memory) {
   if (dvs == nullptr) {
      return STATUS_NOT_FOUND;
   }
   if (portId == nullptr) {
      return STATUS_BAD_PARAM;
   }
   STATE_TRACE(2, "Deserialize %s, %s\n", dvs->id, portId);
   DVSDataHandle data = nullptr;
   ReturnStatus status = dvs::data::DeserializeList(&data, blob, len, memory.alloc, memory.free,
                                                    DVSDATA_DESERIALIZE_MASK, wordSum);
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

// Installs the decoded lists on the switch and adds every port record of
// the switch blob, straight from the blob.  Stops at the first port that
// cannot be added.
ReturnStatus RestoreIntoSwitch(DVSwitch *dvs, SwitchRestore *restore, const void *blob,
                               const SwitchParts &parts, const dvs::data::NestedSums *sums,
                               ListMemory memory) {
   DVS_ASSERT_STATE_LOCKED();
   DVSData_Free(dvs->hostPropList);
   DVSData_Free(dvs->globalPropList);
   dvs->hostPropList = restore->hostList;
   dvs->globalPropList = restore->globalList;
   restore->hostList = nullptr;
   restore->globalList = nullptr;

   return dvs::data::ForEachCheckedRecord(
      blob, DVSDATA_DESERIALIZE_MASK, [&](const dvs::data::RecordView &rec) {
         if (parts.IsPart(rec)) {
            return STATUS_OK;
         }
         return PortAddDeserialize(dvs, rec.name, rec.data, rec.dataLen, WordSumOf(sums, rec),
                                   memory);
      });
}

// Restores a switch from its blob; sums tells the checksums of its nested
// blobs when it came inside a host blob.
ReturnStatus SwitchDeserialize(const char *swId, const void *blob, uint32_t len,
                               const dvs::data::NestedSums *sums, ListMemory memory) {
   SwitchRestore restore;
   if (swId != nullptr) {
      std::memcpy(restore.id, swId, strnlen(swId, sizeof restore.id - 1));
   }
   const char *id = restore.id;
   STATE_TRACE(1, "Deserialize DVS %s\n", id);

   // The switch blob is checked whole, then read in place.
   ReturnStatus status = dvs::data::CheckBlobWithWordSum(
      blob, len, sums != nullptr ? sums->Find(static_cast<const uint8_t *>(blob), len) : nullptr);
   if (status != STATUS_OK) {
      return status;
   }
   SwitchParts parts;
   FindSwitchParts(blob, &parts);
   status = TakeNestedList(parts.Get(SwitchParts::kHostList), sums, memory, &restore.hostList);
   if (status != STATUS_OK) {
      return status;
   }
   status = TakeNestedList(parts.Get(SwitchParts::kGlobalList), sums, memory, &restore.globalList);
   if (status != STATUS_OK) {
      return status;
   }

   SwitchSettings settings;
   status = ReadSettings(parts, &settings);
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

   DVSwitch *dvs = DVSState_SwitchFind(id);
   if (dvs == nullptr) {
      STATE_TRACE(0, "DVS %s acquire failed\n", id);
      status = STATUS_NOT_FOUND;
   } else {
      status = RestoreIntoSwitch(dvs, &restore, blob, parts, sums, memory);
   }

   if (status != STATUS_OK && created) {
      SwitchRemoveLocked(id);
   }
   STATE_TRACE(status != STATUS_OK ? 0 : 1, "Deserialize dvs %s return %s\n", id,
               HYP_ReturnStatusToString(status));
   return status;
}

}  // namespace

ReturnStatus ConfigDeserializeWith(const void *blob, uint32_t len, ListMemory memory) {
   STATE_TRACE(1, "DVSState_ConfigDeserialize\n");
   // The whole host blob is checked before anything is restored; its
   // switch records are then read in place.  The pass that checks its
   // checksum also sums each switch and port blob in it, so that theirs
   // are checked without reading them again.
   dvs::data::NestedSums sums;
   ReturnStatus status = dvs::data::CheckBlobTakingSums(blob, len, &sums);
   if (status != STATUS_OK) {
      STATE_TRACE(0, "DVSState_ConfigDeserialize failed %s\n", HYP_ReturnStatusToString(status));
      return status;
   }

   // Nobody sees the registry half restored.
   StateLockGuard guard;
   status = dvs::data::ForEachCheckedRecord(
      blob, DVSDATA_DESERIALIZE_MASK, [&sums, memory](const dvs::data::RecordView &rec) {
         return SwitchDeserialize(rec.name, rec.data, rec.dataLen, &sums, memory);
      });
   if (status != STATUS_OK) {
      // A host blob is taken whole or not at all: a failure empties the
      // registry, including the switches that were there before.
      STATE_TRACE(0, "DVSState_SwitchDeserialize failed %s\n", HYP_ReturnStatusToString(status));
      DVSState_ConfigReset();
   }
   return status;
}

}  // namespace dvs::state

using namespace dvs::state;

extern "C" {

DVS_EXPORT ReturnStatus DVSState_ConfigDeserialize(const void *blob, uint32_t len) {
   return ConfigDeserializeWith(blob, len, kHeapListMemory);
}

DVS_EXPORT ReturnStatus DVSState_SwitchDeserialize(const char *swId, const void *blob,
                                                   uint32_t len) {
   return SwitchDeserialize(swId, blob, len, nullptr, kHeapListMemory);
}

DVS_EXPORT ReturnStatus DVSState_PortAddDeserialize(DVSwitch *dvs, const char *portId,
                                                    const void *blob, uint32_t len) {
   return PortAddDeserialize(dvs, portId, blob, len, nullptr, kHeapListMemory);
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
