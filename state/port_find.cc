// Finding and walking ports.  Finds by id go through the switch's port
// index; walks and finds by alias visit only occupied slots, asking the
// switch's bitmap for the next set bit.  Either way the order is slot order
// (slots are reused lowest-first, so not necessarily the order of adding)
// and ties go to the lowest slot.
#include <cstring>

#include "state/port_index.h"
#include "state/state_internal.h"

using namespace dvs::state;

namespace {

constexpr const char *kUnknownAlias = "unknown";

// Runs `test` on each port in slot order and returns the first port it
// accepts.  A set bit whose slot is empty ends the walk: past such a slot
// the table cannot be trusted.  The next bit is looked up only after the
// test, so a test may remove the port it is given.
template <typename Test>
DVSPort *ScanPorts(DVSwitch *dvs, Test test) {
   for (uint32_t bit = BitVector_NextBit(dvs->portBitmap, 0); bit != BITVECTOR_NOT_FOUND;
        bit = BitVector_NextBit(dvs->portBitmap, bit + 1)) {
      DVSPort *port = dvs->ports[bit];
      if (port == nullptr) {
         return nullptr;
      }
      if (test(port)) {
         return port;
      }
   }
   return nullptr;
}

// The port's alias, or null when its data has none.
const char *AliasOf(const DVSPort *port, uint32_t *len) {
   DVSDataEntry *entry = nullptr;
   if (DVSData_Lookup(port->data, DVS_PROP_PORT_ALIAS, &entry) != STATUS_OK) {
      return nullptr;
   }
   void *value = nullptr;
   *len = DVSData_Data(entry, &value);
   return static_cast<const char *>(value);
}

// The alias compares as text: up to its first NUL, or its whole length
// when a damaged value has none.
bool AliasEquals(const DVSPort *port, const char *alias) {
   uint32_t len = 0;
   const char *value = AliasOf(port, &len);
   if (value == nullptr) {
      return false;
   }
   const void *nul = std::memchr(value, '\0', len);
   const size_t valueLen = nul != nullptr ? static_cast<const char *>(nul) - value : len;
   return std::strlen(alias) == valueLen && std::memcmp(value, alias, valueLen) == 0;
}

DVSPort *FindByAlias(DVSwitch *dvs, const char *alias, uint32_t type) {
   if (dvs == nullptr || alias == nullptr) {
      return nullptr;
   }
   return ScanPorts(
      dvs, [&](const DVSPort *port) { return port->portType == type && AliasEquals(port, alias); });
}

// The switch's UUID as the text it is registered under.
struct UuidText {
   explicit UuidText(const uint8_t *uuid) { FormatSwitchUuid(uuid, text, sizeof text); }
   char text[DVS_PORT_ID_MAX];
};

}  // namespace

