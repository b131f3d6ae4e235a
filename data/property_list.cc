// The property list: an ordered, singly linked list of named, flagged
// values whose entries are stored as their blob record images.  The list
// keeps serialSize equal to the size of its whole-list blob at all times.
#include "data/property_list.h"

#include <cstring>

#include "data/arena_list_memory.h"
#include "data/blob_build.h"
#include "data/data_trace.h"
#include "data/record_layout.h"
#include "data/scratch_list_memory.h"

extern "C" {
DVS_EXPORT int32_t dvsdata_debug = -1;
}

namespace dvs::data {
namespace {

bool PointsInto(const void *p, const DVSDataEntry *entry) {
   const auto *begin = reinterpret_cast<const uint8_t *>(entry);
   const auto *end = RecordImage(entry) + entry->serialLen;
   const auto *q = static_cast<const uint8_t *>(p);
   return q >= begin && q < end;
}

// Builds a detached entry holding a copy of the name's first nameLen
// characters (at most 127) and of the value.  The copies are made before
// the caller touches the list, so name and value may point into an entry
// that the caller is about to release.
DVSDataEntry *NewBlankEntry(DVSDataHandle h, const char *name, size_t nameLen, uint32_t dataLen,
                            uint32_t flag);

DVSDataEntry *NewEntryWithName(DVSDataHandle h, const char *name, size_t nameLen, const void *data,
                               uint32_t dataLen, uint32_t flag) {
   DVSDataEntry *entry = NewBlankEntry(h, name, nameLen, dataLen, flag);
   if (entry != nullptr && dataLen != 0) {
      std::memcpy(entry->data, data, dataLen);
   }
   return entry;
}

// As above, with the value's bytes left for the caller to write.
DVSDataEntry *NewBlankEntry(DVSDataHandle h, const char *name, size_t nameLen, uint32_t dataLen,
                            uint32_t flag) {
   if (dataLen > kMaxDataLen) {
      return nullptr;
   }
   const uint32_t serialLen = RecordLength(dataLen);
   void *block = h->allocFn(kImageStart + serialLen);
   if (block == nullptr) {
      return nullptr;
   }
   auto *entry = static_cast<DVSDataEntry *>(block);
   uint8_t *image = static_cast<uint8_t *>(block) + kImageStart;
   // The name's tail and the padding are cleared: equal lists then give
   // byte-identical blobs.  Fixed-size clears compile to a few stores: the
   // whole name field, and the record's last eight bytes, which hold all
   // of the 3 to 6 padding bytes (the fields and value are written after).
   std::memset(entry->name, 0, sizeof entry->name);
   StoreU32(image + serialLen - 8, 0);
   StoreU32(image + serialLen - 4, 0);
   entry->next = nullptr;
   entry->serialLen = serialLen;
   std::memcpy(entry->name, name, nameLen);
   entry->flag = flag;
   entry->dataLen = dataLen;
   return entry;
}

// As above for a NUL-terminated name, cut to 127 characters.
DVSDataEntry *NewEntry(DVSDataHandle h, const char *name, const void *data, uint32_t dataLen,
                       uint32_t flag) {
   return NewEntryWithName(h, name, strnlen(name, DVSDATA_NAME_MAX - 1), data, dataLen, flag);
}

void LinkAtTail(DVSDataHandle h, DVSDataEntry *entry) {
   if (h->tail == nullptr) {
      h->head = entry;
   } else {
      h->tail->next = entry;
   }
   h->tail = entry;
   h->serialSize += entry->serialLen;
}

void Unlink(DVSDataHandle h, DVSDataEntry *entry, DVSDataEntry *prev) {
   if (prev == nullptr) {
      h->head = entry->next;
   } else {
      prev->next = entry->next;
   }
   if (h->tail == entry) {
      h->tail = prev;
   }
   h->serialSize -= entry->serialLen;
}

// Unlinks and releases an entry, with the removal trace.
void RemoveEntry(DVSDataHandle h, DVSDataEntry *entry, DVSDataEntry *prev) {
   Unlink(h, entry, prev);
   DATA_TRACE(2, "Remove entry %s, datalen = %u, flag = 0x%x serialSize = %u\n", entry->name,
              entry->dataLen, entry->flag, h->serialSize);
   h->freeFn(entry);
}

bool ValueArgsValid(const void *data, uint32_t dataLen) {
   return data != nullptr || dataLen == 0;
}

// Whether a record of the given value length can join a list whose size is
// currently `size` without the list outgrowing a 32-bit blob length.
bool FitsInBlob(uint32_t size, uint32_t dataLen) {
   return dataLen <= kMaxDataLen && RecordLength(dataLen) <= UINT32_MAX - size;
}

// Appends a prepared entry (or reports the failure to prepare one) with the
// append traces around it.
ReturnStatus AppendPrepared(DVSDataHandle h, const char *name, uint32_t dataLen,
                            DVSDataEntry *entry) {
   DATA_TRACE(2, "added data %s, len %d, start serialSize = %d\n", name, static_cast<int>(dataLen),
              static_cast<int>(h->serialSize));
   if (entry == nullptr) {
      return STATUS_NO_MEMORY;
   }
   LinkAtTail(h, entry);
   DATA_TRACE(2, "added data %s, serialSize = %d\n", name, static_cast<int>(h->serialSize));
   return STATUS_OK;
}

}  // namespace

ReturnStatus AppendNamed(DVSDataHandle h, const char *name, size_t nameLen, const void *data,
                         uint32_t dataLen, uint32_t flag) {
   DVSDataEntry *entry = FitsInBlob(h->serialSize, dataLen)
                            ? NewEntryWithName(h, name, nameLen, data, dataLen, flag)
                            : nullptr;
   return AppendPrepared(h, name, dataLen, entry);
}

ReturnStatus UpdateWithListBlob(DVSDataHandle h, const char *name, DVSDataHandle list,
                                uint32_t version, uint32_t flag, bool nameIsNew) {
   if (h == nullptr || name == nullptr || list == nullptr || list == h) {
      return STATUS_BAD_PARAM;
   }
   if (!nameIsNew && FindEntry(h, name, nullptr) != nullptr) {
      // Replacing a value (a name given twice): through a separate blob,
      // so that a failed write leaves the old value as it was.
      void *blob = nullptr;
      uint32_t len = 0;
      ReturnStatus status = DVSData_Serialize(list, &blob, &len, version);
      if (status == STATUS_OK) {
         status = DVSData_Update(h, name, blob, len, flag);
         list->freeFn(blob);
      }
      return status;
   }
   // A new name: the blob is written straight into the new entry, with the
   // traces the two steps above give.
   WarnOldVersion(version);
   const uint32_t size = ListBlobSize(list, 0);
   DATA_TRACE(2, "allocating buffer size %d\n", static_cast<int>(size));
   const uint32_t effectiveFlag = flag != 0 ? flag : DVSDATA_DEFAULT_PROP_TYPE;
   const size_t nameLen = strnlen(name, DVSDATA_NAME_MAX - 1);
   DVSDataEntry *entry = FitsInBlob(h->serialSize, size)
                            ? NewBlankEntry(h, name, nameLen, size, effectiveFlag)
                            : nullptr;
   if (entry != nullptr) {
      uint32_t wordSum = 0;
      const ReturnStatus status = WriteListBlob(list, 0, entry->data, size, &wordSum);
      if (status != STATUS_OK) {
         h->freeFn(entry);
         return status;
      }
   }
   return AppendPrepared(h, name, size, entry);
}

DVSDataEntry *FindEntry(DVSDataHandle h, const char *name, DVSDataEntry **prev) {
   // Names mostly share a long prefix ("com.ostrel..."), so a full compare
   // with every entry runs far into each name.  A stored name equal to one
   // of n characters has its terminator at n and the same last character;
   // two byte tests turn most entries away before the compare.
   const size_t n = strnlen(name, DVSDATA_NAME_MAX);
   const bool quickTest = n > 0 && n < DVSDATA_NAME_MAX;
   const char last = quickTest ? name[n - 1] : '\0';
   DVSDataEntry *before = nullptr;
   for (DVSDataEntry *e = h->head; e != nullptr; before = e, e = e->next) {
      if (quickTest && (e->name[n] != '\0' || e->name[n - 1] != last)) {
         continue;
      }
      if (NamesEqual(e->name, name)) {
         if (prev != nullptr) {
            *prev = before;
         }
         return e;
      }
   }
   return nullptr;
}

}  // namespace dvs::data

