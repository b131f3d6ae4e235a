// The network filter policy converter.  The property is a packed,
// variable-length list of filters, each with its agent name, slot, failure
// policy and text parameters.  In the store the key names a singleton
// sub-object holding one "network_filters" instance per filter, named by
// its index; the instances keep creation order, which is the filter order.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "configstore/configstore_internal.h"
#include "configstore/converters.h"

namespace dvs::configstore {

namespace cs = ::dvs::configstore::store_calls;

namespace {

constexpr uint32_t kAgentNameMax = 128;
constexpr const char *kFilters = "network_filters";
constexpr const char *kOnFailure[] = {"FAIL_OPEN", "FAIL_CLOSED"};
constexpr uint32_t kOnFailureCount = sizeof kOnFailure / sizeof kOnFailure[0];

void Fail(const char *what, uint32_t filter) {
   if (dvsconfigstore_debug >= 0) {
      printf("Filter policy: %s (filter %u)\n", what, filter);
   }
}

// Reads the packed value front to back, never past its end.
struct Reader {
   const uint8_t *at;
   size_t left;

   bool U32(uint32_t *v) {
      if (left < sizeof *v) {
         return false;
      }
      memcpy(v, at, sizeof *v);
      at += sizeof *v;
      left -= sizeof *v;
      return true;
   }
   const char *Take(size_t n) {
      if (left < n) {
         return nullptr;
      }
      const char *p = reinterpret_cast<const char *>(at);
      at += n;
      left -= n;
      return p;
   }
};

// Writes filter i to a new instance of policy.
int32_t SaveFilter(cs::Object *policy, uint32_t i, const char *agent, uint32_t slot,
                   uint32_t onFailure, cs::Object **inst) {
   char id[16];
   snprintf(id, sizeof id, "%u", i);
   int32_t rc = cs::CreateSubObject(policy, kFilters, id, inst);
   if (rc == cs::kSuccess) {
      rc = cs::SetValueStr(*inst, "agent_name", agent);
   }
   if (rc == cs::kSuccess) {
      rc = cs::SetValueLong(*inst, "slot_number", slot);
   }
   if (rc == cs::kSuccess) {
      rc = cs::SetValueStr(*inst, "on_failure", kOnFailure[onFailure]);
   }
   if (rc == cs::kSuccess) {
      rc = cs::SetValueEmptyList(*inst, "parameters");
   }
   return rc;
}

// Walks the whole value.  With policy null it only checks it; otherwise
// it also writes every filter under policy.  Returns 0, -1 for a malformed
// value, or the store's code.
int32_t WalkPolicy(const void *value, uint32_t valueLen, cs::Object *policy) {
   if (value == nullptr) {
      Fail("no value", 0);
      return kConverterFailure;
   }
   Reader r{static_cast<const uint8_t *>(value), valueLen};
   uint32_t count;
   if (!r.U32(&count)) {
      Fail("value too short for the filter count", 0);
      return kConverterFailure;
   }
   for (uint32_t i = 0; i < count; i++) {
      const char *agent = r.Take(kAgentNameMax);
      uint32_t slot, onFailure, paramCount;
      if (agent == nullptr || !r.U32(&slot) || !r.U32(&onFailure) || !r.U32(&paramCount)) {
         Fail("truncated filter record", i);
         return kConverterFailure;
      }
      if (memchr(agent, '\0', kAgentNameMax) == nullptr) {
         Fail("agent name without terminator", i);
         return kConverterFailure;
      }
      if (onFailure >= kOnFailureCount) {
         Fail("unknown failure policy", i);
         return kConverterFailure;
      }
      cs::Object *inst = nullptr;
      if (policy != nullptr) {
         int32_t rc = SaveFilter(policy, i, agent, slot, onFailure, &inst);
         if (rc != cs::kSuccess) {
            return rc;
         }
      }
      for (uint32_t j = 0; j < paramCount; j++) {
         uint32_t len;
         if (!r.U32(&len)) {
            Fail("truncated parameter length", i);
            return kConverterFailure;
         }
         const char *text = len != 0 ? r.Take(len) : nullptr;
         if (text == nullptr) {
            Fail("parameter length zero or past the end of the value", i);
            return kConverterFailure;
         }
         if (text[len - 1] != '\0' || memchr(text, '\0', len - 1) != nullptr) {
            Fail("parameter not a single terminated text", i);
            return kConverterFailure;
         }
         if (inst != nullptr) {
            int32_t rc = cs::AppendValueString(inst, "parameters", text);
            if (rc != cs::kSuccess) {
               return rc;
            }
         }
      }
   }
   if (r.left != 0) {
      Fail("trailing bytes after the last filter", count);
      return kConverterFailure;
   }
   return cs::kSuccess;
}

// The growing image of the property being rebuilt.
struct Image {
   uint8_t *data = nullptr;
   size_t len = 0;
   size_t cap = 0;

