// The link-aggregation (LACP) converters.  The switch property is a table
// of aggregation groups; in the store each group is one instance of the
// key's collection, named by the group's key, holding its name, mode,
// load-balance algorithm and uplink count.  The port property is the
// port's own LACP switch and mode, kept in one sub-object.
//
// Modes and load-balance algorithms are stored as texts.  A text the
// tables do not know loads as the all-ones code, which a save then
// refuses, so an unknown setting never turns into a wrong one.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "configstore/configstore_internal.h"
#include "configstore/converters.h"
#include "configstore/property_layouts.h"

namespace dvs::configstore {

namespace cs = ::dvs::configstore::store_calls;

namespace {

using namespace ::dvs::layouts;

// Codes that have a text: LACP_MODE_2_CAHRS and LACP_LB_POLICY_SCHEMA
// without their closing null.
constexpr uint32_t kLacpModeCount = 3;
constexpr uint32_t kLacpLbPolicyCount = 21;

LacpGroupEntry GroupAt(const uint8_t *bytes, uint32_t i) {
   LacpGroupEntry entry;
   memcpy(&entry, bytes + kCountSize + size_t{i} * sizeof entry, sizeof entry);
   return entry;
}

// Checks every group before anything is written.
bool ValidateGroups(const uint8_t *bytes, uint32_t count) {
   for (uint32_t i = 0; i < count; i++) {
      const LacpGroupEntry entry = GroupAt(bytes, i);
      if (memchr(entry.name, '\0', sizeof entry.name) == nullptr ||
          memchr(entry.key, '\0', sizeof entry.key) == nullptr) {
         CONFIGSTORE_FAIL("Lacp group %u: name or key not terminated\n", i);
         return false;
      }
      if (entry.key[0] == '\0') {
         // The key names the group's instance in the store.
         CONFIGSTORE_FAIL("Lacp group %u (%s): empty key\n", i, entry.name);
         return false;
      }
      if (entry.mode >= kLacpModeCount) {
         CONFIGSTORE_FAIL("Lacp group %s: unknown lacp mode %u\n", entry.key, entry.mode);
         return false;
      }
      if (entry.loadBalanceAlgorithm >= kLacpLbPolicyCount) {
         CONFIGSTORE_FAIL("Lacp group %s: unknown lacp lb policy %u\n", entry.key,
                          entry.loadBalanceAlgorithm);
         return false;
      }
   }
   return true;
}

int32_t WriteGroup(cs::Object *parent, const char *key, const LacpGroupEntry &entry) {
   cs::Object *group = nullptr;
   int32_t rc = GetOrCreateSubObject(true, parent, key, entry.key, &group);
   if (rc == cs::kSuccess) {
      rc = cs::SetValueStr(group, "name", entry.name);
   }
   if (rc == cs::kSuccess) {
      rc = cs::SetValueStr(group, "mode", LACP_MODE_2_CAHRS[entry.mode]);
   }
   if (rc == cs::kSuccess) {
      rc = cs::SetValueStr(group, "load_balance_algorithm",
                           LACP_LB_POLICY_SCHEMA[entry.loadBalanceAlgorithm]);
   }
   if (rc == cs::kSuccess) {
      rc = cs::SetValueUint32(group, "uplink_num", entry.uplinkNum);
   }
   return rc;
}

// Reads the text field of a group into its slot.  An absent or unreadable
// text leaves the slot zero; a text that does not fit fails with
// STATUS_BAD_PARAM rather than being cut.
bool ReadGroupText(cs::Object *group, const char *field, char *slot, size_t slotSize) {
   char *text = nullptr;
   if (cs::GetValueStr(group, field, &text) != cs::kSuccess) {
      return true;
   }
   const size_t len = strlen(text);
   const bool fits = len < slotSize;
   if (fits) {
      memcpy(slot, text, len + 1);
   } else {
      CONFIGSTORE_FAIL("Lacp group %s too long: %s (%zu characters, at most %zu)\n", field, text,
                       len, slotSize - 1);
   }
   free(text);
   return fits;
}

// Fills entry from one group instance.  Returns 0, or the status that ends
// the property's load.
int32_t ReadGroup(cs::Object *group, LacpGroupEntry *entry) {
   if (!ReadGroupText(group, "name", entry->name, sizeof entry->name) ||
       !ReadGroupText(group, "key", entry->key, sizeof entry->key)) {
      return kConverterBadValue;
   }
   char *text = nullptr;
   if (cs::GetValueStr(group, "mode", &text) == cs::kSuccess) {
      entry->mode = static_cast<uint32_t>(LacpModeFromString(text));
      free(text);
   }
   text = nullptr;
   if (cs::GetValueStr(group, "load_balance_algorithm", &text) == cs::kSuccess) {
      const int32_t lb = LookupSchemaIndex(text, LACP_LB_POLICY_SCHEMA);
      if (lb < 0) {
         CONFIGSTORE_FAIL("Unknown lacp lb policy %s\n", text);
      }
      entry->loadBalanceAlgorithm = static_cast<uint32_t>(lb);
      free(text);
   }
   uint32_t uplinks = 0;
   const int32_t rc = cs::GetValueUint32(group, "uplink_num", &uplinks);
   entry->uplinkNum = uplinks;
   return rc;
}

}  // namespace

int32_t LacpModeFromString(const char *text) {
   const int32_t mode = LookupSchemaIndex(text, LACP_MODE_2_CAHRS);
   if (mode < 0) {
      CONFIGSTORE_FAIL("Unknown lacp mode %s\n", text != nullptr ? text : "(null)");
   }
   return mode;
}

int32_t SaveLacpGroups(cs::Object *obj, const char *key, const void *value, uint32_t valueLen,
                       const ConvertContext &) {
   const auto *bytes = static_cast<const uint8_t *>(value);
   uint32_t count = 0;
   if (bytes == nullptr || valueLen < kCountSize) {
      CONFIGSTORE_FAIL("Lacp group table for key: %s too short: %u bytes\n", key, valueLen);
      return kConverterBadValue;
   }
   memcpy(&count, bytes, sizeof count);
   if (count == 0) {
      // Groups already in the store are left as they are.
      return cs::kSuccess;
   }
   if (uint64_t{count} * sizeof(LacpGroupEntry) + kCountSize > valueLen) {
      CONFIGSTORE_FAIL("Lacp group table for key: %s too short: %u bytes for %u groups\n", key,
                       valueLen, count);
      return kConverterBadValue;
   }
   if (!ValidateGroups(bytes, count)) {
      return kConverterBadValue;
   }
   for (uint32_t i = 0; i < count; i++) {
      const int32_t rc = WriteGroup(obj, key, GroupAt(bytes, i));
      if (rc != cs::kSuccess) {
         return rc;
      }
   }
   return cs::kSuccess;
}

int32_t LoadLacpGroups(cs::Object *obj, const char *key, DVSDataHandle props, const char *propName,
                       uint64_t propFlag, const ConvertContext &) {
   cs::FilterSpec *filter = nullptr;
   int32_t rc = cs::CreateFilterSpecObject(key, "", "", "", &filter);
   if (rc != cs::kSuccess) {
      return rc;
   }
   cs::Object **groups = nullptr;
   uint32_t count = 0;
   rc = cs::GetSubObjectInstances(obj, filter, &groups, &count);
   cs::DestroyFilterSpecObject(filter);
   if (rc != cs::kSuccess) {
      free(groups);
      return AbsentIsSuccess(rc);
   }
   if (count < 1) {
      free(groups);
      return cs::kSuccess;
   }

   const uint64_t len = uint64_t{count} * sizeof(LacpGroupEntry) + kCountSize;
   auto *buf = len <= UINT32_MAX ? static_cast<uint8_t *>(calloc(1, len)) : nullptr;
   if (buf == nullptr) {
      CONFIGSTORE_FAIL("Failed to alloc memory for LACPTable\n");
      free(groups);
      return kConverterFailure;
   }
   memcpy(buf, &count, sizeof count);
   for (uint32_t i = 0; i < count && rc == cs::kSuccess; i++) {
      LacpGroupEntry entry;
      memset(&entry, 0, sizeof entry);
      rc = ReadGroup(groups[i], &entry);
      memcpy(buf + kCountSize + size_t{i} * sizeof entry, &entry, sizeof entry);
   }
   if (rc == cs::kSuccess) {
      rc = static_cast<int32_t>(DVSData_Update(props, propName, buf, static_cast<uint32_t>(len),
                                               static_cast<uint32_t>(propFlag)));
   }
   free(buf);
   free(groups);
   return rc;
}

int32_t SaveLacpPolicy(cs::Object *obj, const char *key, const void *value, uint32_t valueLen,
                       const ConvertContext &) {
   LacpPortPolicy policy;
   if (value == nullptr || valueLen < sizeof policy) {
      CONFIGSTORE_FAIL("Lacp policy for key: %s too short: %u bytes, needs %zu\n", key, valueLen,
                       sizeof policy);
      return kConverterBadValue;
   }
   memcpy(&policy, value, sizeof policy);
   if (policy.mode >= kLacpModeCount) {
      CONFIGSTORE_FAIL("Lacp policy for key: %s: unknown lacp mode %u\n", key, policy.mode);
      return kConverterBadValue;
   }
   cs::Object *sub = nullptr;
   int32_t rc = GetOrCreateSubObject(true, obj, key, nullptr, &sub);
   if (rc == cs::kSuccess) {
      rc = cs::SetValueBool(sub, "enabled", policy.enabled != 0);
   }
   if (rc == cs::kSuccess) {
      rc = cs::SetValueStr(sub, "mode", LACP_MODE_2_CAHRS[policy.mode]);
   }
   return rc;
}

int32_t LoadLacpPolicy(cs::Object *obj, const char *key, DVSDataHandle props, const char *propName,
                       uint64_t propFlag, const ConvertContext &) {
   cs::Object *sub = nullptr;
   if (cs::GetSubObject(obj, key, "", &sub) != cs::kSuccess || sub == nullptr) {
      return cs::kSuccess;
   }
   LacpPortPolicy policy;
   memset(&policy, 0, sizeof policy);
   bool enabled = false;
   int32_t rc = cs::GetValueBool(sub, "enabled", &enabled);
   if (rc != cs::kSuccess) {
      return rc;
   }
   policy.enabled = enabled ? 1 : 0;
   char *text = nullptr;
   rc = cs::GetValueStr(sub, "mode", &text);
   if (rc != cs::kSuccess) {
      return rc;
   }
   policy.mode = static_cast<uint32_t>(LacpModeFromString(text));
   free(text);
   return static_cast<int32_t>(
      DVSData_Update(props, propName, &policy, sizeof policy, static_cast<uint32_t>(propFlag)));
}

}  // namespace dvs::configstore