using namespace dvs::data;

extern "C" {

DVS_EXPORT ReturnStatus DVSData_Alloc(DVSDataHandle *h, DVSDataAllocFn allocFn,
                                      DVSDataFreeFn freeFn) {
   if (h == nullptr || allocFn == nullptr || freeFn == nullptr) {
      return STATUS_BAD_PARAM;
   }
   DATA_TRACE(1, "Allocing new handle\n");
   auto *list = static_cast<DVSData *>(allocFn(sizeof(DVSData)));
   if (list == nullptr) {
      return STATUS_NO_MEMORY;
   }
   list->serialSize = DVSDATA_MIN_BLOB_SIZE;
   list->head = nullptr;
   list->tail = nullptr;
   list->allocFn = allocFn;
   list->freeFn = freeFn;
   *h = list;
   DATA_TRACE(1, "DVSData handle allocated, serialSize = %d\n", static_cast<int>(list->serialSize));
   return STATUS_OK;
}

DVS_EXPORT void DVSData_Free(DVSDataHandle h) {
   if (h == nullptr) {
      return;
   }
   // Arena and scratch memory give nothing back entry by entry; their
   // owner releases it all at once.  Walking a large list only to make
   // those empty calls touched every entry again, most of them long out
   // of the cache.
   if (h->freeFn == ArenaListMemory::Free || h->freeFn == ScratchListMemory::Free) {
      return;
   }
   while (h->head != nullptr) {
      DVSDataEntry *entry = h->head;
      h->head = entry->next;
      h->freeFn(entry);
   }
   h->tail = nullptr;
   h->freeFn(h);
}

DVS_EXPORT void DVSData_GetMemFreeFn(DVSDataHandle h, DVSDataFreeFn *freeFn) {
   if (h != nullptr && freeFn != nullptr) {
      *freeFn = h->freeFn;
   }
}

DVS_EXPORT void DVSData_FreeAssocData(DVSDataHandle h, void *block) {
   if (h != nullptr && block != nullptr) {
      h->freeFn(block);
   }
}

DVS_EXPORT ReturnStatus DVSData_Append(DVSDataHandle h, const char *name, const void *data,
                                       uint32_t dataLen, uint32_t flag) {
   if (h == nullptr || name == nullptr || !ValueArgsValid(data, dataLen)) {
      return STATUS_BAD_PARAM;
   }
   DVSDataEntry *entry =
      FitsInBlob(h->serialSize, dataLen) ? NewEntry(h, name, data, dataLen, flag) : nullptr;
   return AppendPrepared(h, name, dataLen, entry);
}

DVS_EXPORT ReturnStatus DVSData_Update(DVSDataHandle h, const char *name, const void *data,
                                       uint32_t dataLen, uint32_t flag) {
   if (h == nullptr || name == nullptr || !ValueArgsValid(data, dataLen)) {
      return STATUS_BAD_PARAM;
   }
   const uint32_t effectiveFlag = flag != 0 ? flag : DVSDATA_DEFAULT_PROP_TYPE;
   DVSDataEntry *prev = nullptr;
   DVSDataEntry *old = FindEntry(h, name, &prev);
   if (old == nullptr) {
      return DVSData_Append(h, name, data, dataLen, effectiveFlag);
   }

   if (old->dataLen == dataLen) {
      // Same length: rewrite in place.  The flag is overwritten even when
      // the caller passed 0, which resets it to the default type.
      old->flag = effectiveFlag;
      if (dataLen != 0) {
         std::memmove(old->data, data, dataLen);
      }
      DATA_TRACE(2, "updated data %s, datalen = %d, serialSize = %d\n", old->name,
                 static_cast<int>(dataLen), static_cast<int>(h->serialSize));
      return STATUS_OK;
   }

   // Different length: the property moves to the end.  Here a flag of 0
   // keeps the old flag word instead of resetting it.
   const uint32_t newFlag = flag != 0 ? flag : old->flag;
   const uint32_t sizeWithoutOld = h->serialSize - old->serialLen;
   // Copy name and value before the old entry goes, since either may point
   // into it.  If that fails the old entry is removed all the same: a failed
   // relocating update leaves the property absent.
   DVSDataEntry *entry =
      FitsInBlob(sizeWithoutOld, dataLen) ? NewEntry(h, name, data, dataLen, newFlag) : nullptr;
   char nameCopy[DVSDATA_NAME_MAX];
   std::memcpy(nameCopy, old->name, sizeof nameCopy);
   const char *traceName = PointsInto(name, old) ? nameCopy : name;
   RemoveEntry(h, old, prev);
   return AppendPrepared(h, traceName, dataLen, entry);
}

DVS_EXPORT ReturnStatus DVSData_UpdateProp(DVSDataHandle h, const char *name, const void *data,
                                           uint32_t dataLen) {
   return DVSData_Update(h, name, data, dataLen, 0);
}

DVS_EXPORT ReturnStatus DVSDataRemove(DVSDataHandle h, const char *name, uint32_t *flag) {
   if (h == nullptr || name == nullptr) {
      return STATUS_BAD_PARAM;
   }
   DVSDataEntry *prev = nullptr;
   DVSDataEntry *entry = FindEntry(h, name, &prev);
   if (entry == nullptr) {
      if (flag != nullptr) {
         *flag = DVSDATA_DEFAULT_PROP_TYPE;
      }
      return STATUS_NOT_FOUND;
   }
   if (flag != nullptr) {
      *flag = entry->flag;
   }
   RemoveEntry(h, entry, prev);
   return STATUS_OK;
}

DVS_EXPORT ReturnStatus DVSData_Remove(DVSDataHandle h, const char *name) {
   return DVSDataRemove(h, name, nullptr);
}

DVS_EXPORT ReturnStatus DVSData_Lookup(DVSDataHandle h, const char *name, DVSDataEntry **entry) {
   if (h == nullptr || name == nullptr || entry == nullptr) {
      return STATUS_BAD_PARAM;
   }
   *entry = FindEntry(h, name, nullptr);
   return *entry != nullptr ? STATUS_OK : STATUS_NOT_FOUND;
}

DVS_EXPORT ReturnStatus DVSData_Next(DVSDataHandle h, DVSDataEntry *entry, DVSDataEntry **next) {
   if (h == nullptr || next == nullptr) {
      return STATUS_BAD_PARAM;
   }
   *next = entry == nullptr ? h->head : entry->next;
   return *next != nullptr ? STATUS_OK : STATUS_NOT_FOUND;
}

DVS_EXPORT void DVSData_ForEach(DVSDataHandle h, DVSDataForEachFn fn, void *ctx) {
   if (h == nullptr || fn == nullptr) {
      return;
   }
   // The successor is read before each call so that the callback may
   // remove the entry it is given.
   DVSDataEntry *entry = h->head;
   while (entry != nullptr) {
      DVSDataEntry *next = entry->next;
      if (fn(entry->name, entry->data, entry->dataLen, entry->flag, ctx)) {
         return;
      }
      entry = next;
   }
}

DVS_EXPORT const char *DVSData_Name(DVSDataEntry *entry) {
   return entry != nullptr ? entry->name : nullptr;
}

DVS_EXPORT uint32_t DVSData_PropType(DVSDataEntry *entry) {
   return entry != nullptr ? entry->flag : 0;
}

DVS_EXPORT uint32_t DVSData_Data(DVSDataEntry *entry, void **data) {
   if (entry == nullptr) {
      if (data != nullptr) {
         *data = nullptr;
      }
      return 0;
   }
   if (data != nullptr) {
      *data = entry->data;
   }
   return entry->dataLen;
}

DVS_EXPORT bool DVSData_IsSamePropType(DVSDataEntry *entry, uint32_t type) {
   return entry != nullptr && (entry->flag & DVSDATA_PROP_TYPE_MASK) == type;
}

}  // extern "C"
