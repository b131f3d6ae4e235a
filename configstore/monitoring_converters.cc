// The converters of the switch's monitoring settings: flow export (IPFIX),
// the link discovery protocol and the two health checks.  Each property is
// a small packed record; in the store each becomes one sub-object with a
// value per field.
#include <arpa/inet.h>
#include <netinet/in.h>

#include <configstore.h>

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

// Numbers of texts in the link discovery tables: a protocol or operation
// at or past these has no text.
constexpr uint8_t kCdpModeCount = 2;
constexpr uint8_t kCdpOperationCount = 4;

// Longest address text: eight groups of four hex digits and their colons.
constexpr size_t kAddressTextMax = 46;

// Copies a fixed-size property value into *out, refusing one that is too
// short for it (a damaged value is never read past its end).
template <typename T>
bool ReadValue(const void *value, uint32_t valueLen, const ConvertContext &ctx, const char *key,
               T *out) {
   if (value == nullptr || valueLen < sizeof(T)) {
      CONFIGSTORE_FAIL("Bad value of prop: %s, key: %s, length: %u, expected: %u\n",
                       ctx.propName != nullptr ? ctx.propName : "", key, valueLen,
                       static_cast<unsigned>(sizeof(T)));
      return false;
   }
   memcpy(out, value, sizeof(T));
   return true;
}

// Position of text in a CDP text table, or the table's terminator when the
// text is not there; the CHARS_2 table maps that position to the number.
int32_t CdpNumber(const char *text, const char *const *texts, const int32_t *numbers,
                  int32_t count) {
   int32_t i = LookupSchemaIndex(text, texts);
   return numbers[i < 0 ? count : i];
}

// The instance of "health_checks" that holds a health-check property, or
// null for a property that is not a health check.
const char *HealthCheckInstance(const char *propName) {
   if (propName == nullptr) {
      return nullptr;
   }
   if (strcmp(propName, "com.ostrel.common.vlanmtucheck.deploy") == 0) {
      return "VLAN_MTU";
   }
   if (strcmp(propName, "com.ostrel.common.teamcheck.deploy") == 0) {
      return "TEAMING";
   }
   return nullptr;
}

}  // namespace

int32_t SaveIpfix(cs::Object *obj, const char *key, const void *value, uint32_t valueLen,
                  const ConvertContext &ctx) {
   IpfixConfig cfg;
   if (!ReadValue(value, valueLen, ctx, key, &cfg)) {
      return kConverterBadValue;
   }
   cs::Object *ipfix = nullptr;
   int32_t rc = GetOrCreateSubObject(true, obj, key, nullptr, &ipfix);
   if (rc != cs::kSuccess) {
      return rc;
   }
   if ((rc = cs::SetValueUint32(ipfix, "idle_flow_timeout", cfg.idleFlowTimeout)) != 0 ||
       (rc = cs::SetValueUint32(ipfix, "active_flow_timeout", cfg.activeFlowTimeout)) != 0) {
      return rc;
   }
   char text[kAddressTextMax];
   const uint8_t *a = cfg.collectorAddress;
   if (cfg.collectorIsIpv6 != 0) {
      // Every group written out in full, never the "::" short form.
      snprintf(text, sizeof text,
               "%02x%02x:%02x%02x:%02x%02x:%02x%02x:%02x%02x:%02x%02x:%02x%02x:%02x%02x", a[0],
               a[1], a[2], a[3], a[4], a[5], a[6], a[7], a[8], a[9], a[10], a[11], a[12], a[13],
               a[14], a[15]);
   } else if (inet_ntop(AF_INET, a, text, sizeof text) == nullptr) {
      return kConfigStoreOwnFailure;
   }
   if ((rc = cs::SetValueStr(ipfix, "collector_address", text)) != 0 ||
       (rc = cs::SetValueUint16(ipfix, "collector_port", cfg.collectorPort)) != 0 ||
       (rc = cs::SetValueUint32(ipfix, "sampling_rate", cfg.samplingRate)) != 0 ||
       (rc = cs::SetValueBool(ipfix, "internal_flows_only", cfg.internalFlowsOnly != 0)) != 0) {
      return rc;
   }
   return cs::SetValueUint32(ipfix, "observation_domain_id", cfg.observationDomainId);
}

int32_t LoadIpfix(cs::Object *obj, const char *key, DVSDataHandle props, const char *propName,
                  uint64_t propFlag, const ConvertContext &) {
   cs::Object *ipfix = nullptr;
   int32_t rc = cs::GetSubObject(obj, key, nullptr, &ipfix);
   if (rc != cs::kSuccess) {
      return AbsentIsSuccess(rc);
   }
   // Each field is read on its own; one the store does not have stays 0.
   // The record is packed, so the values are read into locals first.
   IpfixConfig cfg{};
   uint32_t idle = 0, active = 0, sampling = 0, domain = 0;
   uint16_t port = 0;
   bool internal = false;
   cs::GetValueUint32(ipfix, "idle_flow_timeout", &idle);
   cs::GetValueUint32(ipfix, "active_flow_timeout", &active);
   cs::GetValueUint32(ipfix, "sampling_rate", &sampling);
   char *address = nullptr;
   if (cs::GetValueStr(ipfix, "collector_address", &address) == cs::kSuccess) {
      // Either family is accepted in any of its valid forms; a text that is
      // neither leaves the address zero.
      struct in_addr v4;
      struct in6_addr v6;
      if (inet_pton(AF_INET, address, &v4) == 1) {
         memcpy(cfg.collectorAddress, &v4, sizeof v4);
      } else if (inet_pton(AF_INET6, address, &v6) == 1) {
         memcpy(cfg.collectorAddress, &v6, sizeof v6);
         cfg.collectorIsIpv6 = 1;
      }
      free(address);
   }
   cs::GetValueUint16(ipfix, "collector_port", &port);
   cs::GetValueBool(ipfix, "internal_flows_only", &internal);
   cs::GetValueUint32(ipfix, "observation_domain_id", &domain);
   cfg.idleFlowTimeout = idle;
   cfg.activeFlowTimeout = active;
   cfg.collectorPort = port;
   cfg.samplingRate = sampling;
   cfg.internalFlowsOnly = internal ? 1 : 0;
   cfg.observationDomainId = domain;
   return UpdateProp(props, propName, &cfg, sizeof cfg, propFlag);
}

