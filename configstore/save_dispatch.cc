// The save dispatcher: one property onto a switch, host or port object,
// through the first map row of its class that names it (or the class's
// catch-all row) and that row's converter.
#include <configstore.h>

#include "configstore/configstore_internal.h"
#include "configstore/converters.h"

namespace dvs::configstore {

namespace cs = ::dvs::configstore::store_calls;

int32_t SaveConfigProp(::configstore::Object *obj, const char *name, const void *value,
                       uint32_t valueLen, uint32_t propClass, const ConvertContext &switchCtx) {
   if (propClass > PROP_CLASS_PORT) {
      return kConfigStoreOwnFailure;
   }
   const PropConfigMapEntry *row = FindConfigMapEntry(propClass, name);
   if (row == nullptr) {
      CONFIGSTORE_FAIL("Unknow prop: %s\n", name);
      CONFIGSTORE_FAIL("Set prop: %s failed\n", name);
      return kConfigStoreOwnFailure;
   }

   ::configstore::Object *target = obj;
   if (row->depth >= 2) {
      const int32_t rc = WalkConfigPath(row->path, row->depth, obj, true, &target);
      if (rc != ::configstore::kSuccess) {
         CONFIGSTORE_FAIL("Failed to get/create sub object for dvs prop:%s stop and return\n",
                          name);
         CONFIGSTORE_FAIL("Set prop: %s failed\n", name);
         return rc;
      }
   }
   const char *key = row->path[row->depth > 0 ? row->depth - 1 : 0];

   const int64_t start = MonotonicMs();
   int32_t rc;
   const PropConverter *converter = GetPropConverter(row->convType);
   if (converter == nullptr) {
      CONFIGSTORE_FAIL("Unknow prop type: %d\n", static_cast<int>(row->convType));
      rc = kConfigStoreOwnFailure;
   } else {
      ConvertContext ctx = switchCtx;
      ctx.propClass = propClass;
      ctx.propName = name;
      ctx.source = obj;
      // Global and host rows start on the switch object itself.
      if (propClass != PROP_CLASS_PORT) {
         ctx.switchObj = obj;
      }
      rc = converter->save(target, key, value, valueLen, ctx);
   }
   gConfigStoreTimeMs += MonotonicMs() - start;
   if (rc != ::configstore::kSuccess) {
      CONFIGSTORE_FAIL("Set prop: %s failed\n", name);
   }
   return rc;
}

}  // namespace dvs::configstore
