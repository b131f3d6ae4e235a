// Global and host property operations of a switch: set, clear, look up,
// read, test and walk.  Both families do the same work on a different list
// of the switch record, so they share one implementation that is told which
// list to use and which word ("Global" or "Host") to put in its messages.
#include "state/state_internal.h"

namespace dvs::state {
namespace {

// Which of the two switch-level lists an operation works on.
struct PropFamily {
   const char *word;               // "Global" or "Host", as the messages name it
   DVSDataHandle DVSwitch::*list;  // the list inside the switch record
};

constexpr PropFamily kGlobal{"Global", &DVSwitch::globalPropList};
constexpr PropFamily kHost{"Host", &DVSwitch::hostPropList};

ReturnStatus PropSet(const PropFamily &family, const char *swId, const char *name, const void *val,
                     uint32_t len, uint32_t flag) {
   // An empty value is refused before anything else, even for an unknown
   // switch.
   if (val == nullptr || len == 0) {
      return STATUS_FAILURE;
   }
   if (swId == nullptr || name == nullptr) {
      return STATUS_BAD_PARAM;
   }
   STATE_TRACE(1, "DVSState_%sPropSet %s, %s\n", family.word, swId, name);
   // Keep the switch alive between the find and the update.
   StateLockGuard guard;
   DVSwitch *dvs = DVSState_SwitchFind(swId);
   if (dvs == nullptr) {
      return STATUS_NOT_FOUND;
   }
   return DVSData_Update(dvs->*family.list, name, val, len, flag);
}

ReturnStatus PropClear(const PropFamily &family, const char *swId, const char *name) {
   if (swId == nullptr || name == nullptr) {
      return STATUS_BAD_PARAM;
   }
   STATE_TRACE(1, "DVSState_%sPropClear %s, %s\n", family.word, swId, name);
   StateLockGuard guard;
   DVSwitch *dvs = DVSState_SwitchFind(swId);
   if (dvs == nullptr) {
      return STATUS_NOT_FOUND;
   }
   return DVSData_Remove(dvs->*family.list, name);
}

ReturnStatus PropLookup(const PropFamily &family, const char *swId, const char *name,
                        DVSDataEntry **entry) {
   if (swId == nullptr || name == nullptr || entry == nullptr) {
      return STATUS_BAD_PARAM;
   }
   STATE_TRACE(2, "DVSState_%sPropLookup %s, %s\n", family.word, swId, name);
   StateLockGuard guard;
   DVSwitch *dvs = DVSState_SwitchFind(swId);
   if (dvs == nullptr) {
      return STATUS_NOT_FOUND;
   }
   return DVSData_Lookup(dvs->*family.list, name, entry);
}

ReturnStatus PropRead(const PropFamily &family, DVSwitch *dvs, const char *name, void **val,
                      uint32_t *len) {
   if (dvs == nullptr || name == nullptr || val == nullptr) {
      return STATUS_BAD_PARAM;
   }
   STATE_TRACE(2, "DVSState_%sPropRead %s, %s\n", family.word, dvs->id, name);
   DVSDataEntry *entry = nullptr;
   const ReturnStatus status = DVSData_Lookup(dvs->*family.list, name, &entry);
   if (status != STATUS_OK) {
      return status;
   }
   const uint32_t dataLen = DVSData_Data(entry, val);
   if (len != nullptr) {
      *len = dataLen;
   }
   return STATUS_OK;
}

bool PropIsSet(const PropFamily &family, DVSwitch *dvs, const char *name) {
   if (dvs == nullptr || name == nullptr) {
      return false;
   }
   // This one message has a colon after the switch id.
   STATE_TRACE(2, "DVSState_%sPropIsSet %s: %s\n", family.word, dvs->id, name);
   DVSDataEntry *entry = nullptr;
   return DVSData_Lookup(dvs->*family.list, name, &entry) == STATUS_OK;
}

ReturnStatus PropForEach(const PropFamily &family, DVSwitch *dvs, DVSPropForEachFn fn, void *ctx) {
   if (dvs == nullptr) {
      return STATUS_BAD_PARAM;
   }
   return PropListWalk(dvs->*family.list, fn, ctx);
}

}  // namespace

ReturnStatus PropListWalk(DVSDataHandle list, DVSPropForEachFn fn, void *ctx) {
   if (list == nullptr || fn == nullptr) {
      return STATUS_BAD_PARAM;
   }
   // The successor is fetched before the callback runs, so that the
   // callback may remove the entry it is given.
   DVSDataEntry *entry = nullptr;
   ReturnStatus status = DVSData_Next(list, nullptr, &entry);
   while (status == STATUS_OK) {
      DVSDataEntry *next = nullptr;
      const ReturnStatus nextStatus = DVSData_Next(list, entry, &next);
      if (fn(entry, ctx)) {
         // A stopped walk reports the callback's true, which callers can
         // tell from the end of the list only through their context.
         return static_cast<ReturnStatus>(true);
      }
      entry = next;
      status = nextStatus;
   }
   return status;
}

}  // namespace dvs::state

using namespace dvs::state;

extern "C" {

DVS_EXPORT ReturnStatus DVSState_GlobalPropSet(const char *swId, const char *name, const void *val,
                                               uint32_t len, uint32_t flag) {
   return PropSet(kGlobal, swId, name, val, len, flag);
}

DVS_EXPORT ReturnStatus DVSState_GlobalPropClear(const char *swId, const char *name) {
   return PropClear(kGlobal, swId, name);
}

DVS_EXPORT ReturnStatus DVSState_GlobalPropLookup(const char *swId, const char *name,
                                                  DVSDataEntry **entry) {
   return PropLookup(kGlobal, swId, name, entry);
}

DVS_EXPORT ReturnStatus DVSState_GlobalPropRead(DVSwitch *dvs, const char *name, void **val,
                                                uint32_t *len) {
   return PropRead(kGlobal, dvs, name, val, len);
}

DVS_EXPORT bool DVSState_GlobalPropIsSet(DVSwitch *dvs, const char *name) {
   return PropIsSet(kGlobal, dvs, name);
}

DVS_EXPORT ReturnStatus DVSState_GlobalPropForEach(DVSwitch *dvs, DVSPropForEachFn fn, void *ctx) {
   return PropForEach(kGlobal, dvs, fn, ctx);
}

DVS_EXPORT ReturnStatus DVSState_HostPropSet(const char *swId, const char *name, const void *val,
                                             uint32_t len, uint32_t flag) {
   return PropSet(kHost, swId, name, val, len, flag);
}

DVS_EXPORT ReturnStatus DVSState_HostPropClear(const char *swId, const char *name) {
   return PropClear(kHost, swId, name);
}

DVS_EXPORT ReturnStatus DVSState_HostPropLookup(const char *swId, const char *name,
                                                DVSDataEntry **entry) {
   return PropLookup(kHost, swId, name, entry);
}

DVS_EXPORT ReturnStatus DVSState_HostPropRead(DVSwitch *dvs, const char *name, void **val,
                                              uint32_t *len) {
   return PropRead(kHost, dvs, name, val, len);
}

DVS_EXPORT bool DVSState_HostPropIsSet(DVSwitch *dvs, const char *name) {
   return PropIsSet(kHost, dvs, name);
}

DVS_EXPORT ReturnStatus DVSState_HostPropForEach(DVSwitch *dvs, DVSPropForEachFn fn, void *ctx) {
   return PropForEach(kHost, dvs, fn, ctx);
}

}  // extern "C"