extern "C" {

DVS_EXPORT DVSPort *DVSState_FindPortByIDAndType(DVSwitch *dvs, const char *portId, uint32_t type) {
   if (dvs == nullptr || portId == nullptr) {
      return nullptr;
   }
   // Through the index: the lowest slot holding that id and type, which is
   // the port a walk in slot order would meet first.
   const PortIndex *index = PortIndexOf(dvs);
   const uint32_t slot =
      index != nullptr ? index->Find(dvs->ports, portId, type) : PortIndex::kNone;
   return slot != PortIndex::kNone ? dvs->ports[slot] : nullptr;
}

DVS_EXPORT DVSPort *DVSState_PortFindOnDVSwitch(DVSwitch *dvs, const char *portId) {
   DVSPort *port = DVSState_FindPortByIDAndType(dvs, portId, DVS_PORT_ACTIVE);
   if (port == nullptr) {
      port = DVSState_FindPortByIDAndType(dvs, portId, DVS_PORT_LOCAL_CACHE);
   }
   return port;
}

DVS_EXPORT DVSPort *DVSState_PortFind(const char *swId, const char *portId) {
   return DVSState_PortFindOnDVSwitch(DVSState_SwitchFind(swId), portId);
}

DVS_EXPORT DVSPort *DVSState_PortFindShadow(const char *swId, const char *portId) {
   return DVSState_FindPortByIDAndType(DVSState_SwitchFind(swId), portId, DVS_PORT_SHADOW);
}

DVS_EXPORT DVSPort *DVSState_PortFindZombie(const char *swId, const char *portId) {
   return DVSState_FindPortByIDAndType(DVSState_SwitchFind(swId), portId, DVS_PORT_ZOMBIE);
}

DVS_EXPORT DVSPort *DVSState_LocalCachePortFind(const char *swId, const char *portId) {
   return DVSState_FindPortByIDAndType(DVSState_SwitchFind(swId), portId, DVS_PORT_LOCAL_CACHE);
}

DVS_EXPORT DVSPort *DVSState_PortFindByUUID(const uint8_t *uuid, const char *portId) {
   if (uuid == nullptr) {
      return nullptr;
   }
   const UuidText sw(uuid);
   DVSPort *port = DVSState_PortFind(sw.text, portId);
   if (port == nullptr) {
      // PortFind already falls back to local-cache ports; this second try
      // is kept so that the lookup sequence stays as callers know it.
      port = DVSState_LocalCachePortFind(sw.text, portId);
   }
   return port;
}

DVS_EXPORT DVSPort *DVSState_PortFindShadowByUUID(const uint8_t *uuid, const char *portId) {
   if (uuid == nullptr) {
      return nullptr;
   }
   const UuidText sw(uuid);
   return DVSState_PortFindShadow(sw.text, portId);
}

DVS_EXPORT DVSPort *DVSStatePortFindByAliasOnDVS(DVSwitch *dvs, const char *alias, uint32_t type) {
   return FindByAlias(dvs, alias, type);
}

DVS_EXPORT DVSPort *DVSState_PortFindByAliasType(DVSwitch *dvs, const char *alias, uint32_t type) {
   return FindByAlias(dvs, alias, type);
}

DVS_EXPORT DVSPort *DVSState_PortFindByAliasOnDVS(DVSwitch *dvs, const char *alias) {
   DVSPort *port = FindByAlias(dvs, alias, DVS_PORT_ACTIVE);
   if (port == nullptr) {
      port = FindByAlias(dvs, alias, DVS_PORT_LOCAL_CACHE);
   }
   return port;
}

DVS_EXPORT DVSPort *DVSStatePortFindByAlias(const char *swAlias, const char *portAlias,
                                            uint32_t type) {
   DVSwitch *dvs = DVSState_SwitchFindByAlias(swAlias);
   if (dvs == nullptr) {
      return nullptr;
   }
   return FindByAlias(dvs, portAlias, type);
}

DVS_EXPORT DVSPort *DVSState_PortFindByAlias(const char *swAlias, const char *portAlias) {
   return DVSStatePortFindByAlias(swAlias, portAlias, DVS_PORT_ACTIVE);
}

DVS_EXPORT DVSPort *DVSState_PortFindShadowByAlias(const char *swAlias, const char *portAlias) {
   return DVSStatePortFindByAlias(swAlias, portAlias, DVS_PORT_SHADOW);
}

DVS_EXPORT void DVSState_PortForEach(DVSwitch *dvs, DVSPortForEachFn fn, void *ctx) {
   if (dvs == nullptr || fn == nullptr) {
      return;
   }
   ScanPorts(dvs, [&](DVSPort *port) { return fn(port, ctx); });
}

DVS_EXPORT char *DVS_PortId(DVSPort *port) {
   return port != nullptr ? port->id : nullptr;
}

DVS_EXPORT const char *DVS_PortAlias(DVSPort *port) {
   if (port == nullptr) {
      return kUnknownAlias;
   }
   uint32_t len = 0;
   const char *alias = AliasOf(port, &len);
   return alias != nullptr ? alias : kUnknownAlias;
}

}  // extern "C"
