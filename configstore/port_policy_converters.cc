// The converters of three port policies: the port's VLAN (plain, private or
// trunk), its traffic shaping in either direction and its MAC management.
// Each lives in a sub-object of the port's "settings".  The VLAN and MAC
// management rows come in pairs, one per family of switch classes, that
// share a store key; the load converts only the row of the switch's family.
#include <configstore.h>

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

constexpr uint16_t kVlanTrunk = 0x1;
constexpr uint16_t kVlanPrivate = 0x2;
constexpr uint16_t kMaxRanges = UINT16_MAX;

constexpr const char *kTrunkRanges = "trunk_vlan_ids";
constexpr const char *kVlanIdKey = "vlan_id";
constexpr const char *kPvlanIdKey = "pvlan_id";

// The store keeps bandwidths and burst sizes eight times the property's.
constexpr int64_t kShapingScale = 8;

// Reject bits of the MAC management policy, each with the store value that
// says the opposite (allowed).
constexpr uint32_t kRejectPromiscuous = 0x1;
constexpr uint32_t kRejectMacChange = 0x2;
constexpr uint32_t kRejectForgedTransmit = 0x4;
struct SecurityKey {
   uint32_t rejectBit;
   const char *allowKey;
};
constexpr SecurityKey kSecurityKeys[] = {
   {kRejectPromiscuous, "allow_promiscuous"},
   {kRejectMacChange, "allow_mac_change"},
   {kRejectForgedTransmit, "allow_forged_transmit"},
};

bool ValueTooShort(const void *value, uint32_t valueLen, size_t need, const ConvertContext &ctx,
                   const char *key) {
   if (value != nullptr && valueLen >= need) {
      return false;
   }
   CONFIGSTORE_FAIL("Bad value of prop: %s, key: %s, length: %u, expected: %u\n",
                    ctx.propName != nullptr ? ctx.propName : "", key, valueLen,
                    static_cast<unsigned>(need));
   return true;
}

// Empties the VLAN object before it is written: the emptied range list
// drops every range an earlier save left, and the ids go too, so that what
// is written is all the object says (a plain VLAN saved over a private one
// must not load back as private).
int32_t ClearVlan(cs::Object *vlan) {
   int32_t rc = cs::SetValueEmptyList(vlan, kTrunkRanges);
   if (rc == cs::kSuccess) {
      rc = AbsentIsSuccess(cs::RemoveValue(vlan, kVlanIdKey));
   }
   if (rc == cs::kSuccess) {
      rc = AbsentIsSuccess(cs::RemoveValue(vlan, kPvlanIdKey));
   }
   return rc;
}

int32_t SaveRange(cs::Object *vlan, const VlanRange &range) {
   char *id = nullptr;
   int32_t rc = cs::GenerateInstanceId(&id);
   if (rc != cs::kSuccess) {
      return rc;
   }
   cs::Object *inst = nullptr;
   rc = GetOrCreateSubObject(true, vlan, kTrunkRanges, id, &inst);
   free(id);
   if (rc == cs::kSuccess) {
      rc = cs::SetValueUint16(inst, "start", range.start);
   }
   if (rc == cs::kSuccess) {
      rc = cs::SetValueUint16(inst, "end", range.end);
   }
   return rc;
}

