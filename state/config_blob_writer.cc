// Writers of the host configuration blob.  The host blob is a property blob
// with one record per switch, named by the switch id, whose value is the
// switch blob; the switch blob holds the switch settings, its two property
// lists as nested blobs and one port blob per port.  Every record written
// here carries the switch-level flag.
//
// The sizes of all levels are known from the lists before anything is
// written (a list always knows its blob size), so the host blob is
// allocated once and every switch and port blob is written straight into
// it, each checksum summed while its bytes are written.  Only the few
// switch-level records go through a small list of their own, which keeps
// their encoding and failure reports in one place.
#include <cstdlib>
#include <cstring>
#include <initializer_list>

#include "data/blob_build.h"
#include "data/record_layout.h"
#include "state/state_internal.h"

namespace dvs::state {
namespace {

// Flag word of every record that this code writes.
constexpr uint32_t kSwitchLevelFlag = 0x10;
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
      DVSData_Update(out, DVS_REC_SWITCH_VERSION, &version, sizeof version, kSwitchLevelFlag);
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
   status = DVSData_Update(out, DVS_REC_CLASS_NAME, className, sizeof className, kSwitchLevelFlag);
   if (status != STATUS_OK) {
      STATE_TRACE(0, "Failed to add switch %s class name, return %s\n", dvs->id,
                  HYP_ReturnStatusToString(status));
      return status;
   }

   // The pending limit is the one that persists.
   const uint32_t maxPorts = dvs->newMaxPorts;
   status = DVSData_Update(out, DVS_REC_MAX_PORTS, &maxPorts, sizeof maxPorts, kSwitchLevelFlag);
   if (status != STATUS_OK) {
      STATE_TRACE(0, "Failed to add switch %s max ports, return %s\n", dvs->id,
                  HYP_ReturnStatusToString(status));
      return status;
   }

   status = AddNestedList(out, dvs, dvs->globalPropList, DVS_REC_GLOBAL_PROPS);
   if (status != STATUS_OK) {
      STATE_TRACE(0, "Failed to add switch %s global property list, return %s\n", dvs->id,
                  HYP_ReturnStatusToString(status));
      return status;
   }

