// Saving switch state to the configuration store: one store object per
// switch, written in one transaction, with the objects of switches that no
// longer exist deleted.
#include <configstore.h>
#include <dvshyp.h>
#include <hostlibs.h>
#include <syslog.h>

#include <cstdlib>

#include "configstore/configstore_internal.h"
#include "configstore/existing_objects.h"
#include "data/arena_list_memory.h"
#include "state/list_memory.h"

namespace dvs::configstore {

namespace cs = ::dvs::configstore::store_calls;

namespace {

// Asks for the head of an entry (its name and lengths, and the start of
// its value) to be brought into the cache.
void PrefetchEntry(const DVSDataEntry *e) {
   if (e != nullptr) {
      const char *bytes = reinterpret_cast<const char *>(e);
      __builtin_prefetch(bytes);
      __builtin_prefetch(bytes + 64);
      __builtin_prefetch(bytes + 128);
   }
}

// Writes every property of list with class propClass; stops at the first
// failure and returns its code.  progress (may be null) is printed per
// property.
int32_t SavePropList(cs::Object *obj, DVSDataHandle list, uint32_t propClass, const char *progress,
                     const ConvertContext &switchCtx) {
   DVSDataEntry *e = nullptr;
   while (DVSData_Next(list, e, &e) == STATUS_OK && e != nullptr) {
      // The registry was rebuilt long before the save reaches it, and out
      // of the cache: the next entry is fetched while this one converts.
      PrefetchEntry(e->next);
      if (progress != nullptr) {
         CONFIGSTORE_PROGRESS(progress, e->name);
      }
      const int32_t rc = SaveConfigProp(obj, e->name, e->data, e->dataLen, propClass, switchCtx);
      if (rc != cs::kSuccess) {
         return rc;
      }
   }
   return cs::kSuccess;
}

// Every port in use, in slot order, as a "ports" instance of obj.
int32_t SavePorts(cs::Object *obj, DVSwitch *dvs, const ConvertContext &switchCtx) {
   if (dvs->portBitmap == nullptr) {
      return cs::kSuccess;
   }
   for (uint32_t bit = BitVector_NextBit(dvs->portBitmap, 0); bit != BITVECTOR_NOT_FOUND;
        bit = BitVector_NextBit(dvs->portBitmap, bit + 1)) {
      DVSPort *port = dvs->ports[bit];
      if (port == nullptr) {
         break;
      }
      cs::Object *portObj = nullptr;
      int32_t rc = GetOrCreateSubObject(true, obj, "ports", port->id, &portObj);
      if (rc == cs::kSuccess) {
         rc = SavePropList(portObj, port->data, PROP_CLASS_PORT, nullptr, switchCtx);
      }
      if (rc != cs::kSuccess) {
         return rc;
      }
   }
   return cs::kSuccess;
}

// The early returns that leave the rebuilt registry to the caller: its
// lists must not stay in the arena that goes with the call, so the
// registry is rebuilt once more on the heap.
void RebuildRegistryOnHeap(const void *buf, uint32_t len) {
   DVSState_ConfigReset();
   DVSState_ConfigDeserialize(buf, len);
}

}  // namespace

bool SaveSwitchToConfigStore(DVSwitch *dvs, void *arg) {
   auto *ctx = static_cast<ConfigSaveCtx *>(arg);
   ConvertContext switchCtx;
   switchCtx.version = DVS_Version(dvs);
   switchCtx.classKind = SwitchClassKind(DVS_ClassName(dvs));
   gIsZltSwitch = switchCtx.version > 99;
   gSwitchClassKind = switchCtx.classKind;

   int64_t start = MonotonicMs();
   cs::Object *obj = nullptr;
   if (!OpenSwitchObject(ctx, dvs, &obj)) {
      return true;
   }

   switchCtx.switchObj = obj;
   cs::Object *product = nullptr;
   int32_t rc = GetOrCreateSubObject(true, obj, "product", "", &product);
   if (rc == cs::kSuccess) {
      rc = cs::SetValueStr(product, "forwarding_class", DVS_ClassName(dvs));
   }
   if (rc == cs::kSuccess) {
      rc = WriteSwitchIdentity(obj, dvs, 1);
      gConfigStoreTimeMs += MonotonicMs() - start;
   }
   if (rc == cs::kSuccess) {
      rc = SavePropList(obj, dvs->globalPropList, PROP_CLASS_GLOBAL, "SaveGlobalProp: %s\n",
                        switchCtx);
      if (rc == cs::kSuccess) {
         rc =
            SavePropList(obj, dvs->hostPropList, PROP_CLASS_HOST, "SaveHostProp: %s\n", switchCtx);
      }
      if (rc == cs::kSuccess) {
         rc = SavePorts(obj, dvs, switchCtx);
      }
      if (rc == cs::kSuccess) {
         start = MonotonicMs();
         rc = cs::Set(ctx->store, obj, cs::kSourceExternal);
         gConfigStoreTimeMs += MonotonicMs() - start;
      }
   }
   // On any failure nothing of this switch was written: Set is the only
   // call that reaches the database, and the caller cancels the run.
   return FinishSwitchSave(ctx, dvs, obj, rc);
}

}  // namespace dvs::configstore

