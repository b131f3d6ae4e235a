// The store object of one switch, as a save starts writing it: an existing
// object loses every key and sub-object that a save writes (so nothing of a
// previous save survives that this one does not write again), a missing one
// is created empty.
#include <configstore.h>

#include "configstore/configstore_internal.h"
#include "configstore/existing_objects.h"

namespace dvs::configstore {

namespace cs = ::dvs::configstore::store_calls;

namespace {

// A key that is not there is already clear; any other failure is
// returned, since a stale value left behind would be written back.
int32_t ClearStaleContent(cs::Object *obj) {
   int32_t rc = cs::kSuccess;
   auto keep = [&rc](int32_t r) {
      if (rc == cs::kSuccess && r != cs::kNotFound) {
         rc = r;
      }
   };
   for (const char *const *key = UNUSED_PRIMITIVE_PROPS; *key != nullptr; key++) {
      keep(cs::RemoveValue(obj, *key));
   }
   for (const char *const *key = UNUSED_SINGLETON_PROPS; *key != nullptr; key++) {
      keep(cs::DeleteSubObject(obj, *key, ""));
   }
   for (const char *const *key = UNUSED_NON_SINGLETON_PROPS; *key != nullptr; key++) {
      cs::FilterSpec *filter = nullptr;
      keep(cs::CreateFilterSpecObject(*key, "", "", "", &filter));
      if (filter != nullptr) {
         keep(cs::DeleteSubObjectInstances(obj, filter));
      }
      cs::DestroyFilterSpecObject(filter);
   }
   return rc;
}

// The stored object of swId: the one the run collected, else a read of the
// store.  0, kNotFound, or the code of the failed read.
int32_t ReadSwitchObject(cs::Store *store, ExistingObjects *existing, const char *swId,
                         cs::Object **out) {
   if (existing != nullptr) {
      switch (existing->Take(swId, out)) {
         case ExistingObjects::Found::kTaken:
            return cs::kSuccess;
         case ExistingObjects::Found::kAbsent:
            return cs::kNotFound;
         case ExistingObjects::Found::kUnknown:
            break;
      }
   }
   return cs::Get(store, kSwitchGroup, kSwitchObject, kSwitchComponent, swId, out);
}

}  // namespace

// Only a switch that the store does not have gets a new object: after any
// other failure of the read, a new object would drop what the store keeps.
int32_t GetOrCreateSwitchObject(cs::Store *store, ExistingObjects *existing, const char *swId,
                                cs::Object **out) {
   *out = nullptr;
   int32_t rc = ReadSwitchObject(store, existing, swId, out);
   if (rc == cs::kSuccess) {
      rc = ClearStaleContent(*out);
      if (rc != cs::kSuccess) {
         cs::DestroyConfigStoreObject(*out);
         *out = nullptr;
      }
      return rc;
   }
   *out = nullptr;
   if (rc != cs::kNotFound) {
      return rc;
   }
   return cs::CreateObject(kSwitchGroup, kSwitchObject, kSwitchComponent, swId, "{}", out);
}

bool OpenSwitchObject(ConfigSaveCtx *ctx, DVSwitch *dvs, cs::Object **obj) {
   if (GetOrCreateSwitchObject(ctx->store, ctx->existing, DVS_SwitchId(dvs), obj) == cs::kSuccess) {
      return true;
   }
   CONFIGSTORE_FAIL("Get/Create dvs_switch:%s failed\n", DVS_SwitchId(dvs));
   ctx->status = kConfigStoreOwnFailure;
   return false;
}

bool FinishSwitchSave(ConfigSaveCtx *ctx, DVSwitch *dvs, cs::Object *obj, int32_t rc) {
   cs::DestroyConfigStoreObject(obj);
   ctx->status = rc;
   if (rc != cs::kSuccess) {
      CONFIGSTORE_FAIL("Failed to save dvs: %s to configstore\n", DVS_SwitchId(dvs));
      return true;
   }
   return false;
}

int32_t WriteSwitchIdentity(cs::Object *obj, DVSwitch *dvs, int32_t messageLevel) {
   // The display name: the alias, or the id of a switch that has none.
   const char *name = DVSState_GlobalPropIsSet(dvs, DVS_PROP_SWITCH_ALIAS) ? DVS_SwitchName(dvs)
                                                                           : DVS_SwitchId(dvs);
   int32_t rc = cs::SetValueInt(obj, "max_ports", static_cast<int32_t>(DVS_GetMaxPorts(dvs)));
   ::dvs::DebugLog(dvsconfigstore_debug, messageLevel, "SaveDVS: %s\n", name);
   if (rc == cs::kSuccess) {
      rc = cs::SetValueStr(obj, "name", name);
   }
   if (rc == cs::kSuccess) {
      rc = cs::SetValueStr(obj, "uuid", DVS_SwitchId(dvs));
   }
   return rc;
}

}  // namespace dvs::configstore
