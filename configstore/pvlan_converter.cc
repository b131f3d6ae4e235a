// The private VLAN map converter.  The property is a packed array of
// 8-byte entries (primary id, secondary id, port type); in the store each
// entry is one instance of the key's collection under a generated instance
// id.  Two switch properties hold the map, one per family of switch
// classes, and both map to the same store list: a save writes whichever it
// is given, a load rebuilds only the one that fits the switch.
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

constexpr const char *kEtherPvlanProp = "com.ostrel.etherswitch.pvlanMap";
constexpr const char *kVswitchPvlanProp = "com.ostrel.vswitch.pvlanMap";

using namespace ::dvs::layouts;

// Switches of this class, and every switch of a version above
// kLastEtherPvlanVersion, keep the map in the vswitch property.
constexpr const char *kCswitchClass = "cswitch";

// Port types that have a text in PVLAN_2_CHARS.
constexpr uint8_t kPvlanTypeFirst = 1;
constexpr uint8_t kPvlanTypeLast = 3;

PvlanMapEntry EntryAt(const void *value, uint32_t i) {
   PvlanMapEntry entry;
   memcpy(&entry, static_cast<const uint8_t *>(value) + size_t{i} * sizeof entry, sizeof entry);
   return entry;
}

int32_t SaveEntry(cs::Object *obj, const char *key, const PvlanMapEntry &entry) {
   char *id = nullptr;
   int32_t rc = cs::GenerateInstanceId(&id);
   if (rc != cs::kSuccess) {
      return rc;
   }
   cs::Object *inst = nullptr;
   rc = GetOrCreateSubObject(true, obj, key, id, &inst);
   if (rc == cs::kSuccess) {
      rc = cs::SetValueUint16(inst, "primary_id", entry.primaryId);
   }
   if (rc == cs::kSuccess) {
      rc = cs::SetValueUint16(inst, "secondary_id", entry.secondaryId);
   }
   if (rc == cs::kSuccess) {
      rc = cs::SetValueStr(inst, "type", PVLAN_2_CHARS[entry.pvlanType]);
   }
   free(id);
   return rc;
}

// Fills *entry (reserved bytes zero) from one store instance.
int32_t LoadEntry(cs::Object *inst, PvlanMapEntry *entry) {
   uint16_t primary = 0;
   uint16_t secondary = 0;
   uint8_t type = 0;
   int32_t rc = cs::GetValueUint16(inst, "primary_id", &primary);
   if (rc == cs::kSuccess) {
      rc = cs::GetValueUint16(inst, "secondary_id", &secondary);
   }
   char *text = nullptr;
   if (rc == cs::kSuccess) {
      rc = cs::GetValueStr(inst, "type", &text);
   }
   if (rc == cs::kSuccess && PvlanTypeFromString(text, &type) == 0) {
      rc = kConverterFailure;
   }
   free(text);
   memset(entry, 0, sizeof *entry);
   entry->primaryId = primary;
   entry->secondaryId = secondary;
   entry->pvlanType = type;
   return rc;
}

// The class name of the switch, from its "product" sub-object.
int32_t ReadClassName(cs::Object *switchObj, char **className) {
   if (switchObj == nullptr) {
      return kConverterFailure;
   }
   cs::Object *product = nullptr;
   const int32_t rc = cs::GetSubObject(switchObj, "product", "", &product);
   if (rc != cs::kSuccess) {
      return rc;
   }
   return cs::GetValueStr(product, "forwarding_class", className);
}

}  // namespace

int32_t PvlanTypeFromString(const char *text, uint8_t *type) {
   const int32_t i = LookupSchemaIndex(text, PVLAN_2_CHARS);
   if (i < 0) {
      CONFIGSTORE_FAIL("Unknown PvlanType %s\n", text != nullptr ? text : "(null)");
      return 0;
   }
   *type = static_cast<uint8_t>(CHARS_2_PVLAN[i]);
   return 1;
}

