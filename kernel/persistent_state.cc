// The persistent state: the kernel's switch state cut down to what is meant
// to outlive a restart.  Volatile properties go, switches marked not to be
// persisted are replaced by their last saved copy from the state file, and
// only plain active ports stay.  The result is a host configuration blob
// for the whole host, or the property blob of one port.
//
// The whole-host assembly borrows the process-wide registry under the
// "dvshyp" lock (and the registry's own lock) and leaves it empty again
// before it returns, whatever happens on the way.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <dvsfile.h>

#include "kernel/kernel_internal.h"
#include "state/state_internal.h"

using dvs::state::StateLockGuard;

namespace dvs::kernel {
namespace {

constexpr const char kOpaquePortsetProp[] = "com.ostrel.common.portset.opaque";
constexpr const char kPortPersistProp[] = "com.ostrel.common.port.volatile.persist";

// On a switch with an opaque port set, ports numbered above this belong to
// the port set's owner, not to the switch's saved state.
constexpr uint32_t kLastOwnedPortNumber = 999;

// Whether the host list says "true" (in its first four bytes) for the
// opaque port set.
bool HasOpaquePortset(DVSwitch *dvs) {
   DVSDataEntry *entry = nullptr;
   if (DVSData_Lookup(dvs->hostPropList, kOpaquePortsetProp, &entry) != STATUS_OK) {
      return false;
   }
   void *value = nullptr;
   return DVSData_Data(entry, &value) >= 4 && std::memcmp(value, "true", 4) == 0;
}

// Whether the id is a non-empty run of decimal digits whose value is above
// the last number a switch keeps.  Long runs saturate rather than wrap.
bool IsForeignPortNumber(const char *id) {
   if (*id == '\0') {
      return false;
   }
   uint32_t value = 0;
   for (const char *c = id; *c != '\0'; c++) {
      if (*c < '0' || *c > '9') {
         return false;
      }
      if (value <= kLastOwnedPortNumber) {
         value = value * 10 + static_cast<uint32_t>(*c - '0');
      }
   }
   return value > kLastOwnedPortNumber;
}

bool RemoveForeignPort(DVSPort *port, void *) {
   if (IsForeignPortNumber(port->id)) {
      // Both ids live in records that the removal may release.
      char swId[DVS_SWITCH_ID_MAX];
      char portId[DVS_PORT_ID_MAX];
      std::snprintf(swId, sizeof swId, "%s", port->dvs->id);
      std::snprintf(portId, sizeof portId, "%s", port->id);
      DVSState_PortRemove(swId, portId);
   }
   return false;
}

// An active port keeps its place and loses its volatile properties; every
// other port, and an active one holding the persist property, is given
// type 0 so that the switch blob leaves it out.
bool MakePortPersistent(DVSPort *port, void *) {
   void *value = nullptr;
   if (port->portType == DVS_PORT_ACTIVE &&
       DVSState_PortDataRead(port, kPortPersistProp, &value, nullptr) != STATUS_OK) {
      DVSHYPStripNamedProp(port->data, kVolatileFragment);
   } else {
      port->portType = 0;
   }
   return false;
}

bool MakeSwitchPersistent(DVSwitch *dvs, void *) {
   DVSHYPStripNamedProp(dvs->globalPropList, kVolatileFragment);
   DVSHYPStripNamedProp(dvs->hostPropList, kVolatileFragment);
   if (HasOpaquePortset(dvs)) {
      DVSState_PortForEach(dvs, RemoveForeignPort, nullptr);
   }
   DVSState_PortForEach(dvs, MakePortPersistent, nullptr);
   return false;
}

// Makes every registered switch persistent and writes the registry out.
ReturnStatus SerializePersistent(void **blob, uint32_t *len) {
   DVS_ASSERT_HYP_LOCKED();
   DVS_ASSERT_STATE_LOCKED();
   DVSState_SwitchForEach(MakeSwitchPersistent, nullptr);
   return DVSState_ConfigSerialize(blob, len);
}

// Replaces the switches named in `ids` by their copies in the state file
// and writes the result; `detached` holds the kernel's other switches.
ReturnStatus MergeWithFile(const char *path, DVSwitch *detached[DVS_MAX_SWITCHES],
                           char ids[DVS_MAX_SWITCHES][DVS_SWITCH_ID_MAX], void **blob,
                           uint32_t *len) {
   DVS_ASSERT_HYP_LOCKED();
   DVS_ASSERT_STATE_LOCKED();
   void *file = nullptr;
   uint32_t fileLen = 0;
   uint32_t alignOffset = 0;
   ReturnStatus status = DVSFile_Read(path, &file, &fileLen, &alignOffset);
   if (status != STATUS_OK) {
      return status;
   }
   status = DVSState_ConfigDeserialize(file, fileLen);
   std::free(static_cast<char *>(file) - alignOffset);
   if (status != STATUS_OK) {
      std::fprintf(stderr, "DVSState_ConfigDeserialize failed: %s\n",
                   HYP_ReturnStatusToString(status));
      return status;
   }
   DVSState_UpdateGlobalSwsArray(detached, ids);
   status = SerializePersistent(blob, len);
   DVSState_ConfigReset();
   return status;
}

}  // namespace
}  // namespace dvs::kernel

using namespace dvs::kernel;

extern "C" {

DVS_EXPORT ReturnStatus DVSHYP_PersistentStateGetWithFile(void **blob, uint32_t *len,
                                                          const char *path) {
   if (blob == nullptr || len == nullptr) {
      return STATUS_BAD_PARAM;
   }
   void *state = nullptr;
   uint32_t stateLen = 0;
   ReturnStatus status = DVSHYP_StateGet(&state, &stateLen);
   if (status != STATUS_OK) {
      return status;
   }

   HypLockGuard hyp;
   StateLockGuard registry;
   status = DVSState_ConfigDeserialize(state, stateLen);
   DVSHYP_DataFree(state);
   if (status != STATUS_OK) {
      DVSState_ConfigReset();
      return status;
   }

   DVSwitch *detached[DVS_MAX_SWITCHES] = {};
   char ids[DVS_MAX_SWITCHES][DVS_SWITCH_ID_MAX] = {};
   if (!DVSState_StripDvsWithNoPersistFlag(detached, ids, path != nullptr)) {
      status = SerializePersistent(blob, len);
      DVSState_ConfigReset();
      return status;
   }
   status = MergeWithFile(path, detached, ids, blob, len);
   // Releases what is left of both copies and leaves the registry empty.
   DVSState_FreeDVSArray(detached);
   return status;
}

DVS_EXPORT ReturnStatus DVSHYP_PersistentStateGet(void **blob, uint32_t *len) {
   return DVSHYP_PersistentStateGetWithFile(blob, len, nullptr);
}

DVS_EXPORT ReturnStatus DVSHYP_PersistentPortStateGet(const char *sw, const char *port,
                                                      uint32_t version, void **blob,
                                                      uint32_t *len) {
   if (sw == nullptr || port == nullptr || blob == nullptr || len == nullptr) {
      return STATUS_BAD_PARAM;
   }
   DVSDataHandle list = nullptr;
   ReturnStatus status = FetchPortProps(sw, port, &list);
   if (status != STATUS_OK) {
      return status;
   }
   // Unlike the whole-host step, this drops the persist property too.
   DVSHYPStripNamedProp(list, kVolatileFragment);
   status = DVSData_Serialize(list, blob, len, version);
   DVSData_Free(list);
   return status;
}

}  // extern "C"
