// The switch registry: a fixed table of DVS_MAX_SWITCHES slots, guarded by
// the recursive "dvsstate" lock.  A switch record is one allocation holding
// the record and one port slot per port the host allows in total, so that
// adding a port later costs only the port record itself.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "state/port_index.h"
#include "state/state_internal.h"

extern "C" {
DVS_EXPORT int32_t dvs_debug = -1;
DVS_EXPORT uint32_t uwMaxNumActivePortsSystemWide = 0;
}

namespace dvs::state {

DVSwitch *globalSwsArray[DVS_MAX_SWITCHES];

namespace {

constexpr uint32_t kLockRank = 0xfeffffff;

// Created on first use and never destroyed.
KRecLock *dvsStateLock = nullptr;

// Classes whose switches may use every port the host allows; the first
// match decides the kind.
struct SwitchClass {
   const char *name;
   uint32_t kind;
};

constexpr SwitchClass kHostWideClasses[] = {
   {"zltvswitch", DVS_KIND_ZLT},        {"etherswitch", DVS_KIND_HOSTWIDE},
   {"stub-vswitch", DVS_KIND_HOSTWIDE}, {"cswitch", DVS_KIND_HOSTWIDE},
   {"vswitch", DVS_KIND_HOSTWIDE},
};

// Reads the host-wide port limit once; later calls see the cached value.
// A host may also store the limit itself before the first add.
ReturnStatus LoadHostPortLimit(const char *id) {
   // The lock only keeps two first adds from reading the node at once.
   StateLockGuard guard;
   if (uwMaxNumActivePortsSystemWide != 0) {
      return STATUS_OK;
   }
   ReturnStatus status = KSI_CheckSig("DVSState_SwitchAdd", KSI_SIGNATURE_VERSION);
   if (status != STATUS_OK) {
      STATE_TRACE(0, "DVSState_SwitchAdd %s, KSI signature check failed. Error: %s\n", id,
                  HYP_ReturnStatusToString(status));
      return status;
   }
   status = KSI_Get(KSI_NODE_net_maxPortsSystemWide, 0, &uwMaxNumActivePortsSystemWide,
                    sizeof uwMaxNumActivePortsSystemWide);
   if (status != STATUS_OK) {
      STATE_TRACE(0, "DVSState_SwitchAdd %s, failed to get max ports systemwide. Error: %s\n", id,
                  HYP_ReturnStatusToString(status));
   }
   return status;
}

uint32_t ClassKind(const char *className) {
   for (const SwitchClass &cls : kHostWideClasses) {
      if (std::strcmp(className, cls.name) == 0) {
         return cls.kind;
      }
   }
   return DVS_KIND_LIMITED;
}

// Releases everything a switch record owns except its ports.
void FreeSwitchRecord(DVSwitch *dvs) {
   DVSData_Free(dvs->globalPropList);
   DVSData_Free(dvs->hostPropList);
   BitVector_Free(dvs->portBitmap);
   std::free(dvs);
}

// A zeroed record with `numSlots` port slots, its bitmap and two empty
// property lists; on failure nothing is left allocated.
ReturnStatus NewSwitchRecord(uint32_t numSlots, DVSwitch **out) {
   // The port index follows the slots in the same block (port_index.h).
   const size_t indexBytes = PortIndex::BytesFor(numSlots);
   constexpr size_t kMaxSlots = (SIZE_MAX / 2 - sizeof(DVSwitch)) / sizeof(DVSPort *);
   if (size_t{numSlots} > kMaxSlots || indexBytes == 0) {
      return STATUS_NO_MEMORY;
   }
   const size_t slotBytes = sizeof(DVSwitch) + size_t{numSlots} * sizeof(DVSPort *);
   if (indexBytes > SIZE_MAX - slotBytes) {
      return STATUS_NO_MEMORY;
   }
   auto *dvs = static_cast<DVSwitch *>(std::calloc(1, slotBytes + indexBytes));
   if (dvs == nullptr) {
      return STATUS_NO_MEMORY;
   }
   PortIndex::InitAt(dvs->ports + numSlots, numSlots);
   dvs->portBitmap = BitVector_Alloc(numSlots);
   if (dvs->portBitmap == nullptr) {
      FreeSwitchRecord(dvs);
      return STATUS_NO_MEMORY;
   }
   BitVector_ClearAll(dvs->portBitmap);
   ReturnStatus status = DVSData_Alloc(&dvs->globalPropList, std::malloc, std::free);
   if (status == STATUS_OK) {
      status = DVSData_Alloc(&dvs->hostPropList, std::malloc, std::free);
   }
   if (status != STATUS_OK) {
      FreeSwitchRecord(dvs);
      return status;
   }
   *out = dvs;
   return STATUS_OK;
}

// The part of an add that runs under the lock: find the slot, build the
// record and publish it.
ReturnStatus SwitchAddLocked(const char *id, const char *className, uint32_t kind,
                             uint32_t maxPorts, uint32_t version) {
   DVS_ASSERT_STATE_LOCKED();
   int freeSlot = -1;
   for (int i = 0; i < DVS_MAX_SWITCHES; i++) {
      DVSwitch *dvs = globalSwsArray[i];
      if (dvs == nullptr) {
         if (freeSlot < 0) {
            freeSlot = i;
         }
      } else if (std::strcmp(dvs->id, id) == 0) {
         return STATUS_EXISTS;
      }
   }
   if (freeSlot < 0) {
      return STATUS_LIMIT_EXCEEDED;
   }

   DVSwitch *dvs = nullptr;
   ReturnStatus status = NewSwitchRecord(uwMaxNumActivePortsSystemWide, &dvs);
   if (status != STATUS_OK) {
      return status;
   }
   // strncpy fills the rest of each field with zeros, which the switch
   // blob writes out as they are.
   std::strncpy(dvs->id, id, DVS_SWITCH_ID_MAX - 1);
   std::strncpy(dvs->className, className, DVS_CLASS_NAME_MAX - 1);
   dvs->switchKind = kind;
   dvs->numPorts = 0;
   dvs->maxPorts = maxPorts;
   dvs->newMaxPorts = maxPorts;
   dvs->version = version;
   globalSwsArray[freeSlot] = dvs;
   return STATUS_OK;
}

// Runs the internal remove on every registered switch, in slot order.
ReturnStatus ResetLocked() {
   DVS_ASSERT_STATE_LOCKED();
   for (DVSwitch *&slot : globalSwsArray) {
      if (slot == nullptr) {
         continue;
      }
      char id[DVS_SWITCH_ID_MAX];
      std::memcpy(id, slot->id, sizeof id);
      const ReturnStatus status = SwitchRemoveLocked(id);
      if (status != STATUS_OK) {
         STATE_TRACE(0, "Failed to remove DVS %s, return %s\n", id,
                     HYP_ReturnStatusToString(status));
         return STATUS_EXISTS;
      }
   }
   return STATUS_OK;
}

DVSwitch **FindSlotLocked(const char *id) {
   DVS_ASSERT_STATE_LOCKED();
   for (DVSwitch *&slot : globalSwsArray) {
      if (slot != nullptr && std::strcmp(slot->id, id) == 0) {
         return &slot;
      }
   }
   return nullptr;
}

// Whether the NUL-terminated text equals a stored value, read as text up to
// its first NUL or its end, whichever comes first.
bool ValueEqualsText(const void *value, uint32_t len, const char *text) {
   const void *nul = std::memchr(value, '\0', len);
   const size_t valueLen =
      nul != nullptr
         ? static_cast<size_t>(static_cast<const char *>(nul) - static_cast<const char *>(value))
         : len;
   return std::strlen(text) == valueLen && std::memcmp(value, text, valueLen) == 0;
}

bool VersionAccepted(uint32_t version) {
   return version == 100 || (version >= 4 && version <= 10) || (version >= 107 && version <= 110);
}

}  // namespace

#ifdef DVS_LOCK_RANK_CHECK
void CheckStateLockHeld(const char *where) {
   if (!KLock_IsLockedByCaller(__atomic_load_n(&dvsStateLock, __ATOMIC_ACQUIRE))) {
      std::fprintf(stderr, "dvs: %s needs the \"dvsstate\" lock held by its caller\n", where);
      std::fflush(stderr);
      std::abort();
   }
}
#endif

ReturnStatus SwitchRemoveLocked(const char *id) {
   DVS_ASSERT_STATE_LOCKED();
   if (id == nullptr) {
      return STATUS_BAD_PARAM;
   }
   STATE_TRACE(1, "DVSState_SwitchRemove %s\n", id);
   DVSwitch **slot = FindSlotLocked(id);
   if (slot == nullptr) {
      STATE_TRACE(0, "DVSState_SwitchRemove DVSID %s, statue %s\n", id,
                  HYP_ReturnStatusToString(STATUS_NOT_FOUND));
      return STATUS_NOT_FOUND;
   }
   DVSwitch *dvs = *slot;
   RemoveAllPorts(dvs);
   FreeSwitchRecord(dvs);
   *slot = nullptr;
   return STATUS_OK;
}

void FormatSwitchUuid(const uint8_t *uuid, char *buf, size_t size) {
   std::snprintf(buf, size,
                 "%02hhx %02hhx %02hhx %02hhx %02hhx %02hhx %02hhx %02hhx-"
                 "%02hhx %02hhx %02hhx %02hhx %02hhx %02hhx %02hhx %02hhx",
                 uuid[0], uuid[1], uuid[2], uuid[3], uuid[4], uuid[5], uuid[6], uuid[7], uuid[8],
                 uuid[9], uuid[10], uuid[11], uuid[12], uuid[13], uuid[14], uuid[15]);
}

}  // namespace dvs::state

