// The switch objects a save run collects before it writes (see
// existing_objects.h).
#include "configstore/existing_objects.h"

#include <configstore.h>
#include <syslog.h>

#include <cstdlib>
#include <cstring>

#include "configstore/configstore_internal.h"

namespace dvs::configstore {

namespace cs = ::dvs::configstore::store_calls;

ExistingObjects::~ExistingObjects() {
   for (uint32_t i = 0; i < count_; i++) {
      cs::DestroyConfigStoreObject(entries_[i].object);
      std::free(entries_[i].id);
      std::free(entries_[i].uuid);
   }
   std::free(entries_);
}

int32_t ExistingObjects::Remember(cs::Object *const *objects, uint32_t count) {
   if (count == 0) {
      return cs::kSuccess;
   }
   entries_ = static_cast<Entry *>(std::calloc(count, sizeof(Entry)));
   if (entries_ == nullptr) {
      for (uint32_t i = 0; i < count; i++) {
         cs::DestroyConfigStoreObject(objects[i]);
      }
      return cs::kNoMemory;
   }
   count_ = count;
   for (uint32_t i = 0; i < count; i++) {
      Entry &e = entries_[i];
      e.object = objects[i];
      e.uuidRc = cs::GetValueStr(e.object, "uuid", &e.uuid);
      if (e.uuidRc != cs::kSuccess) {
         e.uuid = nullptr;
      }
      // An id that cannot be read only costs this object a second read.
      if (cs::GetInstanceId(e.object, &e.id) != cs::kSuccess) {
         e.id = nullptr;
      }
   }
   return cs::kSuccess;
}

int32_t ExistingObjects::CollectOne(cs::Store *store, const char *swId) {
   cs::Object *obj = nullptr;
   const int32_t rc = cs::Get(store, kSwitchGroup, kSwitchObject, kSwitchComponent, swId, &obj);
   if (rc == cs::kSuccess) {
      return Remember(&obj, 1);
   }
   return rc == cs::kNotFound ? cs::kSuccess : rc;
}

int32_t ExistingObjects::CollectAll(cs::Store *store) {
   cs::FilterSpec *filter = nullptr;
   int32_t rc =
      cs::CreateFilterSpecObject(kSwitchGroup, kSwitchObject, kSwitchComponent, "", &filter);
   if (rc != cs::kSuccess) {
      return rc;
   }
   const int64_t start = MonotonicMs();
   cs::Object **objects = nullptr;
   uint32_t count = 0;
   // The keys whose every instance the save deletes before it writes
   // (ClearStaleContent) are not built at all.
   rc = cs::GetInstancesWithout(store, filter, UNUSED_NON_SINGLETON_PROPS, &objects, &count);
   cs::DestroyFilterSpecObject(filter);
   syslog(LOG_DEBUG, "DVSState_SaveBufToConfigStore_ByInstance GetInstances time: %lldms",
          static_cast<long long>(MonotonicMs() - start));
   if (rc != cs::kSuccess) {
      return rc;
   }
   rc = Remember(objects, count);
   std::free(objects);
   if (rc != cs::kSuccess) {
      return rc;
   }
   complete_ = true;
   for (uint32_t i = 0; i < count_; i++) {
      complete_ = complete_ && entries_[i].id != nullptr;
   }
   return cs::kSuccess;
}

ExistingObjects::Found ExistingObjects::Take(const char *swId, cs::Object **out) {
   *out = nullptr;
   const char *id = swId != nullptr ? swId : "";  // as Get takes a null id
   for (uint32_t n = 0; n < count_; n++) {
      const uint32_t i = (next_ + n) % count_;
      Entry &e = entries_[i];
      if (e.id == nullptr || std::strcmp(e.id, id) != 0) {
         continue;
      }
      if (e.object == nullptr) {
         // Already handed over; the store is read again, as it was before.
         return Found::kUnknown;
      }
      *out = e.object;
      e.object = nullptr;
      next_ = (i + 1) % count_;
      return Found::kTaken;
   }
   return complete_ ? Found::kAbsent : Found::kUnknown;
}

int32_t ExistingObjects::DeleteStale(cs::Store *store) const {
   for (uint32_t i = 0; i < count_; i++) {
      const Entry &e = entries_[i];
      int32_t rc = e.uuidRc;
      if (rc == cs::kNotFound) {
         continue;
      }
      if (rc == cs::kSuccess && DVSState_SwitchFind(e.uuid) == nullptr) {
         rc = cs::Delete(store, kSwitchGroup, kSwitchObject, kSwitchComponent, e.uuid);
      }
      if (rc != cs::kSuccess && rc != cs::kNotFound) {
         return rc;
      }
   }
   return cs::kSuccess;
}

}  // namespace dvs::configstore
