// Small pieces every converter uses: the position of a store text in an
// enumeration table, the removal of a list of instances, and rebuilding a
// property in the list being loaded.
#include <cstring>

#include "configstore/converters.h"

namespace dvs::configstore {

namespace cs = ::dvs::configstore::store_calls;

int32_t DeleteInstances(cs::Object *obj, const char *key) {
   cs::FilterSpec *filter = nullptr;
   int32_t rc = cs::CreateFilterSpecObject(key, "", "", "", &filter);
   if (rc != cs::kSuccess) {
      return rc;
   }
   rc = cs::DeleteSubObjectInstances(obj, filter);
   cs::DestroyFilterSpecObject(filter);
   return AbsentIsSuccess(rc);
}

int32_t UpdateProp(DVSDataHandle props, const char *propName, const void *data, uint32_t len,
                   uint64_t propFlag) {
   return static_cast<int32_t>(
      DVSData_Update(props, propName, data, len, static_cast<uint32_t>(propFlag)));
}

int32_t LookupSchemaIndex(const char *text, const char *const *table) {
   if (text == nullptr || table == nullptr) {
      return -1;
   }
   int32_t i = 0;
   // A table may begin with numbers that have no text.
   while (table[i] == nullptr && i < kSchemaLeadingNullsMax) {
      i++;
   }
   for (; table[i] != nullptr; i++) {
      if (std::strcmp(table[i], text) == 0) {
         return i;
      }
   }
   return -1;
}

}  // namespace dvs::configstore
