// Adding and removing ports.  A switch keeps its ports in a slot array with
// an occupancy bitmap; one array serves active, shadow, zombie and
// local-cache ports, told apart by their type.  Two counters follow every
// add and remove: the switch's numPorts and the host's port count.  Port
// operations take no lock of their own (apart from the switch lookup by
// id); callers that share the registry hold DVSwitchHandleLock around them.
#include <cstdlib>
#include <cstring>

#include "state/port_index.h"
#include "state/state_internal.h"

namespace dvs::state {

uint32_t uwNumActivePortsOnHost = 0;

namespace {

// Longest port id on switches of version 6 and older.
constexpr size_t kOldPortIdMax = 15;
constexpr uint32_t kLastOldVersion = 6;

bool PortIdTooLong(const DVSwitch *dvs, const char *portId) {
   const size_t len = std::strlen(portId);
   if (dvs->version > kLastOldVersion) {
      return len >= DVS_PORT_ID_MAX;
   }
   return len > kOldPortIdMax;
}

// Slots that really exist behind the record: the bitmap has one bit per
// allocated slot.  maxPorts normally stays within it, but it is adopted
// from newMaxPorts, which others may raise.
uint32_t SlotCapacity(const DVSwitch *dvs) {
   return dvs->portBitmap != nullptr ? dvs->portBitmap->numBits : 0;
}

// Frees the port in `slot` with its data and marks the slot free; the
// port index is the caller's to update.
void ReleaseSlot(DVSwitch *dvs, uint32_t slot) {
   DVSPort *port = dvs->ports[slot];
   DVSData_Free(port->data);
   std::free(port);
   dvs->ports[slot] = nullptr;
   BitVector_Clear(dvs->portBitmap, slot);
   uwNumActivePortsOnHost--;
   dvs->numPorts--;
}

}  // namespace

ReturnStatus PortRemove(DVSwitch *dvs, const char *portId, uint32_t type) {
   if (dvs == nullptr) {
      STATE_TRACE(0, "Null DVS handle\n");
      return STATUS_NOT_FOUND;
   }
   if (portId == nullptr) {
      return STATUS_BAD_PARAM;
   }
   STATE_TRACE(1, "DVSState_PortRemove %s, %s\n", dvs->id, portId);
   PortIndex *index = PortIndexOf(dvs);
   const uint32_t slot =
      index != nullptr ? index->Find(dvs->ports, portId, type) : PortIndex::kNone;
   if (slot == PortIndex::kNone) {
      return STATUS_NOT_FOUND;
   }
   // portId may point into this record: it is not used past this point.
   index->Erase(dvs->ports[slot], slot);
   ReleaseSlot(dvs, slot);
   return STATUS_OK;
}

void RemoveAllPorts(DVSwitch *dvs) {
   // Ports are released in the order a walk over the switch removing them
   // one by one would take, with the same message each; the walk, too,
   // stops at a slot marked in use that holds no port.  Leaving the port
   // index behind is what makes this cheaper: the record it lives in is
   // about to be freed.
   for (uint32_t bit = BitVector_NextBit(dvs->portBitmap, 0); bit != BITVECTOR_NOT_FOUND;
        bit = BitVector_NextBit(dvs->portBitmap, bit + 1)) {
      DVSPort *port = dvs->ports[bit];
      if (port == nullptr) {
         return;
      }
      STATE_TRACE(1, "DVSState_PortRemove %s, %s\n", dvs->id, port->id);
      ReleaseSlot(dvs, bit);
   }
}

}  // namespace dvs::state

using namespace dvs::state;

