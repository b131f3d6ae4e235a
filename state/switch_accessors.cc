// Field accessors of a switch handle.  They take no lock: a caller that
// shares the handle with other threads holds DVSwitchHandleLock around the
// find and the use.  A null handle reads as an empty switch (0, null or
// "unknown") instead of crashing the caller.
#include <cstring>

#include "state/state_internal.h"

namespace {

constexpr const char *kUnknownName = "unknown";

}  // namespace

extern "C" {

DVS_EXPORT uint32_t DVS_Version(DVSwitch *dvs) {
   return dvs != nullptr ? dvs->version : 0;
}

DVS_EXPORT char *DVS_SwitchId(DVSwitch *dvs) {
   return dvs != nullptr ? dvs->id : nullptr;
}

DVS_EXPORT char *DVS_ClassName(DVSwitch *dvs) {
   return dvs != nullptr ? dvs->className : nullptr;
}

DVS_EXPORT char *DVS_SetClassName(DVSwitch *dvs, const char *name) {
   if (dvs == nullptr) {
      return nullptr;
   }
   if (name != nullptr) {
      // A longer name is cut; the rest of the field is zero-filled and the
      // last byte always ends the text.
      std::strncpy(dvs->className, name, DVS_CLASS_NAME_MAX - 1);
      dvs->className[DVS_CLASS_NAME_MAX - 1] = '\0';
   }
   return dvs->className;
}

DVS_EXPORT uint32_t DVS_GetMaxPorts(DVSwitch *dvs) {
   return dvs != nullptr ? dvs->maxPorts : 0;
}

DVS_EXPORT uint32_t DVS_GetNewMaxPorts(DVSwitch *dvs) {
   return dvs != nullptr ? dvs->newMaxPorts : 0;
}

DVS_EXPORT uint32_t DVS_UpdateMaxPorts(DVSwitch *dvs) {
   if (dvs == nullptr) {
      return 0;
   }
   dvs->maxPorts = dvs->newMaxPorts;
   return dvs->maxPorts;
}

DVS_EXPORT const char *DVS_SwitchName(DVSwitch *dvs) {
   if (dvs == nullptr) {
      return kUnknownName;
   }
   // Through the registry by id, so a switch that is not registered (one
   // held in a detached table) has no name either.
   DVSDataEntry *entry = nullptr;
   if (DVSState_GlobalPropLookup(dvs->id, DVS_PROP_SWITCH_ALIAS, &entry) != STATUS_OK ||
       entry == nullptr) {
      return kUnknownName;
   }
   void *value = nullptr;
   DVSData_Data(entry, &value);
   return static_cast<const char *>(value);
}

}  // extern "C"