   status = AddNestedList(out, dvs, dvs->hostPropList, DVS_REC_HOST_PROPS);
   if (status != STATUS_OK) {
      STATE_TRACE(0, "Failed to add switch %s host property list, return %s\n", dvs->id,
                  HYP_ReturnStatusToString(status));
      return status;
   }
   return STATUS_OK;
}

// The ports that a switch blob holds, in slot order: a set bit whose slot
// is empty ends the table; ports of type 0 are not persisted.
template <typename Visit>
ReturnStatus ForEachPersistedPort(const DVSwitch *dvs, Visit visit) {
   if (dvs->portBitmap == nullptr) {
      return STATUS_OK;
   }
   for (uint32_t bit = BitVector_NextBit(dvs->portBitmap, 0); bit != BITVECTOR_NOT_FOUND;
        bit = BitVector_NextBit(dvs->portBitmap, bit + 1)) {
      const DVSPort *port = dvs->ports[bit];
      if (port == nullptr) {
         break;
      }
      if (port->portType == 0) {
         continue;
      }
      if (ReturnStatus status = visit(port); status != STATUS_OK) {
         return status;
      }
   }
   return STATUS_OK;
}

uint32_t NestedMask(const DVSwitch *dvs) {
   return dvs->version == kTypeFilteredVersion ? kTypeFilteredMask : 0;
}

// Record length of a nested blob of `size` bytes, in 64 bits so that
// oversized totals show instead of wrapping.
uint64_t NestedRecordLength(uint64_t size) {
   return (size + dvs::data::kRecordOverhead) & ~uint64_t{3};
}

// Size of the switch blob, computed from the lists without writing (or
// tracing) anything: the fixed records, the two nested lists and one
// record per persisted port.
uint64_t SwitchBlobSize(const DVSwitch *dvs) {
   uint64_t size = DVSDATA_MIN_BLOB_SIZE;
   size += dvs::data::RecordLength(sizeof(uint32_t)) * 2;  // switchVersion, maxPorts
   size += dvs::data::RecordLength(DVS_CLASS_NAME_MAX);    // className
   for (DVSDataHandle list : {dvs->globalPropList, dvs->hostPropList}) {
      if (list != nullptr) {
         size += NestedRecordLength(dvs::data::ListBlobSize(list, NestedMask(dvs)));
      }
   }
   ForEachPersistedPort(dvs, [&](const DVSPort *port) {
      size += NestedRecordLength(port->data->serialSize);
      return STATUS_OK;
   });
   return size;
}

// Writes one port record: the port id, and the port's data list as its
// blob, in place.
ReturnStatus WritePortRecord(const DVSwitch *dvs, const DVSPort *port, uint8_t *record,
                             uint32_t *wordSum) {
   STATE_TRACE(2, "DVSState_PortSerialize %s\n", port->id);
   // Version 99 switches filter only their nested lists, never port data.
   dvs::data::WarnOldVersion(dvs->version);
   const uint32_t size = dvs::data::ListBlobSize(port->data, 0);
   uint32_t nestedSum = 0;
   const ReturnStatus status = dvs::data::WriteListBlob(
      port->data, 0, record + dvs::data::kRecordDataOffset, size, &nestedSum);
   if (status != STATUS_OK) {
      return status;
   }
   dvs::data::ZeroRecordPadding(record, size);
   *wordSum = dvs::data::WriteRecordHead(record, port->id, kSwitchLevelFlag, size) + nestedSum;
   return STATUS_OK;
}

// Writes the switch blob of `size` bytes (as SwitchBlobSize gave it) at
// out, with the messages of a switch serialization, and returns the word
// sum of the sealed blob.
ReturnStatus WriteSwitchBlob(const DVSwitch *dvs, uint8_t *out, uint32_t size, uint32_t *wordSum) {
   STATE_TRACE(1, "DVSState_SwitchSerialize %s\n", dvs->id);
   DVSDataHandle head = nullptr;
   ReturnStatus status = DVSData_Alloc(&head, std::malloc, std::free);
   if (status != STATUS_OK) {
      return status;
   }
   status = AddSwitchRecords(head, dvs);
   // Logged whether or not the records above went in.
   STATE_TRACE(1, "Add DVS(%s) property list succesfully\n", dvs->id);

   uint32_t sum = 0;
   uint32_t pos = DVSDATA_HEADER_SIZE;
   if (status == STATUS_OK) {
      // The small list is fresh, so only a nested list that disagreed with
      // its own size could make it differ from the plan.
      const uint32_t headBytes = head->serialSize - DVSDATA_MIN_BLOB_SIZE;
      if (headBytes > size - DVSDATA_MIN_BLOB_SIZE) {
         status = STATUS_LIMIT_EXCEEDED;
      } else {
         sum = dvs::data::WriteBlobHeader(out, size);
         sum += dvs::data::CopyListRecords(head, out + pos);
         pos += headBytes;
      }
   }
   if (status == STATUS_OK) {
      status = ForEachPersistedPort(dvs, [&](const DVSPort *port) {
         const uint64_t recordLen = NestedRecordLength(port->data->serialSize);
         if (recordLen > size - dvs::data::kEndMarkerSize - pos) {
            return STATUS_LIMIT_EXCEEDED;
         }
         uint32_t portSum = 0;
         const ReturnStatus st = WritePortRecord(dvs, port, out + pos, &portSum);
         sum += portSum;
         pos += static_cast<uint32_t>(recordLen);
         return st;
      });
   }
   if (status == STATUS_OK && pos != size - dvs::data::kEndMarkerSize) {
      status = STATUS_LIMIT_EXCEEDED;
   }
   if (status == STATUS_OK) {
      // The whole-blob writer's warning for old versions.
      dvs::data::WarnOldVersion(dvs->version);
      dvs::data::WriteEndMarker(out, pos);
      *wordSum = dvs::data::SealWithWordSum(out, size, sum);
   }
   DVSData_Free(head);
   // Reported under the reader's name, as the host's tooling expects.
   STATE_TRACE(1, "DVSState_SwitchDeserialize dvs %s return %s\n", dvs->id,
               HYP_ReturnStatusToString(status));
   return status;
}

// The size of a switch blob that can be written, or STATUS_NO_MEMORY when
// it would not fit a 32-bit blob length (the list writers refuse those
// the same way).
ReturnStatus CheckedSwitchBlobSize(const DVSwitch *dvs, uint32_t *size) {
   const uint64_t wide = SwitchBlobSize(dvs);
   if (NestedRecordLength(wide) > UINT32_MAX - DVSDATA_MIN_BLOB_SIZE) {
      return STATUS_NO_MEMORY;
   }
   *size = static_cast<uint32_t>(wide);
   return STATUS_OK;
}

// The output buffer, as the list writers take it: the caller's when *blob
// is set and *len says it is large enough, else a new one of the exact
// size from the process allocator.
ReturnStatus TakeOutput(void **blob, uint32_t *len, uint32_t size, bool *allocated) {
   *allocated = false;
   if (*blob != nullptr) {
      if (size > *len) {
         return STATUS_LIMIT_EXCEEDED;
      }
      return STATUS_OK;
   }
   if ((*blob = std::malloc(size)) == nullptr) {
      *len = size;  // as the list writers leave it
      return STATUS_NO_MEMORY;
   }
   *allocated = true;
   return STATUS_OK;
}

// Writes the host blob into a buffer of the exact size, switch by switch.
// (The host blob's own version, 9, is new enough that the list writers'
// old-version warning never applies to it.)
// On failure the message names the switch and a buffer taken here is
// released.
ReturnStatus WriteHostBlob(void **blob, uint32_t *len) {
   DVS_ASSERT_STATE_LOCKED();
   uint32_t switchSizes[DVS_MAX_SWITCHES] = {};
   uint64_t total = DVSDATA_MIN_BLOB_SIZE;
   for (int i = 0; i < DVS_MAX_SWITCHES; i++) {
      const DVSwitch *dvs = globalSwsArray[i];
      if (dvs == nullptr) {
         continue;
      }
      ReturnStatus status = CheckedSwitchBlobSize(dvs, &switchSizes[i]);
      total += NestedRecordLength(switchSizes[i]);
      if (status == STATUS_OK && total > UINT32_MAX) {
         status = STATUS_NO_MEMORY;
      }
      if (status != STATUS_OK) {
         STATE_TRACE(0, "DVSStateConfigSerializeCB DVS %s failed %s\n", dvs->id,
                     HYP_ReturnStatusToString(status));
         return STATUS_EXISTS;
      }
   }
   const auto size = static_cast<uint32_t>(total);
   bool allocated = false;
   if (ReturnStatus status = TakeOutput(blob, len, size, &allocated); status != STATUS_OK) {
      return status;
   }
   auto *out = static_cast<uint8_t *>(*blob);

   uint32_t sum = dvs::data::WriteBlobHeader(out, size);
   uint32_t pos = DVSDATA_HEADER_SIZE;
   for (int i = 0; i < DVS_MAX_SWITCHES; i++) {
      const DVSwitch *dvs = globalSwsArray[i];
      if (dvs == nullptr) {
         continue;
      }
      uint8_t *record = out + pos;
      uint32_t switchSum = 0;
      const ReturnStatus status =
         WriteSwitchBlob(dvs, record + dvs::data::kRecordDataOffset, switchSizes[i], &switchSum);
      if (status != STATUS_OK) {
         // Whatever went wrong, the host blob reports it as one status.
         STATE_TRACE(0, "DVSStateConfigSerializeCB DVS %s failed %s\n", dvs->id,
                     HYP_ReturnStatusToString(status));
         if (allocated) {
            std::free(out);
            *blob = nullptr;
         }
         return STATUS_EXISTS;
      }
      dvs::data::ZeroRecordPadding(record, switchSizes[i]);
      sum += dvs::data::WriteRecordHead(record, dvs->id, kSwitchLevelFlag, switchSizes[i]);
      sum += switchSum;
      pos += static_cast<uint32_t>(NestedRecordLength(switchSizes[i]));
   }
   dvs::data::WriteEndMarker(out, pos);
   dvs::data::SealWithWordSum(out, size, sum);
   *len = size;
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
   StateLockGuard guard;
   return WriteHostBlob(blob, len);
}

DVS_EXPORT ReturnStatus DVSState_SwitchSerialize(DVSwitch *dvs, void **blob, uint32_t *len) {
   if (dvs == nullptr || blob == nullptr || len == nullptr) {
      return STATUS_BAD_PARAM;
   }
   uint32_t size = 0;
   ReturnStatus status = CheckedSwitchBlobSize(dvs, &size);
   if (status != STATUS_OK) {
      return status;
   }
   bool allocated = false;
   status = TakeOutput(blob, len, size, &allocated);
   if (status != STATUS_OK) {
      return status;
   }
   uint32_t sum = 0;
   status = WriteSwitchBlob(dvs, static_cast<uint8_t *>(*blob), size, &sum);
   if (status != STATUS_OK) {
      if (allocated) {
         std::free(*blob);
         *blob = nullptr;
      }
      return status;
   }
   *len = size;
   return STATUS_OK;
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