   Image() = default;
   Image(const Image &) = delete;
   Image &operator=(const Image &) = delete;
   ~Image() { free(data); }
   bool Put(const void *src, size_t n) {
      if (n > UINT32_MAX - len) {
         return false;
      }
      if (len + n > cap) {
         size_t want = cap != 0 ? cap : 256;
         while (want < len + n) {
            want *= 2;
         }
         auto *grown = static_cast<uint8_t *>(realloc(data, want));
         if (grown == nullptr) {
            return false;
         }
         data = grown;
         cap = want;
      }
      memcpy(data + len, src, n);
      len += n;
      return true;
   }
   bool U32(uint32_t v) { return Put(&v, sizeof v); }
};

int32_t Need(int32_t rc, const char *what, uint32_t filter) {
   if (rc == cs::kNotFound) {
      if (dvsconfigstore_debug >= 0) {
         printf("Filter policy: missing %s (filter %u)\n", what, filter);
      }
      return kConverterFailure;
   }
   return rc;
}

int32_t PutParameters(cs::Object *inst, uint32_t i, Image *img) {
   char **params = nullptr;
   uint32_t n = 0;
   int32_t rc = Need(cs::GetValueStringArray(inst, "parameters", &params, &n), "parameters", i);
   if (rc != cs::kSuccess) {
      return rc;
   }
   bool ok = img->U32(n);
   for (uint32_t j = 0; j < n && ok; j++) {
      const size_t len = strlen(params[j]) + 1;
      ok = len <= UINT32_MAX && img->U32(static_cast<uint32_t>(len)) && img->Put(params[j], len);
   }
   cs::DestroyStringArrayValue(params, n);
   if (!ok) {
      Fail("failed to alloc memory", i);
      return kConverterFailure;
   }
   return cs::kSuccess;
}

// Appends filter i, read from its instance, to img.
int32_t PutFilter(cs::Object *inst, uint32_t i, Image *img) {
   char *agent = nullptr;
   char *onFailure = nullptr;
   int64_t slot = 0;
   uint32_t policy = kOnFailureCount;
   int32_t rc = Need(cs::GetValueStr(inst, "agent_name", &agent), "agent_name", i);
   if (rc == cs::kSuccess) {
      rc = Need(cs::GetValueLong(inst, "slot_number", &slot), "slot_number", i);
   }
   if (rc == cs::kSuccess) {
      rc = Need(cs::GetValueStr(inst, "on_failure", &onFailure), "on_failure", i);
   }
   if (rc == cs::kSuccess) {
      for (uint32_t k = 0; k < kOnFailureCount; k++) {
         if (strcmp(onFailure, kOnFailure[k]) == 0) {
            policy = k;
         }
      }
      if (strlen(agent) >= kAgentNameMax) {
         Fail("agent name too long", i);
         rc = kConverterFailure;
      } else if (slot < 0 || slot > static_cast<int64_t>(UINT32_MAX)) {
         Fail("slot number out of range", i);
         rc = kConverterFailure;
      } else if (policy == kOnFailureCount) {
         Fail("unknown on_failure text", i);
         rc = kConverterFailure;
      }
   }
   if (rc == cs::kSuccess) {
      char name[kAgentNameMax] = {};
      memcpy(name, agent, strlen(agent));
      if (!img->Put(name, sizeof name) || !img->U32(static_cast<uint32_t>(slot)) ||
          !img->U32(policy)) {
         Fail("failed to alloc memory", i);
         rc = kConverterFailure;
      }
   }
   free(agent);
   free(onFailure);
   return rc == cs::kSuccess ? PutParameters(inst, i, img) : rc;
}

}  // namespace

int32_t SaveFilterPolicy(cs::Object *obj, const char *key, const void *value, uint32_t valueLen,
                         const ConvertContext &) {
   int32_t rc = WalkPolicy(value, valueLen, nullptr);
   if (rc != cs::kSuccess) {
      return rc;
   }
   cs::Object *policy = nullptr;
   rc = GetOrCreateSubObject(true, obj, key, "", &policy);
   if (rc != cs::kSuccess) {
      return rc;
   }
   // The filters of an earlier save go first, so that the two never mix.
   rc = DeleteInstances(policy, kFilters);
   if (rc != cs::kSuccess) {
      return rc;
   }
   rc = WalkPolicy(value, valueLen, policy);
   if (rc != cs::kSuccess && dvsconfigstore_debug >= 0) {
      printf("Failed to save filter policy, rc: %d\n", rc);
   }
   return rc;
}

int32_t LoadFilterPolicy(cs::Object *obj, const char *key, DVSDataHandle props,
                         const char *propName, uint64_t propFlag, const ConvertContext &) {
   cs::Object *policy = nullptr;
   int32_t rc = cs::GetSubObject(obj, key, "", &policy);
   if (rc != cs::kSuccess) {
      return AbsentIsSuccess(rc);
   }
   cs::FilterSpec *filter = nullptr;
   rc = cs::CreateFilterSpecObject(kFilters, nullptr, nullptr, nullptr, &filter);
   if (rc != cs::kSuccess) {
      return rc;
   }
   cs::Object **insts = nullptr;
   uint32_t count = 0;
   rc = cs::GetSubObjectInstances(policy, filter, &insts, &count);
   cs::DestroyFilterSpecObject(filter);
   if (rc != cs::kSuccess) {
      free(insts);
      return rc;
   }
   Image img;
   if (!img.U32(count)) {
      Fail("failed to alloc memory", 0);
      rc = kConverterFailure;
   }
   for (uint32_t i = 0; i < count && rc == cs::kSuccess; i++) {
      rc = PutFilter(insts[i], i, &img);
   }
   free(insts);
   if (rc == cs::kSuccess &&
       DVSData_Update(props, propName, img.data, static_cast<uint32_t>(img.len),
                      static_cast<uint32_t>(propFlag)) != STATUS_OK) {
      Fail("failed to add the property", count);
      rc = kConverterFailure;
   }
   return rc;
}

}  // namespace dvs::configstore