extern "C" {

DVS_EXPORT ReturnStatus DVSStatePortAdd(DVSwitch *dvs, const char *portId, DVSDataHandle data,
                                        uint32_t type, DVSPort **port) {
   if (dvs == nullptr) {
      return STATUS_NOT_FOUND;
   }
   if (portId == nullptr) {
      return STATUS_BAD_PARAM;
   }
   STATE_TRACE(1, "DVSStatePortAdd %s, %s\n", dvs->id, portId);
   if (PortIdTooLong(dvs, portId)) {
      STATE_TRACE(0, "DVSStatePortAdd %s, id length too long\n", portId);
      return STATUS_BAD_PARAM;
   }
   // Both limits are equality tests on purpose: a count that is already
   // above a lowered limit does not stop adds.  The slot scan below still
   // keeps every add inside the slots the switch really has.
   if ((dvs->switchKind & DVS_KIND_HOSTWIDE) == 0 && dvs->numPorts == dvs->maxPorts) {
      STATE_TRACE(0, "DVSStatePortAdd %s, switch has already used up max num ports (%d)\n", dvs->id,
                  static_cast<int>(dvs->numPorts));
      return STATUS_LIMIT_EXCEEDED;
   }
   if (uwNumActivePortsOnHost == uwMaxNumActivePortsSystemWide) {
      STATE_TRACE(0, "DVSStatePortAdd %s, host has already used up max num ports (%d)\n", dvs->id,
                  static_cast<int>(uwNumActivePortsOnHost));
      return STATUS_LIMIT_EXCEEDED;
   }
   if (static_cast<int32_t>(dvs->maxPorts) < 1) {
      return STATUS_LIMIT_EXCEEDED;
   }

   // Only the first maxPorts slots are used, lowest free first.  The same id
   // may exist once per type, except that zombie ports may repeat; a port
   // left beyond a lowered limit does not count as a duplicate.
   const uint32_t usable = dvs->maxPorts < SlotCapacity(dvs) ? dvs->maxPorts : SlotCapacity(dvs);
   PortIndex *index = PortIndexOf(dvs);
   if (index == nullptr) {
      return STATUS_LIMIT_EXCEEDED;
   }
   if (type != DVS_PORT_ZOMBIE) {
      const uint32_t dup = index->Find(dvs->ports, portId, type);
      if (dup != PortIndex::kNone && dup < usable) {
         if (port != nullptr) {
            *port = dvs->ports[dup];
         }
         return STATUS_EXISTS;
      }
   }
   const uint32_t freeSlot = index->LowestFree();
   if (freeSlot == PortIndex::kNone || freeSlot >= usable) {
      return STATUS_LIMIT_EXCEEDED;
   }
   if (data == nullptr) {
      return STATUS_BAD_PARAM;
   }

   auto *added = static_cast<DVSPort *>(std::calloc(1, sizeof(DVSPort)));
   if (added == nullptr) {
      return STATUS_NO_MEMORY;
   }
   dvs->ports[freeSlot] = added;
   dvs->numPorts++;
   uwNumActivePortsOnHost++;
   std::strncpy(added->id, portId, DVS_PORT_ID_MAX - 1);
   added->data = data;
   added->dvs = dvs;
   added->portType = type;
   BitVector_Set(dvs->portBitmap, freeSlot);
   index->Insert(added, freeSlot);
   if (port != nullptr) {
      *port = added;
   }
   return STATUS_OK;
}

DVS_EXPORT ReturnStatus DVSState_PortAdd(const char *swId, const char *portId, DVSDataHandle data) {
   return DVSStatePortAdd(DVSState_SwitchFind(swId), portId, data, DVS_PORT_ACTIVE, nullptr);
}

DVS_EXPORT ReturnStatus DVSState_LocalCachePortAdd(const char *swId, const char *portId,
                                                   DVSDataHandle data) {
   return DVSStatePortAdd(DVSState_SwitchFind(swId), portId, data, DVS_PORT_LOCAL_CACHE, nullptr);
}

DVS_EXPORT ReturnStatus DVSState_PortAddShadow(const char *swId, const char *portId,
                                               const void *blob, uint32_t len) {
   if (swId == nullptr) {
      return STATUS_NOT_FOUND;
   }
   if (portId == nullptr) {
      return STATUS_BAD_PARAM;
   }
   STATE_TRACE(1, "DVSState_PortAddShadow %s, %s\n", swId, portId);
   DVSDataHandle data = nullptr;
   ReturnStatus status = DVSData_Deserialize(&data, blob, len, std::malloc, std::free);
   if (status != STATUS_OK) {
      return status;
   }
   status = DVSStatePortAdd(DVSState_SwitchFind(swId), portId, data, DVS_PORT_SHADOW, nullptr);
   if (status != STATUS_OK) {
      DVSData_Free(data);
   }
   return status;
}

DVS_EXPORT ReturnStatus DVSState_PortRemove(const char *swId, const char *portId) {
   return PortRemove(DVSState_SwitchFind(swId), portId, DVS_PORT_ACTIVE);
}

DVS_EXPORT ReturnStatus DVSState_PortRemoveShadow(const char *swId, const char *portId) {
   return PortRemove(DVSState_SwitchFind(swId), portId, DVS_PORT_SHADOW);
}

DVS_EXPORT ReturnStatus DVSState_PortRemoveZombie(const char *swId, const char *portId) {
   return PortRemove(DVSState_SwitchFind(swId), portId, DVS_PORT_ZOMBIE);
}

DVS_EXPORT ReturnStatus DVSState_LocalCachePortRemove(const char *swId, const char *portId) {
   return PortRemove(DVSState_SwitchFind(swId), portId, DVS_PORT_LOCAL_CACHE);
}

}  // extern "C"
