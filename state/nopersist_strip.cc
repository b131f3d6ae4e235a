// Drops the switches marked as not to be persisted before the registry is
// written out, and optionally detaches the remaining switches from the
// registry so that the caller can merge them with another copy of the
// state.
#include <cstdio>
#include <cstring>

#include "state/state_internal.h"

namespace dvs::state {
namespace {

// Whether the switch carries the marker with a nonzero first byte.
bool IsMarkedNoPersist(DVSwitch *dvs) {
   DVSDataEntry *entry = nullptr;
   if (DVSData_Lookup(dvs->globalPropList, DVS_PROP_NOPERSIST, &entry) != STATUS_OK) {
      return false;
   }
   void *data = nullptr;
   return DVSData_Data(entry, &data) >= 1 && *static_cast<const uint8_t *>(data) != 0;
}

}  // namespace
}  // namespace dvs::state

using namespace dvs::state;

extern "C" {

DVS_EXPORT bool DVSState_StripDvsWithNoPersistFlag(DVSwitch *array[DVS_MAX_SWITCHES],
                                                   char ids[DVS_MAX_SWITCHES][DVS_SWITCH_ID_MAX],
                                                   int32_t detach) {
   if (array == nullptr || ids == nullptr) {
      return false;
   }
   // Entries past the recorded ids read as empty rather than as whatever
   // the caller's buffer held.
   std::memset(ids, 0, sizeof(char[DVS_MAX_SWITCHES][DVS_SWITCH_ID_MAX]));

   StateLockGuard guard;
   bool detached = false;
   size_t removed = 0;
   for (DVSwitch *dvs : globalSwsArray) {
      if (dvs == nullptr || !IsMarkedNoPersist(dvs)) {
         continue;
      }
      // The record goes away with the removal: keep its id.
      char id[DVS_SWITCH_ID_MAX];
      std::memcpy(id, dvs->id, sizeof id);
      id[sizeof id - 1] = '\0';
      if (DVSState_SwitchRemove(id) == STATUS_OK) {
         std::memcpy(ids[removed++], id, sizeof id);
         if (detach != 0) {
            detached = true;
         }
      } else {
         // Not behind the debug level: a switch that should not persist and
         // stays is worth a line whatever the verbosity.
         std::fprintf(stderr, "failed to remove dvs %s\n", id);
      }
   }

   if (detached) {
      // The remaining switches now live only in the caller's array.
      for (size_t i = 0; i < DVS_MAX_SWITCHES; i++) {
         array[i] = globalSwsArray[i];
         globalSwsArray[i] = nullptr;
      }
   } else {
      for (size_t i = 0; i < DVS_MAX_SWITCHES; i++) {
         array[i] = nullptr;
      }
   }
   return detached;
}

}  // extern "C"