int32_t SaveLinkDiscovery(cs::Object *obj, const char *key, const void *value, uint32_t valueLen,
                          const ConvertContext &ctx) {
   LinkDiscoveryConfig cfg;
   if (!ReadValue(value, valueLen, ctx, key, &cfg)) {
      return kConverterBadValue;
   }
   if (cfg.protocol >= kCdpModeCount || cfg.operation >= kCdpOperationCount) {
      CONFIGSTORE_FAIL("Bad link discovery setting, protocol: %u, operation: %u\n",
                       static_cast<unsigned>(cfg.protocol), static_cast<unsigned>(cfg.operation));
      return kConverterBadValue;
   }
   cs::Object *ldp = nullptr;
   if (GetOrCreateSubObject(true, obj, key, nullptr, &ldp) != cs::kSuccess || ldp == nullptr) {
      return kConfigStoreOwnFailure;
   }
   int32_t rc = cs::SetValueStr(ldp, "protocol", CDP_MODE_2_CHARS[cfg.protocol]);
   if (rc != cs::kSuccess) {
      return rc;
   }
   return cs::SetValueStr(ldp, "operation", CDP_OPERATION_2_CHARS[cfg.operation]);
}

int32_t LoadLinkDiscovery(cs::Object *obj, const char *key, DVSDataHandle props,
                          const char *propName, uint64_t propFlag, const ConvertContext &) {
   cs::Object *ldp = nullptr;
   int32_t rc = cs::GetSubObject(obj, key, nullptr, &ldp);
   if (rc != cs::kSuccess) {
      return AbsentIsSuccess(rc);
   }
   char *protocol = nullptr;
   char *operation = nullptr;
   rc = cs::GetValueStr(ldp, "protocol", &protocol);
   if (rc == cs::kSuccess) {
      rc = cs::GetValueStr(ldp, "operation", &operation);
   }
   if (rc == cs::kSuccess) {
      // A text the tables do not know becomes the number past the last one.
      LinkDiscoveryConfig cfg;
      cfg.protocol = static_cast<uint8_t>(
         CdpNumber(protocol, CDP_MODE_2_CHARS, CHARS_2_CDP_MODE, kCdpModeCount));
      cfg.operation = static_cast<uint8_t>(
         CdpNumber(operation, CDP_OPERATION_2_CHARS, CHARS_2_CDP_OPERATION, kCdpOperationCount));
      rc = UpdateProp(props, propName, &cfg, sizeof cfg, propFlag);
   } else {
      rc = AbsentIsSuccess(rc);
   }
   free(protocol);
   free(operation);
   return rc;
}

// Both health-check rows share the key "health_checks"; the property's name
// picks its instance.
int32_t SaveHealthCheck(cs::Object *obj, const char *key, const void *value, uint32_t valueLen,
                        const ConvertContext &ctx) {
   const char *instance = HealthCheckInstance(ctx.propName);
   if (instance == nullptr) {
      CONFIGSTORE_FAIL("Unknown health check type %s\n",
                       ctx.propName != nullptr ? ctx.propName : "(null)");
      return kConfigStoreOwnFailure;
   }
   HealthCheckDeploy cfg;
   if (!ReadValue(value, valueLen, ctx, key, &cfg)) {
      return kConverterBadValue;
   }
   cs::Object *check = nullptr;
   int32_t rc = GetOrCreateSubObject(true, obj, key, instance, &check);
   if (rc != cs::kSuccess) {
      return rc;
   }
   // Written as "enable" but read back from "enabled": the two names have
   // always differed, and stores in the field hold them that way.
   rc = cs::SetValueBool(check, "enable", cfg.enable != 0);
   if (rc != cs::kSuccess) {
      return rc;
   }
   return cs::SetValueUint32(check, "interval", cfg.interval);
}

int32_t LoadHealthCheck(cs::Object *obj, const char *key, DVSDataHandle props, const char *propName,
                        uint64_t propFlag, const ConvertContext &) {
   const char *instance = HealthCheckInstance(propName);
   if (instance == nullptr) {
      return cs::kSuccess;
   }
   cs::Object *check = nullptr;
   int32_t rc = cs::GetSubObject(obj, key, instance, &check);
   if (rc != cs::kSuccess) {
      return AbsentIsSuccess(rc);
   }
   auto *cfg = static_cast<HealthCheckDeploy *>(calloc(1, sizeof(HealthCheckDeploy)));
   if (cfg == nullptr) {
      CONFIGSTORE_FAIL("Failed to alloc memory for DVSHealthchkDeploy\n");
      return kConfigStoreOwnFailure;
   }
   bool enabled = false;
   uint32_t interval = 0;
   cs::GetValueBool(check, "enabled", &enabled);
   cs::GetValueUint32(check, "interval", &interval);
   cfg->enable = enabled ? 1 : 0;
   cfg->interval = interval;
   rc = UpdateProp(props, propName, cfg, sizeof *cfg, propFlag);
   free(cfg);
   return rc;
}

}  // namespace dvs::configstore