// Writes a VLAN value.  A plain or private VLAN's write result is returned
// only when checkIdWrite is set: the vswitch row has always ignored it.
int32_t SaveVlan(cs::Object *obj, const char *key, const void *value, uint32_t valueLen,
                 const ConvertContext &ctx, bool checkIdWrite) {
   PortVlanPolicy hdr;
   if (ValueTooShort(value, valueLen, sizeof hdr, ctx, key)) {
      return kConverterBadValue;
   }
   memcpy(&hdr, value, sizeof hdr);
   const bool trunk = (hdr.flags & kVlanTrunk) != 0;
   const size_t need = sizeof hdr + (trunk ? size_t{hdr.rangeCount} * sizeof(VlanRange) : 0);
   if (ValueTooShort(value, valueLen, need, ctx, key)) {
      return kConverterBadValue;
   }
   cs::Object *vlan = nullptr;
   int32_t rc = GetOrCreateSubObject(true, obj, key, nullptr, &vlan);
   if (rc != cs::kSuccess) {
      return rc;
   }
   rc = ClearVlan(vlan);
   if (rc != cs::kSuccess) {
      return rc;
   }
   if (!trunk) {
      const char *idKey = (hdr.flags & kVlanPrivate) != 0 ? kPvlanIdKey : kVlanIdKey;
      rc = cs::SetValueUint16(vlan, idKey, hdr.vlanId);
      return checkIdWrite ? rc : cs::kSuccess;
   }
   // A trunk without ranges is just the emptied list.
   const auto *ranges = static_cast<const uint8_t *>(value) + sizeof hdr;
   for (uint16_t i = 0; i < hdr.rangeCount; i++) {
      VlanRange range;
      memcpy(&range, ranges + size_t{i} * sizeof range, sizeof range);
      rc = SaveRange(vlan, range);
      if (rc != cs::kSuccess) {
         return rc;
      }
   }
   return cs::kSuccess;
}

// Fills buf (zeroed, room for count ranges) from the VLAN object: a trunk
// when the object has ranges (count of them in insts), else a plain or
// private VLAN.
void FillVlan(cs::Object *vlan, cs::Object **insts, uint32_t count, uint8_t *buf) {
   PortVlanPolicy hdr{};
   if (count > 0) {
      hdr.flags = kVlanTrunk;
      hdr.rangeCount = static_cast<uint16_t>(count);
      for (uint32_t i = 0; i < count; i++) {
         // A bound the store does not have stays 0.
         uint16_t start = 0, end = 0;
         cs::GetValueUint16(insts[i], "start", &start);
         cs::GetValueUint16(insts[i], "end", &end);
         const VlanRange range{start, end};
         memcpy(buf + sizeof hdr + size_t{i} * sizeof range, &range, sizeof range);
      }
   } else {
      uint16_t id = 0;
      if (cs::GetValueUint16(vlan, kPvlanIdKey, &id) == cs::kSuccess) {
         hdr.flags = kVlanPrivate;
      } else {
         id = 0;
         cs::GetValueUint16(vlan, kVlanIdKey, &id);
      }
      hdr.vlanId = id;
   }
   memcpy(buf, &hdr, sizeof hdr);
}

// Builds the VLAN value from the key's sub-object.  An allocation failure
// of the ether row is not worth failing the port for; that of the vswitch
// row is.
int32_t LoadVlan(cs::Object *obj, const char *key, DVSDataHandle props, const char *propName,
                 uint64_t propFlag, bool vswitchRow) {
   cs::Object *vlan = nullptr;
   if (cs::GetSubObject(obj, key, "", &vlan) != cs::kSuccess || vlan == nullptr) {
      return cs::kSuccess;
   }
   cs::FilterSpec *filter = nullptr;
   int32_t rc = cs::CreateFilterSpecObject(kTrunkRanges, "", "", "", &filter);
   if (rc != cs::kSuccess) {
      return rc;
   }
   if (filter == nullptr && vswitchRow) {
      return cs::kSuccess;
   }
   cs::Object **insts = nullptr;
   uint32_t count = 0;
   if (cs::GetSubObjectInstances(vlan, filter, &insts, &count) != cs::kSuccess) {
      count = 0;
   }
   if (count > kMaxRanges) {
      CONFIGSTORE_FAIL("Too many trunk ranges for prop: %s, count: %u\n", propName, count);
      rc = kConverterBadValue;
   } else {
      const uint32_t len =
         static_cast<uint32_t>(sizeof(PortVlanPolicy) + size_t{count} * sizeof(VlanRange));
      auto *buf = static_cast<uint8_t *>(calloc(1, len));
      if (buf == nullptr) {
         if (vswitchRow) {
            CONFIGSTORE_FAIL("Failed to alloc memory for VSPortVlanPolicy\n");
            rc = kConfigStoreOwnFailure;
         } else {
            CONFIGSTORE_FAIL("Failed to alloc memory for ESPortVlanPolicy\n");
         }
      } else {
         FillVlan(vlan, insts, count, buf);
         rc = UpdateProp(props, propName, buf, len, propFlag);
         free(buf);
      }
   }
   free(insts);
   cs::DestroyFilterSpecObject(filter);
   return rc;
}

}  // namespace