using namespace dvs::state;

extern "C" {

DVS_EXPORT KRecLock *DVSwitchHandleLock(void) {
   if (__atomic_load_n(&dvsStateLock, __ATOMIC_ACQUIRE) == nullptr) {
      KLock_CreateSingletonRecLockInt(&dvsStateLock, "dvsstate", kLockRank);
   }
   KRecLock *lock = __atomic_load_n(&dvsStateLock, __ATOMIC_ACQUIRE);
   KLock_AcquireRecLock(lock);
   return lock;
}

DVS_EXPORT void DVSwitchHandleUnlock(KRecLock *lock) {
   if (lock != nullptr) {
      KLock_ReleaseRecLock(lock);
   }
}

DVS_EXPORT ReturnStatus DVSState_SwitchAdd(const char *id, const char *className, uint32_t maxPorts,
                                           uint32_t version) {
   if (id == nullptr || className == nullptr) {
      return STATUS_BAD_PARAM;
   }
   if (ReturnStatus status = LoadHostPortLimit(id); status != STATUS_OK) {
      return status;
   }
   if (std::strlen(id) >= DVS_SWITCH_ID_MAX) {
      STATE_TRACE(0, "DVSState_SwitchAdd %s, id length too long\n", id);
      return STATUS_BAD_PARAM;
   }

   const uint32_t kind = ClassKind(className);
   uint32_t effectiveMax = maxPorts;
   if (kind != DVS_KIND_LIMITED) {
      effectiveMax = uwMaxNumActivePortsSystemWide;
   } else if (uwMaxNumActivePortsSystemWide - uwNumActivePortsOnHost < maxPorts) {
      // Only ports that exist count: the limits of several ordinary
      // switches may together promise more than the host has.
      STATE_TRACE(0, "DVSState_SwitchAdd %s, failed with maxPorts exceed %d.\n", id,
                  static_cast<int>(maxPorts));
      return STATUS_LIMIT_EXCEEDED;
   }

   STATE_TRACE(1, "DVSState_SwitchAdd %s, %s, %d\n", id, className, static_cast<int>(effectiveMax));
   ReturnStatus status;
   {
      StateLockGuard guard;
      status = SwitchAddLocked(id, className, kind, effectiveMax, version);
   }
   if (status != STATUS_OK) {
      STATE_TRACE(0, "DVSState_SwitchAdd failed DVS:%s Error: %s\n", id,
                  HYP_ReturnStatusToString(status));
   }
   return status;
}

DVS_EXPORT ReturnStatus DVSState_SwitchRemove(const char *id) {
   StateLockGuard guard;
   return SwitchRemoveLocked(id);
}

DVS_EXPORT DVSwitch *DVSState_SwitchFind(const char *id) {
   if (id == nullptr) {
      return nullptr;
   }
   DVSwitch *found = nullptr;
   {
      StateLockGuard guard;
      DVSwitch **slot = FindSlotLocked(id);
      found = slot != nullptr ? *slot : nullptr;
   }
   return found;
}

DVS_EXPORT DVSwitch *DVSState_SwitchFindByUUID(const uint8_t *uuid) {
   if (uuid == nullptr) {
      return nullptr;
   }
   char text[DVS_SWITCH_ID_MAX];
   FormatSwitchUuid(uuid, text, sizeof text);
   return DVSState_SwitchFind(text);
}

DVS_EXPORT DVSwitch *DVSState_SwitchFindByAlias(const char *alias) {
   if (alias == nullptr) {
      return nullptr;
   }
   StateLockGuard guard;
   for (DVSwitch *dvs : globalSwsArray) {
      if (dvs == nullptr) {
         continue;
      }
      DVSDataEntry *entry = nullptr;
      if (DVSData_Lookup(dvs->globalPropList, DVS_PROP_SWITCH_ALIAS, &entry) != STATUS_OK) {
         continue;
      }
      void *value = nullptr;
      const uint32_t len = DVSData_Data(entry, &value);
      if (ValueEqualsText(value, len, alias)) {
         return dvs;
      }
   }
   return nullptr;
}

DVS_EXPORT ReturnStatus DVSState_SwitchSetVersion(const char *id, int32_t version) {
   const auto newVersion = static_cast<uint32_t>(version);
   if (!VersionAccepted(newVersion)) {
      STATE_TRACE(0, "DVS version not support %u\n", newVersion);
      return STATUS_NOT_SUPPORTED;
   }
   if (id == nullptr) {
      return STATUS_BAD_PARAM;
   }
   DVSwitch *dvs = DVSState_SwitchFind(id);
   if (dvs == nullptr) {
      return STATUS_NOT_FOUND;
   }
   STATE_TRACE(0, "Set DVS %s version from %u to %u\n", id, dvs->version, newVersion);
   dvs->version = newVersion;
   return STATUS_OK;
}

DVS_EXPORT void DVSState_SwitchForEach(DVSSwitchForEachFn fn, void *ctx) {
   if (fn == nullptr) {
      return;
   }
   StateLockGuard guard;
   // Each slot is read only when the walk reaches it: the callback may add
   // or remove switches.
   for (int i = 0; i < DVS_MAX_SWITCHES; i++) {
      DVSwitch *dvs = globalSwsArray[i];
      if (dvs != nullptr && fn(dvs, ctx)) {
         return;
      }
   }
}

DVS_EXPORT ReturnStatus DVSState_ConfigReset(void) {
   StateLockGuard guard;
   return ResetLocked();
}

DVS_EXPORT void DVSState_FreeDVSArray(DVSwitch *array[DVS_MAX_SWITCHES]) {
   if (array == nullptr) {
      return;
   }
   StateLockGuard guard;
   // The registry is emptied first so that the given switches can borrow
   // its table, and the reset that follows destroys them with their ports.
   ResetLocked();
   for (int i = 0; i < DVS_MAX_SWITCHES; i++) {
      globalSwsArray[i] = array[i];
   }
   ResetLocked();
}

DVS_EXPORT void DVSState_UpdateGlobalSwsArray(DVSwitch *array[DVS_MAX_SWITCHES],
                                              char ids[DVS_MAX_SWITCHES][DVS_SWITCH_ID_MAX]) {
   if (array == nullptr || ids == nullptr) {
      return;
   }
   StateLockGuard guard;
   // Move each named switch into the next gap of the given array.
   int cursor = 0;
   for (int k = 0; k < DVS_MAX_SWITCHES; k++) {
      // Unused entries of the id array are zeroed; they name no switch, even
      // if a switch was registered under the empty id.
      if (ids[k][0] == '\0') {
         continue;
      }
      DVSwitch **slot = nullptr;
      for (DVSwitch *&candidate : globalSwsArray) {
         // The id entries are fixed-size fields, not necessarily terminated.
         if (candidate != nullptr && std::strncmp(candidate->id, ids[k], DVS_SWITCH_ID_MAX) == 0) {
            slot = &candidate;
            break;
         }
      }
      if (slot == nullptr || cursor >= DVS_MAX_SWITCHES) {
         continue;
      }
      while (cursor < DVS_MAX_SWITCHES && array[cursor] != nullptr) {
         cursor++;
      }
      if (cursor >= DVS_MAX_SWITCHES) {
         continue;
      }
      array[cursor] = *slot;
      *slot = nullptr;
      cursor++;
   }
   // The given array becomes the registry; what remained registered goes
   // back to the caller.
   for (int i = 0; i < DVS_MAX_SWITCHES; i++) {
      DVSwitch *held = array[i];
      array[i] = globalSwsArray[i];
      globalSwsArray[i] = held;
   }
}

}  // extern "C"