// Both property names save alike.  The whole list is replaced: instances
// of an earlier save that the value no longer holds go.
int32_t SavePvlanMap(cs::Object *obj, const char *key, const void *value, uint32_t valueLen,
                     const ConvertContext &) {
   const uint32_t count = valueLen / sizeof(PvlanMapEntry);
   if (count > 0 && value == nullptr) {
      CONFIGSTORE_FAIL("No value for private VLAN map of %u bytes\n", valueLen);
      return kConverterBadValue;
   }
   // Every entry is checked before the store is touched: a type without a
   // text would leave a half-written list.
   for (uint32_t i = 0; i < count; i++) {
      const PvlanMapEntry entry = EntryAt(value, i);
      if (entry.pvlanType < kPvlanTypeFirst || entry.pvlanType > kPvlanTypeLast) {
         CONFIGSTORE_FAIL("Bad PvlanType %u in private VLAN entry %u (%u/%u)\n",
                          static_cast<unsigned>(entry.pvlanType), i,
                          static_cast<unsigned>(entry.primaryId),
                          static_cast<unsigned>(entry.secondaryId));
         return kConverterBadValue;
      }
   }
   // The emptied list drops every instance of an earlier save; an empty
   // value leaves it empty.
   int32_t rc = cs::SetValueEmptyList(obj, key);
   for (uint32_t i = 0; i < count && rc == cs::kSuccess; i++) {
      rc = SaveEntry(obj, key, EntryAt(value, i));
   }
   return rc;
}

// Rebuilds the map under propName only when propName is the form that fits
// the switch (ctx.source, its class name and ctx.version); for the other
// form nothing is stored.  All or nothing: one unreadable entry leaves the
// property absent.
int32_t LoadPvlanMap(cs::Object *obj, const char *key, DVSDataHandle props, const char *propName,
                     uint64_t propFlag, const ConvertContext &ctx) {
   char *className = nullptr;
   int32_t rc = ReadClassName(ctx.source, &className);
   if (rc != cs::kSuccess) {
      return rc;
   }
   const bool vswitchForm =
      strcmp(className, kCswitchClass) == 0 || ctx.version > kLastEtherPvlanVersion;
   free(className);
   if (propName == nullptr ||
       strcmp(propName, vswitchForm ? kVswitchPvlanProp : kEtherPvlanProp) != 0) {
      return cs::kSuccess;
   }

   cs::FilterSpec *filter = nullptr;
   rc = cs::CreateFilterSpecObject(key, "", "", "", &filter);
   if (rc != cs::kSuccess) {
      return rc;
   }
   cs::Object **insts = nullptr;
   uint32_t count = 0;
   rc = cs::GetSubObjectInstances(obj, filter, &insts, &count);
   cs::DestroyFilterSpecObject(filter);
   if (rc != cs::kSuccess || count < 1) {
      free(insts);
      return AbsentIsSuccess(rc);
   }

   auto *entries = static_cast<PvlanMapEntry *>(calloc(count, sizeof(PvlanMapEntry)));
   if (entries == nullptr || count > UINT32_MAX / sizeof(PvlanMapEntry)) {
      CONFIGSTORE_FAIL("%s\n", vswitchForm ? "Failed to alloc memory for VSPvlanMapEntry"
                                           : "Failed to alloc memory for ESPvlanMapEntry");
      free(entries);
      free(insts);
      return kConverterFailure;
   }
   for (uint32_t i = 0; i < count && rc == cs::kSuccess; i++) {
      rc = LoadEntry(insts[i], &entries[i]);
   }
   free(insts);
   if (rc == cs::kSuccess) {
      rc = static_cast<int32_t>(DVSData_Update(props, propName, entries,
                                               count * static_cast<uint32_t>(sizeof *entries),
                                               static_cast<uint32_t>(propFlag)));
   }
   free(entries);
   return rc;
}

}  // namespace dvs::configstore
