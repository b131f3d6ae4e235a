// The one-time upgrade from the state file: each switch of the file gets
// its identity and port-set name written into the store, so that the store
// knows every switch the host had before it kept them there.
#include <configstore.h>
#include <dvsfile.h>
#include <syslog.h>

#include <cstdlib>

#include "configstore/configstore_internal.h"
#include "configstore/converters.h"

namespace dvs::configstore {

namespace cs = ::dvs::configstore::store_calls;

namespace {

// The state file the upgrade reads; DVS_STATE_FILE names another one.
const char *StateFilePath() {
   const char *path = std::getenv("DVS_STATE_FILE");
   return path != nullptr && path[0] != '\0' ? path : DVSFILE_DEFAULT_PATH;
}

// The buffer of DVSFile_ReadClassical starts alignOffset bytes into its
// allocation.
void FreeFileBuffer(void *buf, uint32_t alignOffset) {
   if (buf != nullptr) {
      std::free(static_cast<char *>(buf) - alignOffset);
   }
}

}  // namespace

bool SaveSwitchIdentityToConfigStore(DVSwitch *dvs, void *arg) {
   auto *ctx = static_cast<ConfigSaveCtx *>(arg);
   cs::Object *obj = nullptr;
   if (!OpenSwitchObject(ctx, dvs, &obj)) {
      return true;
   }
   const int32_t rc = WriteSwitchIdentity(obj, dvs, 0);
   if (rc != cs::kSuccess) {
      return FinishSwitchSave(ctx, dvs, obj, rc);
   }

   // A switch without a port-set name is left out, without error.
   DVSDataEntry *portset = nullptr;
   if (DVSState_HostPropLookup(DVS_SwitchId(dvs), "com.ostrel.common.host.portset", &portset) !=
          STATUS_OK ||
       portset == nullptr) {
      return FinishSwitchSave(ctx, dvs, obj, cs::kSuccess);
   }
   SetValueText(obj, "portset_name", portset->data, portset->dataLen);
   return FinishSwitchSave(ctx, dvs, obj, cs::Set(ctx->store, obj, cs::kSourceExternal));
}

}  // namespace dvs::configstore

using namespace dvs::configstore;
namespace cs = ::dvs::configstore::store_calls;

extern "C" {

DVS_EXPORT int32_t DVSState_RetrieveDVSUpgradeInfo(void) {
   KRecLock *lock = DVSwitchHandleLock();
   void *file = nullptr;
   uint32_t fileLen = 0;
   uint32_t alignOffset = 0;
   const ReturnStatus status =
      DVSFile_ReadClassical(StateFilePath(), &file, &fileLen, &alignOffset);
   if (status != STATUS_OK) {
      // No state file, or an empty one: nothing to carry over.
      if (status == STATUS_EMPTY) {
         syslog(LOG_DEBUG, "File is empty, skip load");
      } else {
         syslog(LOG_INFO, "Failed to read DVS config from sticky-bit file.");
      }
      DVSState_ConfigReset();
      DVSwitchHandleUnlock(lock);
      FreeFileBuffer(file, alignOffset);
      return cs::kSuccess;
   }
   DVSState_ConfigReset();
   DVSState_ConfigDeserialize(file, fileLen);

   cs::Store *store = nullptr;
   int32_t rc = cs::GetStore(0, &store);
   if (rc != cs::kSuccess || store == nullptr) {
      // As in the save, the lock stays held on this return and the next.
      CONFIGSTORE_FAIL("Get store failed\n");
      FreeFileBuffer(file, alignOffset);
      return kConfigStoreOwnFailure;
   }
   rc = cs::BeginTransaction(store);
   if (rc != cs::kSuccess) {
      cs::DestroyStore(store);
      FreeFileBuffer(file, alignOffset);
      return rc;
   }

   int32_t result;
   auto *ctx = static_cast<ConfigSaveCtx *>(std::calloc(1, sizeof(ConfigSaveCtx)));
   if (ctx == nullptr) {
      CONFIGSTORE_FAIL("Failed to alloc memory for DVS\n");
      result = kConfigStoreOwnFailure;
   } else {
      ctx->store = store;
      DVSState_SwitchForEach(SaveSwitchIdentityToConfigStore, ctx);
      if (ctx->status == cs::kSuccess) {
         result = cs::CommitTransaction(store);
      } else {
         CONFIGSTORE_FAIL("Failed to save dvs to configstore\n");
         result = ctx->status;
      }
   }
   if (result != cs::kSuccess) {
      cs::CancelTransaction(store);
   }

   DVSState_ConfigReset();
   DVSwitchHandleUnlock(lock);
   cs::DestroyStore(store);
   std::free(ctx);
   FreeFileBuffer(file, alignOffset);
   return result;
}

}  // extern "C"