int32_t SaveVlanEther(cs::Object *obj, const char *key, const void *value, uint32_t valueLen,
                      const ConvertContext &ctx) {
   return SaveVlan(obj, key, value, valueLen, ctx, true);
}

// Only switches of the vswitch and cswitch classes keep this row's value.
int32_t SaveVlanVswitch(cs::Object *obj, const char *key, const void *value, uint32_t valueLen,
                        const ConvertContext &ctx) {
   if (ctx.classKind == kClassKindOther) {
      return cs::kSuccess;
   }
   return SaveVlan(obj, key, value, valueLen, ctx, false);
}

int32_t LoadVlanEther(cs::Object *obj, const char *key, DVSDataHandle props, const char *propName,
                      uint64_t propFlag, const ConvertContext &ctx) {
   if (ctx.classKind != kClassKindOther) {
      return cs::kSuccess;
   }
   return LoadVlan(obj, key, props, propName, propFlag, false);
}

int32_t LoadVlanVswitch(cs::Object *obj, const char *key, DVSDataHandle props, const char *propName,
                        uint64_t propFlag, const ConvertContext &ctx) {
   if (ctx.classKind == kClassKindOther) {
      return cs::kSuccess;
   }
   return LoadVlan(obj, key, props, propName, propFlag, true);
}

int32_t SaveShaping(cs::Object *obj, const char *key, const void *value, uint32_t valueLen,
                    const ConvertContext &ctx) {
   PortShapingPolicy policy;
   if (ValueTooShort(value, valueLen, sizeof policy, ctx, key)) {
      return kConverterBadValue;
   }
   memcpy(&policy, value, sizeof policy);
   const uint64_t fields[] = {policy.averageBandwidth, policy.peakBandwidth, policy.burstSize};
   for (uint64_t f : fields) {
      // The store's integers are signed 64-bit: eight times the field must
      // fit.
      if (f > static_cast<uint64_t>(INT64_MAX / kShapingScale)) {
         CONFIGSTORE_FAIL("Shaping value too large for prop: %s, value: %llu\n",
                          ctx.propName != nullptr ? ctx.propName : "",
                          static_cast<unsigned long long>(f));
         return kConverterBadValue;
      }
   }
   cs::Object *shaping = nullptr;
   int32_t rc = GetOrCreateSubObject(true, obj, key, nullptr, &shaping);
   if (rc != cs::kSuccess) {
      return rc;
   }
   const char *const keys[] = {"average_bandwidth", "peak_bandwidth", "burst_size"};
   rc = cs::SetValueBool(shaping, "enabled", true);
   for (size_t i = 0; i < 3 && rc == cs::kSuccess; i++) {
      rc = cs::SetValueLong(shaping, keys[i], static_cast<int64_t>(fields[i]) * kShapingScale);
   }
   return rc;
}