using namespace dvs::configstore;
namespace cs = ::dvs::configstore::store_calls;

extern "C" {

DVS_EXPORT int32_t DVSState_SaveBufToConfigStore_ByInstance(const void *buf, uint32_t len,
                                                            const char *swId) {
   if (buf == nullptr) {
      CONFIGSTORE_FAIL("No dvs buffer to save to configstore\n");
      return kConfigStoreOwnFailure;
   }
   KRecLock *lock = DVSwitchHandleLock();
   DVSState_ConfigReset();
   // The registry is rebuilt only to be walked once and cleared at the end
   // of this call, so its property lists take their entries from an arena
   // released in one go rather than one heap block per property.  The
   // arena outlives every return below, each of which clears the registry
   // or rebuilds it on the heap first.  That second rebuild would print
   // the first one's trace lines again, so the arena is used only while
   // the state and data traces are silent (as they are by default).
   ::dvs::data::ArenaListMemory arena;
   const bool inArena = dvs_debug < 0 && dvsdata_debug < 0;
   const ::dvs::state::ListMemory lists =
      inArena ? ::dvs::state::ListMemory{::dvs::data::ArenaListMemory::Alloc,
                                         ::dvs::data::ArenaListMemory::Free}
              : ::dvs::state::kHeapListMemory;
   // A buffer that does not describe a host's switches must not be taken
   // for a host without switches: that would delete every switch object.
   const ReturnStatus rebuilt = ::dvs::state::ConfigDeserializeWith(buf, len, lists);
   if (rebuilt != STATUS_OK) {
      CONFIGSTORE_FAIL("Failed to load dvs buffer to save to configstore, error: %s\n",
                       HYP_ReturnStatusToString(rebuilt));
      DVSState_ConfigReset();
      DVSwitchHandleUnlock(lock);
      return kConfigStoreOwnFailure;
   }

   // A load after this save gives about the same blob.
   NoteSavedHostBlobSize(len);

   syslog(LOG_DEBUG, "Start DVSState_SaveBufToConfigStore_ByInstance, swId:[%s]",
          swId != nullptr ? swId : "");
   gConfigStoreTimeMs = 0;
   int64_t start = MonotonicMs();

   cs::Store *store = nullptr;
   int32_t rc = cs::GetStore(0, &store);
   if (rc != cs::kSuccess || store == nullptr) {
      // Deliberately returns with the switch handle lock held and the
      // rebuilt registry in place, as callers of this interface expect.
      if (inArena) {
         RebuildRegistryOnHeap(buf, len);
      }
      CONFIGSTORE_FAIL("Get store failed\n");
      return kConfigStoreOwnFailure;
   }
   rc = cs::BeginTransaction(store);
   if (rc != cs::kSuccess) {
      // The lock stays held here too; the connection, which nobody else
      // can reach, is closed.
      if (inArena) {
         RebuildRegistryOnHeap(buf, len);
      }
      cs::DestroyStore(store);
      return rc;
   }
   CONFIGSTORE_PROGRESS("Ready to save dvs list\n");

   int32_t result;
   bool failed = false;
   {
      ExistingObjects existing;
      const int32_t collected =
         swId != nullptr ? existing.CollectOne(store, swId) : existing.CollectAll(store);
      gConfigStoreTimeMs += MonotonicMs() - start;

      ConfigSaveCtx *ctx = nullptr;
      if (collected != cs::kSuccess) {
         CONFIGSTORE_FAIL("Failed to save dvs to configstore\n");
         result = collected;
         failed = true;
      } else if ((ctx = static_cast<ConfigSaveCtx *>(std::calloc(1, sizeof(ConfigSaveCtx)))) ==
                 nullptr) {
         CONFIGSTORE_FAIL("Failed to alloc memory for DVSUplinkPorts\n");
         result = kConfigStoreOwnFailure;
         failed = true;
      } else {
         ctx->store = store;
         ctx->existing = &existing;
         if (swId != nullptr) {
            DVSwitch *dvs = DVSState_SwitchFind(swId);
            if (dvs != nullptr) {
               SaveSwitchToConfigStore(dvs, ctx);
            }
         } else {
            DVSState_SwitchForEach(SaveSwitchToConfigStore, ctx);
         }

         if (ctx->status == cs::kSuccess) {
            start = MonotonicMs();
            result = existing.DeleteStale(store);
            if (result == cs::kSuccess) {
               result = cs::CommitTransaction(store);
            }
            failed = result != cs::kSuccess;
            gConfigStoreTimeMs += MonotonicMs() - start;
            if (!failed) {
               syslog(LOG_DEBUG,
                      "End DVSState_SaveBufToConfigStore_ByInstance, configStore time: %lldms",
                      static_cast<long long>(gConfigStoreTimeMs));
               gConfigStoreTimeMs = 0;
            }
         } else {
            CONFIGSTORE_FAIL("Failed to save dvs to configstore\n");
            result = ctx->status;
            failed = true;
         }
         std::free(ctx);
      }
      if (failed) {
         cs::CancelTransaction(store);
         syslog(LOG_DEBUG,
                "End DVSState_SaveBufToConfigStore_ByInstance with error, configStore time: %lldms",
                static_cast<long long>(gConfigStoreTimeMs));
         gConfigStoreTimeMs = 0;
      }
      DVSState_ConfigReset();
      DVSwitchHandleUnlock(lock);
   }
   cs::DestroyStore(store);
   return result;
}

DVS_EXPORT int32_t DVSState_SaveBufToConfigStore(const void *buf, uint32_t len) {
   return DVSState_SaveBufToConfigStore_ByInstance(buf, len, nullptr);
}

DVS_EXPORT int32_t DVSState_SaveToConfigStore_ByInstance(const char *swId) {
   void *blob = nullptr;
   uint32_t len = 0;
   const ReturnStatus status = DVSHYP_PersistentStateGet(&blob, &len);
   if (status != STATUS_OK) {
      CONFIGSTORE_FAIL(
         "Failed to save DVS config to configstore when get DVS buffrom hyp. Error: %s\n",
         HYP_ReturnStatusToString(status));
      return kConfigStoreOwnFailure;
   }
   const int32_t rc = DVSState_SaveBufToConfigStore_ByInstance(blob, len, swId);
   DVSHYP_DataFree(blob);
   return rc;
}

DVS_EXPORT int32_t DVSState_SaveToConfigStore(void) {
   return DVSState_SaveToConfigStore_ByInstance(nullptr);
}

}  // extern "C"
