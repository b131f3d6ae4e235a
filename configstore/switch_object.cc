// The store object of one switch, as a save starts writing it: an existing
// object loses every key and sub-object that a save writes (so nothing of a
// previous save survives that this one does not write again), a missing one
// is created empty.
#include <configstore.h>

#include "configstore/configstore_internal.h"

namespace dvs::configstore {

namespace cs = ::configstore;

namespace {

// The results are not checked: a key that is not there is already clear.
void ClearStaleContent(cs::Object *obj) {
   for (const char *const *key = UNUSED_PRIMITIVE_PROPS; *key != nullptr; key++) {
      cs::RemoveValue(obj, *key);
   }
   for (const char *const *key = UNUSED_SINGLETON_PROPS; *key != nullptr; key++) {
      cs::DeleteSubObject(obj, *key, "");
   }
   for (const char *const *key = UNUSED_NON_SINGLETON_PROPS; *key != nullptr; key++) {
      cs::FilterSpec *filter = nullptr;
      if (cs::CreateFilterSpecObject(*key, "", "", "", &filter) == cs::kSuccess) {
         cs::DeleteSubObjectInstances(obj, filter);
      }
      cs::DestroyFilterSpecObject(filter);
   }
}

}  // namespace

int32_t GetOrCreateSwitchObject(cs::Store *store, const char *swId, cs::Object **out) {
   *out = nullptr;
   if (cs::Get(store, kSwitchGroup, kSwitchObject, kSwitchComponent, swId, out) == cs::kSuccess) {
      ClearStaleContent(*out);
      return cs::kSuccess;
   }
   *out = nullptr;
   return cs::CreateObject(kSwitchGroup, kSwitchObject, kSwitchComponent, swId, "{}", out);
}

bool OpenSwitchObject(ConfigSaveCtx *ctx, DVSwitch *dvs, cs::Object **obj) {
   if (GetOrCreateSwitchObject(ctx->store, DVS_SwitchId(dvs), obj) == cs::kSuccess) {
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

void WriteSwitchIdentity(cs::Object *obj, DVSwitch *dvs, int32_t messageLevel) {
   // The display name: the alias, or the id of a switch that has none.
   const char *name = DVSState_GlobalPropIsSet(dvs, DVS_PROP_SWITCH_ALIAS) ? DVS_SwitchName(dvs)
                                                                           : DVS_SwitchId(dvs);
   cs::SetValueInt(obj, "max_ports", static_cast<int32_t>(DVS_GetMaxPorts(dvs)));
   ::dvs::DebugLog(dvsconfigstore_debug, messageLevel, "SaveDVS: %s\n", name);
   cs::SetValueStr(obj, "name", name);
   cs::SetValueStr(obj, "uuid", DVS_SwitchId(dvs));
}

}  // namespace dvs::configstore
