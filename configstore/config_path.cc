// The walk from a switch, host or port object down a map row's path to the
// object that holds the value, fetching or creating each sub-object.
#include <cstdio>

#include <dvsconfigstore.h>

#include <configstore.h>

#include "configstore/configstore_internal.h"

namespace dvs::configstore {

int32_t GetOrCreateSubObject(bool create, ::configstore::Object *parent, const char *key,
                             const char *instanceId, ::configstore::Object **out) {
   *out = nullptr;
   int32_t rc = ::configstore::GetSubObject(parent, key, instanceId, out);
   if (rc == ::configstore::kSuccess) {
      return rc;
   }
   if (rc != ::configstore::kNotFound) {
      if (dvsconfigstore_debug >= 0) {
         printf("GetOrCreateSubObject for prop: %s failed, failure code: %d\n", key, rc);
      }
      return rc;
   }
   if (!create) {
      return rc;
   }
   rc = ::configstore::CreateSubObject(parent, key, instanceId, out);
   if (rc != ::configstore::kSuccess && dvsconfigstore_debug >= 0) {
      printf("Create sub object for key: %s failed\n", key);
   }
   return rc;
}

int32_t WalkConfigPath(const char (*path)[PROP_CONFIG_NAME_MAX], uint32_t depth,
                       ::configstore::Object *start, bool create, ::configstore::Object **out) {
   ::configstore::Object *cur = start;
   for (uint32_t i = 0; i + 1 < depth; i++) {
      ::configstore::Object *next = nullptr;
      int32_t rc = GetOrCreateSubObject(create, cur, path[i], nullptr, &next);
      if (rc != ::configstore::kSuccess) {
         return rc;
      }
      cur = next;
   }
   *out = cur;
   return ::configstore::kSuccess;
}

}  // namespace dvs::configstore
