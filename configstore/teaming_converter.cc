// The uplink teaming policy converter.  The property is one fixed-size
// record: the policy code, failure-detection settings, teaming flags and up
// to 32 uplink names, the active ones first and the standby ones after
// them.  In the store it is one sub-object holding the policy text, a
// "failure_criteria" sub-object, one boolean per teaming flag and an
// "uplink_port_order" sub-object with the two name lists.
//
// Two converter types share the record and the store key.  The
// "etherswitch" form (type 17) is saved for every switch but loaded only
// for a switch whose class is neither "vswitch" nor "cswitch", and writes
// the link speed as a 16-bit value; the "vswitch" form (type 18) is saved
// and loaded only for those two classes and writes the speed as a plain
// integer.
//
// The two directions are deliberately not mirror images: the policy texts
// of codes 4 and 5 load as 5 and 4, and the load reads the failure
// percentage, duplex and speed from the policy object itself rather than
// from "failure_criteria", keeping only the low byte of the speed.  Both
// are deliberate and must stay as they are.
#include <cstddef>
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

constexpr uint32_t kUplinkNameMax = kUplinkNameSlot - 1;

// failureFlags
constexpr uint32_t kCheckBeacon = 0x20;
constexpr uint32_t kLinkStateCheck = 0x80;
constexpr uint32_t kFailureCriteriaPresent = 0x200;

// teamingFlags
constexpr uint32_t kReversePolicy = 0x02;
constexpr uint32_t kBestEffort = 0x04;
constexpr uint32_t kRollingOrder = 0x08;
constexpr uint32_t kShotgun = 0x10;
constexpr uint32_t kNotifySwitches = 0x20;

// The policy codes that have a text; 0 and 6 have none.
constexpr uint32_t kPolicyTextLimit = 6;

// The booleans of teamingFlags, in the order they are written and read.
struct FlagKey {
   const char *key;
   uint32_t bit;
};
constexpr FlagKey kTeamingFlagKeys[] = {
   {"reverse_policy", kReversePolicy},
   {"rolling_order", kRollingOrder},
   {"notify_switches", kNotifySwitches},
   {"best_effort", kBestEffort},
   {"shotgun", kShotgun},
};

enum class TeamingForm { kEther, kVswitch };

// Checks a value before anything of it is written: long enough for the
// record, no more names than slots, and every name used terminated inside
// its slot.  Returns the record where it lies in the value (the record is
// packed, so any address holds one), or null.  Only the names in use are
// read: most of the record's 2.6 KB are empty slots.
const UplinkTeamingPolicy *CheckedPolicy(const void *value, uint32_t valueLen, const char *key) {
   if (value == nullptr || valueLen < sizeof(UplinkTeamingPolicy)) {
      CONFIGSTORE_FAIL("Teaming policy for key: %s too short: %u bytes, needs %zu\n", key, valueLen,
                       sizeof(UplinkTeamingPolicy));
      return nullptr;
   }
   const auto *policy = static_cast<const UplinkTeamingPolicy *>(value);
   const uint32_t active = policy->numActive;
   const uint32_t standby = policy->numStandby;
   const uint64_t names = uint64_t{active} + standby;
   if (names > kTeamingUplinkSlots) {
      CONFIGSTORE_FAIL("Teaming policy for key: %s has %u + %u uplinks, more than %u slots\n", key,
                       active, standby, kTeamingUplinkSlots);
      return nullptr;
   }
   for (uint32_t i = 0; i < names; i++) {
      if (memchr(policy->uplinkNames[i], '\0', kUplinkNameSlot) == nullptr) {
         CONFIGSTORE_FAIL("Teaming policy for key: %s: uplink name %u is not terminated\n", key, i);
         return nullptr;
      }
   }
   return policy;
}

// Appends the names of slots first .. first + count - 1 to the list key.
int32_t AppendNames(cs::Object *order, const char *key, const UplinkTeamingPolicy &policy,
                    uint32_t first, uint32_t count) {
   for (uint32_t i = first; i < first + count; i++) {
      const int32_t rc = cs::AppendValueString(order, key, policy.uplinkNames[i]);
      if (rc != cs::kSuccess) {
         return rc;
      }
   }
   return cs::kSuccess;
}