int32_t LoadShaping(cs::Object *obj, const char *key, DVSDataHandle props, const char *propName,
                    uint64_t propFlag, const ConvertContext &) {
   // Each direction's row reads its own key only.
   const bool input = strcmp(propName, "com.ostrel.common.port.shaper.input") == 0 &&
                      strcmp(key, "in_shaping_policy") == 0;
   const bool output = strcmp(propName, "com.ostrel.common.port.shaper.output") == 0 &&
                       strcmp(key, "out_shaping_policy") == 0;
   if (!input && !output) {
      return cs::kSuccess;
   }
   cs::Object *shaping = nullptr;
   int32_t rc = cs::GetSubObject(obj, key, nullptr, &shaping);
   if (rc != cs::kSuccess) {
      return AbsentIsSuccess(rc);
   }
   // "enabled" is not kept in the property: a policy in the store is on.
   const char *const keys[] = {"average_bandwidth", "peak_bandwidth", "burst_size"};
   uint64_t fields[3] = {0, 0, 0};
   for (size_t i = 0; i < 3; i++) {
      int64_t stored = 0;
      if (cs::GetValueLong(shaping, keys[i], &stored) != cs::kSuccess) {
         continue;
      }
      if (stored < 0) {
         CONFIGSTORE_FAIL("Bad %s of prop: %s, value: %lld\n", keys[i], propName,
                          static_cast<long long>(stored));
         return kConverterBadValue;
      }
      fields[i] = static_cast<uint64_t>(stored / kShapingScale);
   }
   PortShapingPolicy policy;
   policy.averageBandwidth = fields[0];
   policy.peakBandwidth = fields[1];
   policy.burstSize = fields[2];
   return UpdateProp(props, propName, &policy, sizeof policy, propFlag);
}

// Both rows write the same way, whatever the switch's class.
int32_t SaveSecurity(cs::Object *obj, const char *key, const void *value, uint32_t valueLen,
                     const ConvertContext &ctx) {
   PortSecurityPolicy policyValue;
   if (ValueTooShort(value, valueLen, sizeof policyValue, ctx, key)) {
      return kConverterBadValue;
   }
   memcpy(&policyValue, value, sizeof policyValue);
   const uint32_t bits = policyValue.rejectBits;
   cs::Object *policy = nullptr;
   int32_t rc = GetOrCreateSubObject(true, obj, key, nullptr, &policy);
   for (const SecurityKey &k : kSecurityKeys) {
      if (rc != cs::kSuccess) {
         break;
      }
      rc = cs::SetValueBool(policy, k.allowKey, (bits & k.rejectBit) == 0);
   }
   return rc;
}

namespace {

int32_t LoadSecurity(cs::Object *obj, const char *key, DVSDataHandle props, const char *propName,
                     uint64_t propFlag) {
   cs::Object *policy = nullptr;
   int32_t rc = cs::GetSubObject(obj, key, nullptr, &policy);
   if (rc != cs::kSuccess) {
      return AbsentIsSuccess(rc);
   }
   // Only an explicit "not allowed" sets a bit.
   PortSecurityPolicy bits{0};
   for (const SecurityKey &k : kSecurityKeys) {
      bool allowed = true;
      if (cs::GetValueBool(policy, k.allowKey, &allowed) == cs::kSuccess && !allowed) {
         bits.rejectBits |= k.rejectBit;
      }
   }
   return UpdateProp(props, propName, &bits, sizeof bits, propFlag);
}

}  // namespace

int32_t LoadSecurityEther(cs::Object *obj, const char *key, DVSDataHandle props,
                          const char *propName, uint64_t propFlag, const ConvertContext &ctx) {
   if (ctx.classKind != kClassKindOther) {
      return cs::kSuccess;
   }
   return LoadSecurity(obj, key, props, propName, propFlag);
}

int32_t LoadSecurityVswitch(cs::Object *obj, const char *key, DVSDataHandle props,
                            const char *propName, uint64_t propFlag, const ConvertContext &ctx) {
   if (ctx.classKind == kClassKindOther) {
      return cs::kSuccess;
   }
   return LoadSecurity(obj, key, props, propName, propFlag);
}

}  // namespace dvs::configstore
