// The resource-pool settings converter.  The property is a count followed
// by fixed-size pool records; in the store each pool is one instance of
// the key's collection, named by the pool key, with its limits in a
// singleton "allocation" and its shares in a singleton "shares".  An empty
// pool list is kept as an empty list value under the same name (values
// and sub-object keys are separate name spaces), so that it is told apart
// from no setting at all.  The port's resource pools use the same layout
// and are rebuilt by calling the load with the port property's name.
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "configstore/configstore_internal.h"
#include "configstore/converters.h"

namespace dvs::configstore {

namespace cs = ::dvs::configstore::store_calls;

namespace {

constexpr uint32_t kPoolKeyMax = 128;

// One pool record of the property, in host byte order.
struct PoolRecord {
   char key[kPoolKeyMax];  // NUL-terminated, zero after the NUL
   int64_t limit;          // Mbit/s, -1 for no limit
   int64_t reservation;    // Mbit/s
   uint32_t shares;
   uint32_t shareLevel;  // index into kShareLevels
};
static_assert(sizeof(PoolRecord) == 152, "pool record size");
static_assert(offsetof(PoolRecord, limit) == 128, "pool record layout");
static_assert(offsetof(PoolRecord, reservation) == 136, "pool record layout");
static_assert(offsetof(PoolRecord, shares) == 144, "pool record layout");
static_assert(offsetof(PoolRecord, shareLevel) == 148, "pool record layout");

constexpr uint32_t kCountSize = sizeof(uint32_t);
constexpr const char *kShareLevels[] = {"low", "normal", "high", "custom"};
constexpr uint32_t kShareLevelCount = sizeof kShareLevels / sizeof kShareLevels[0];

void Fail(const char *what, const char *detail) {
   if (dvsconfigstore_debug >= 0) {
      printf("Resource pool config: %s%s\n", what, detail);
   }
}

PoolRecord RecordAt(const uint8_t *bytes, uint32_t i) {
   PoolRecord rec;
   memcpy(&rec, bytes + kCountSize + static_cast<size_t>(i) * sizeof rec, sizeof rec);
   return rec;
}

int CompareKeys(const void *a, const void *b) {
   return strcmp(*static_cast<const char *const *>(a), *static_cast<const char *const *>(b));
}

// Checks the whole value before anything is written.  *count is the
// number of records on success.
bool ValidatePools(const void *value, uint32_t valueLen, uint32_t *count) {
   if (value == nullptr || valueLen < kCountSize) {
      Fail("value too short", "");
      return false;
   }
   const auto *bytes = static_cast<const uint8_t *>(value);
   memcpy(count, bytes, sizeof *count);
   const uint32_t body = valueLen - kCountSize;
   if (body % sizeof(PoolRecord) != 0 || body / sizeof(PoolRecord) != *count) {
      Fail("length does not match the pool count", "");
      return false;
   }
   if (*count == 0) {
      return true;
   }
   auto *keys = static_cast<const char **>(malloc(*count * sizeof(const char *)));
   if (keys == nullptr) {
      Fail("failed to alloc memory", "");
      return false;
   }
   bool ok = true;
   for (uint32_t i = 0; i < *count && ok; i++) {
      const char *key = reinterpret_cast<const char *>(bytes + kCountSize + i * sizeof(PoolRecord));
      uint32_t level;
      memcpy(&level, key + offsetof(PoolRecord, shareLevel), sizeof level);
      if (memchr(key, '\0', kPoolKeyMax) == nullptr) {
         Fail("pool key without terminator", "");
         ok = false;
      } else if (key[0] == '\0') {
         Fail("empty pool key", "");
         ok = false;
      } else if (level >= kShareLevelCount) {
         Fail("unknown share level for pool ", key);
         ok = false;
      }
      keys[i] = key;
   }
   if (ok) {
      qsort(keys, *count, sizeof keys[0], CompareKeys);
      for (uint32_t i = 1; i < *count && ok; i++) {
         if (strcmp(keys[i - 1], keys[i]) == 0) {
            Fail("duplicate pool key ", keys[i]);
            ok = false;
         }
      }
   }
   free(keys);
   return ok;
}

int32_t SavePool(cs::Object *obj, const char *key, const PoolRecord &rec) {
   cs::Object *inst = nullptr;
   cs::Object *alloc = nullptr;
   cs::Object *shares = nullptr;
   int32_t rc = cs::CreateSubObject(obj, key, rec.key, &inst);
   if (rc == cs::kSuccess) {
      rc = GetOrCreateSubObject(true, inst, "allocation", "", &alloc);
   }
   if (rc == cs::kSuccess) {
      rc = cs::SetValueLong(alloc, "limit", rec.limit);
   }
   if (rc == cs::kSuccess) {
      rc = cs::SetValueLong(alloc, "reservation", rec.reservation);
   }
   if (rc == cs::kSuccess) {
      rc = GetOrCreateSubObject(true, inst, "shares", "", &shares);
   }
   if (rc == cs::kSuccess) {
      rc = cs::SetValueUint32(shares, "shares", rec.shares);
   }
   if (rc == cs::kSuccess) {
      rc = cs::SetValueStr(shares, "level", kShareLevels[rec.shareLevel]);
   }
   return rc;
}

// A value the pool needs: a missing one is the converter's own failure,
// any other store code is returned as it is.
int32_t Need(int32_t rc, const char *what, const char *pool) {
   if (rc == cs::kNotFound) {
      if (dvsconfigstore_debug >= 0) {
         printf("Resource pool config: missing %s of pool %s\n", what, pool);
      }
      return kConverterFailure;
   }
   return rc;
}

// Fills rec from one pool instance.
int32_t LoadPool(cs::Object *inst, PoolRecord *rec) {
   char *id = nullptr;
   int32_t rc = cs::GetValueStr(inst, "key", &id);
   if (rc != cs::kSuccess) {
      return rc;
   }
   if (strlen(id) >= kPoolKeyMax || id[0] == '\0') {
      Fail("bad pool key ", id);
      free(id);
      return kConverterFailure;
   }
   memset(rec, 0, sizeof *rec);
   memcpy(rec->key, id, strlen(id));
   cs::Object *alloc = nullptr;
   cs::Object *shares = nullptr;
   char *level = nullptr;
   rc = Need(cs::GetSubObject(inst, "allocation", "", &alloc), "allocation", id);
   if (rc == cs::kSuccess) {
      rc = Need(cs::GetValueLong(alloc, "limit", &rec->limit), "limit", id);
   }
   if (rc == cs::kSuccess) {
      rc = Need(cs::GetValueLong(alloc, "reservation", &rec->reservation), "reservation", id);
   }
   if (rc == cs::kSuccess) {
      rc = Need(cs::GetSubObject(inst, "shares", "", &shares), "shares", id);
   }
   if (rc == cs::kSuccess) {
      rc = Need(cs::GetValueUint32(shares, "shares", &rec->shares), "shares value", id);
   }
   if (rc == cs::kSuccess) {
      rc = Need(cs::GetValueStr(shares, "level", &level), "share level", id);
   }
   if (rc == cs::kSuccess) {
      rec->shareLevel = kShareLevelCount;
      for (uint32_t i = 0; i < kShareLevelCount; i++) {
         if (strcmp(level, kShareLevels[i]) == 0) {
            rec->shareLevel = i;
         }
      }
      if (rec->shareLevel == kShareLevelCount) {
         if (dvsconfigstore_debug >= 0) {
            printf("Resource pool config: unknown share level %s of pool %s\n", level, id);
         }
         rc = kConverterFailure;
      }
   }
   free(level);
   free(id);
   return rc;
}

}  // namespace

int32_t SaveResPoolConfig(cs::Object *obj, const char *key, const void *value, uint32_t valueLen,
                          const ConvertContext &) {
   uint32_t count = 0;
   if (!ValidatePools(value, valueLen, &count)) {
      return kConverterFailure;
   }
   // Whatever an earlier save left under the key goes first, so that the
   // pools of two saves never mix.
   int32_t rc = DeleteInstances(obj, key);
   if (rc != cs::kSuccess) {
      return rc;
   }
   if (count == 0) {
      return cs::SetValueEmptyList(obj, key);
   }
   rc = cs::RemoveValue(obj, key);
   if (rc != cs::kSuccess && rc != cs::kNotFound) {
      return rc;
   }
   const auto *bytes = static_cast<const uint8_t *>(value);
   for (uint32_t i = 0; i < count; i++) {
      rc = SavePool(obj, key, RecordAt(bytes, i));
      if (rc != cs::kSuccess) {
         if (dvsconfigstore_debug >= 0) {
            printf("Failed to save resource pool %u, rc: %d\n", i, rc);
         }
         return rc;
      }
   }
   return cs::kSuccess;
}

int32_t LoadResPoolConfig(cs::Object *obj, const char *key, DVSDataHandle props,
                          const char *propName, uint64_t propFlag, const ConvertContext &) {
   cs::FilterSpec *filter = nullptr;
   int32_t rc = cs::CreateFilterSpecObject(key, nullptr, nullptr, nullptr, &filter);
   if (rc != cs::kSuccess) {
      return rc;
   }
   cs::Object **insts = nullptr;
   uint32_t count = 0;
   rc = cs::GetSubObjectInstances(obj, filter, &insts, &count);
   cs::DestroyFilterSpecObject(filter);
   if (rc != cs::kSuccess) {
      free(insts);
      return rc;
   }
   if (count == 0) {
      free(insts);
      // No pools: the empty list value tells an empty setting from none.
      char **names = nullptr;
      uint32_t n = 0;
      rc = cs::GetValueStringArray(obj, key, &names, &n);
      if (rc != cs::kSuccess) {
         return AbsentIsSuccess(rc);
      }
      cs::DestroyStringArrayValue(names, n);
      if (n != 0) {
         Fail("unexpected list value ", key);
         return kConverterFailure;
      }
      uint32_t zero = 0;
      if (DVSData_Update(props, propName, &zero, sizeof zero, static_cast<uint32_t>(propFlag)) !=
          STATUS_OK) {
         Fail("failed to add property ", propName);
         return kConverterFailure;
      }
      return cs::kSuccess;
   }
   if (count > (UINT32_MAX - kCountSize) / sizeof(PoolRecord)) {
      Fail("too many pools", "");
      free(insts);
      return kConverterFailure;
   }
   const uint32_t len = kCountSize + count * static_cast<uint32_t>(sizeof(PoolRecord));
   auto *buf = static_cast<uint8_t *>(malloc(len));
   if (buf == nullptr) {
      Fail("failed to alloc memory", "");
      free(insts);
      return kConverterFailure;
   }
   memcpy(buf, &count, sizeof count);
   for (uint32_t i = 0; i < count && rc == cs::kSuccess; i++) {
      PoolRecord rec;
      rc = LoadPool(insts[i], &rec);
      if (rc == cs::kSuccess) {
         memcpy(buf + kCountSize + static_cast<size_t>(i) * sizeof rec, &rec, sizeof rec);
      }
   }
   free(insts);
   if (rc == cs::kSuccess &&
       DVSData_Update(props, propName, buf, len, static_cast<uint32_t>(propFlag)) != STATUS_OK) {
      Fail("failed to add property ", propName);
      rc = kConverterFailure;
   }
   free(buf);
   return rc;
}

}  // namespace dvs::configstore