int32_t SaveTeaming(cs::Object *parent, const char *key, const void *value, uint32_t valueLen,
                    TeamingForm form, uint32_t classKind) {
   if (form == TeamingForm::kVswitch && classKind == kClassKindOther) {
      return cs::kSuccess;
   }
   const UplinkTeamingPolicy *checked = CheckedPolicy(value, valueLen, key);
   if (checked == nullptr) {
      return kConverterBadValue;
   }
   const UplinkTeamingPolicy &policy = *checked;

   cs::Object *obj = nullptr;
   int32_t rc = GetOrCreateSubObject(true, parent, key, nullptr, &obj);
   if (rc != cs::kSuccess) {
      // The etherswitch form lets a missing policy object pass.
      return form == TeamingForm::kEther && rc == cs::kNotFound ? cs::kSuccess : rc;
   }
   if (policy.policy < kPolicyTextLimit && TEAMING_POLICY_SCHEMA[policy.policy] != nullptr) {
      rc = cs::SetValueStr(obj, "policy", TEAMING_POLICY_SCHEMA[policy.policy]);
      if (rc != cs::kSuccess) {
         return rc;
      }
   }

   cs::Object *criteria = nullptr;
   rc = GetOrCreateSubObject(true, obj, "failure_criteria", nullptr, &criteria);
   // The etherswitch form goes on regardless; the writes below then report
   // the missing object.
   if (form == TeamingForm::kVswitch && rc != cs::kSuccess) {
      return rc;
   }
   rc = cs::SetValueBool(criteria, "check_beacon", (policy.failureFlags & kCheckBeacon) != 0);
   if (rc == cs::kSuccess) {
      rc =
         cs::SetValueBool(criteria, "lc_link_state", (policy.failureFlags & kLinkStateCheck) != 0);
   }
   if (rc == cs::kSuccess) {
      rc = cs::SetValueUint16(criteria, "percentage", policy.percentage);
   }
   if (rc == cs::kSuccess) {
      rc = cs::SetValueBool(criteria, "full_duplex", policy.fullDuplex != 0);
   }
   if (rc == cs::kSuccess) {
      rc = form == TeamingForm::kEther ? cs::SetValueUint16(criteria, "speed", policy.speed)
                                       : cs::SetValueInt(criteria, "speed", policy.speed);
   }
   for (const FlagKey &flag : kTeamingFlagKeys) {
      if (rc != cs::kSuccess) {
         return rc;
      }
      rc = cs::SetValueBool(obj, flag.key, (policy.teamingFlags & flag.bit) != 0);
   }
   if (rc != cs::kSuccess) {
      return rc;
   }

   cs::Object *order = nullptr;
   rc = GetOrCreateSubObject(true, obj, "uplink_port_order", nullptr, &order);
   if (rc == cs::kSuccess) {
      rc = cs::SetValueEmptyList(order, "active_uplink_ports");
   }
   if (rc == cs::kSuccess) {
      rc = cs::SetValueEmptyList(order, "standby_uplink_ports");
   }
   if (rc == cs::kSuccess) {
      rc = AppendNames(order, "active_uplink_ports", policy, 0, policy.numActive);
   }
   if (rc == cs::kSuccess) {
      rc = AppendNames(order, "standby_uplink_ports", policy, policy.numActive, policy.numStandby);
   }
   return rc;
}

bool ReadsTrue(cs::Object *obj, const char *key) {
   bool b = false;
   return cs::GetValueBool(obj, key, &b) == cs::kSuccess && b;
}

// Copies the list key of order into the free slots of policy, from slot
// *used on; *count is the number of names taken.  Names beyond the last
// slot are dropped and over-long names cut, each with a message.
void LoadNames(cs::Object *order, const char *key, UplinkTeamingPolicy *policy, uint32_t *used,
               uint32_t *count) {
   *count = 0;
   char **names = nullptr;
   uint32_t n = 0;
   if (cs::GetValueStringArray(order, key, &names, &n) != cs::kSuccess) {
      return;
   }
   for (uint32_t i = 0; i < n; i++) {
      if (*used >= kTeamingUplinkSlots) {
         CONFIGSTORE_FAIL(
            "Teaming policy: %u of the %u names in %s ignored, all %u uplink "
            "slots are taken\n",
            n - i, n, key, kTeamingUplinkSlots);
         break;
      }
      const char *name = names[i] != nullptr ? names[i] : "";
      const size_t len = strlen(name);
      if (len > kUplinkNameMax) {
         CONFIGSTORE_FAIL("Teaming policy: uplink name %s in %s cut to %u characters\n", name, key,
                          kUplinkNameMax);
      }
      const size_t kept = len > kUplinkNameMax ? kUplinkNameMax : len;
      memcpy(policy->uplinkNames[*used], name, kept);
      policy->uplinkNames[*used][kept] = '\0';
      (*used)++;
      (*count)++;
   }
   cs::DestroyStringArrayValue(names, n);
}

int32_t LoadTeaming(cs::Object *parent, const char *key, DVSDataHandle props, const char *propName,
                    uint64_t propFlag, TeamingForm form, uint32_t classKind) {
   const bool classFits =
      form == TeamingForm::kEther ? classKind == kClassKindOther : classKind != kClassKindOther;
   if (!classFits) {
      return cs::kSuccess;
   }
   UplinkTeamingPolicy policy;
   memset(&policy, 0, sizeof policy);

   cs::Object *obj = nullptr;
   if (cs::GetSubObject(parent, key, "", &obj) != cs::kSuccess || obj == nullptr) {
      return cs::kSuccess;
   }

   char *text = nullptr;
   if (cs::GetValueStr(obj, "policy", &text) == cs::kSuccess) {
      policy.policy = TeamingPolicyFromSchema(text);
      free(text);
   }

   cs::Object *criteria = nullptr;
   if (cs::GetSubObject(obj, "failure_criteria", "", &criteria) == cs::kSuccess &&
       criteria != nullptr) {
      if (ReadsTrue(criteria, "check_beacon")) {
         policy.failureFlags |= kCheckBeacon;
      }
      if (ReadsTrue(criteria, "lc_link_state")) {
         policy.failureFlags |= kLinkStateCheck;
      }
      policy.failureFlags |= kFailureCriteriaPresent;
      // Read from the policy object, not from "failure_criteria" where the
      // save puts them (see the top of this file).
      uint16_t v = 0;
      if (cs::GetValueUint16(obj, "percentage", &v) == cs::kSuccess) {
         policy.percentage = static_cast<uint8_t>(v);
      }
      policy.fullDuplex = ReadsTrue(obj, "full_duplex") ? 1 : 0;
      v = 0;
      if (cs::GetValueUint16(obj, "speed", &v) == cs::kSuccess) {
         policy.speed = static_cast<uint8_t>(v);
      }
   }

   for (const FlagKey &flag : kTeamingFlagKeys) {
      if (ReadsTrue(obj, flag.key)) {
         policy.teamingFlags |= flag.bit;
      }
   }

   cs::Object *order = nullptr;
   if (cs::GetSubObject(obj, "uplink_port_order", "", &order) == cs::kSuccess && order != nullptr) {
      // Counted in locals: the packed record's fields may be unaligned.
      uint32_t used = 0, active = 0, standby = 0;
      LoadNames(order, "active_uplink_ports", &policy, &used, &active);
      LoadNames(order, "standby_uplink_ports", &policy, &used, &standby);
      policy.numActive = active;
      policy.numStandby = standby;
   }

   return static_cast<int32_t>(
      DVSData_Update(props, propName, &policy, sizeof policy, static_cast<uint32_t>(propFlag)));
}

}  // namespace

uint32_t TeamingPolicyFromSchema(const char *text) {
   const int32_t i = LookupSchemaIndex(text, TEAMING_POLICY_SCHEMA);
   return i < 0 ? 0 : static_cast<uint32_t>(TEAMING_POLICY_ENUM[i]);
}

int32_t SaveTeamingEther(cs::Object *obj, const char *key, const void *value, uint32_t valueLen,
                         const ConvertContext &ctx) {
   return SaveTeaming(obj, key, value, valueLen, TeamingForm::kEther, ctx.classKind);
}

int32_t LoadTeamingEther(cs::Object *obj, const char *key, DVSDataHandle props,
                         const char *propName, uint64_t propFlag, const ConvertContext &ctx) {
   return LoadTeaming(obj, key, props, propName, propFlag, TeamingForm::kEther, ctx.classKind);
}

int32_t SaveTeamingVswitch(cs::Object *obj, const char *key, const void *value, uint32_t valueLen,
                           const ConvertContext &ctx) {
   return SaveTeaming(obj, key, value, valueLen, TeamingForm::kVswitch, ctx.classKind);
}

int32_t LoadTeamingVswitch(cs::Object *obj, const char *key, DVSDataHandle props,
                           const char *propName, uint64_t propFlag, const ConvertContext &ctx) {
   return LoadTeaming(obj, key, props, propName, propFlag, TeamingForm::kVswitch, ctx.classKind);
}

}  // namespace dvs::configstore
