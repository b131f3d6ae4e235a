// The converters between binary properties and store values, one pair per
// converter type, reached through one table indexed by that type.  A new
// converter is a new table entry; the save and load dispatchers never name
// a converter themselves.
#ifndef DVS_CONFIGSTORE_CONVERTERS_H
#define DVS_CONFIGSTORE_CONVERTERS_H

#include <configstore.h>
#include <dvsconfigstore.h>
#include <dvsdata.h>

#include <cstdint>

#include "configstore/store_calls.h"

namespace dvs::configstore {

// What a converter may need beyond its own value: the class of the table
// the row came from (the catch-all rows of the global and host tables share
// one converter and one store key), the property's own name on save (the
// row may be the catch-all one), and the switch or port object the row's
// path was walked from, and the version number of the switch (on load the
// one read from its store object, on save the registry's).
struct ConvertContext {
   uint32_t propClass;             // PROP_CLASS_GLOBAL, _HOST or _PORT
   const char *propName;           // save: the property's name; load: the row's
   ::configstore::Object *source;  // where the path walk started
   uint32_t version = 0;           // version number of the switch being converted
   // The switch object itself (for a port row: the object of the port's
   // switch while a save runs; null outside one).
   ::configstore::Object *switchObj = nullptr;
};

// Save direction: writes the property value (value, valueLen bytes) under
// key on obj, the object found by walking the row's path.  Returns the
// store's code, or -1 for a failure of the converter's own.
using SaveConverterFn = int32_t (*)(::configstore::Object *obj, const char *key, const void *value,
                                    uint32_t valueLen, const ConvertContext &ctx);

// Load direction: reads key on obj and adds the rebuilt property to props
// under propName with flag propFlag (DVSData_Update).  A value the store
// does not have adds nothing and returns 0.  Returns the store's code, or
// -1 for a failure of the converter's own.  The switch version converter
// reads ctx.source, the switch object, whose "product" sub-object and
// "zlt_enabled" value hold the version.
using LoadConverterFn = int32_t (*)(::configstore::Object *obj, const char *key,
                                    DVSDataHandle props, const char *propName, uint64_t propFlag,
                                    const ConvertContext &ctx);

struct PropConverter {
   SaveConverterFn save;
   LoadConverterFn load;
};

// Indexed by converter type; an entry whose functions are null has no
// converter (yet), and the dispatchers treat it as an unknown type.
extern const PropConverter kPropConverters[PROP_CONV_END];

// The converter of convType, or null when there is none (30, 37 and up,
// and the types whose converters are still to come).
const PropConverter *GetPropConverter(uint32_t convType);

// The switch version number held by switchObj: the text "version" of its
// "product" sub-object, with its "zlt_enabled" flag.  Store codes are
// returned unchanged; -1 for a text the version table does not know.
int32_t ReadSwitchVersion(::configstore::Object *switchObj, uint32_t *version);

// A converter's own failure, next to the store's codes.
constexpr int32_t kConverterFailure = -1;
// A damaged or out-of-range property value refused by a converter.
constexpr int32_t kConverterBadValue = static_cast<int32_t>(STATUS_BAD_PARAM);

// On load, a value the store does not have (not found) is no property and
// no failure.
inline int32_t AbsentIsSuccess(int32_t rc) {
   return rc == ::configstore::kNotFound ? ::configstore::kSuccess : rc;
}

// Deletes every instance of the sub-object key of obj, so that a list is
// written afresh; a key without instances is no failure.
int32_t DeleteInstances(::configstore::Object *obj, const char *key);

// Adds or replaces the rebuilt property (DVSData_Update); returns its
// status unchanged.
int32_t UpdateProp(DVSDataHandle props, const char *propName, const void *data, uint32_t len,
                   uint64_t propFlag);

// Index of text in a null-terminated enumeration table, after any null
// entries at its head (numbers without a text); -1 when the closing null
// comes first.  Exact, case-sensitive comparison.
constexpr int32_t kSchemaLeadingNullsMax = 8;
int32_t LookupSchemaIndex(const char *text, const char *const *table);

// Writes value (valueLen bytes) as the text value key of obj.  A value
// whose bytes hold no NUL (a damaged property) is written up to its end.
int32_t SetValueText(::configstore::Object *obj, const char *key, const void *value,
                     uint32_t valueLen);

// The scalar and list converters (scalar_converters.cc).
int32_t SaveUint32(::configstore::Object *, const char *, const void *, uint32_t,
                   const ConvertContext &);
int32_t LoadUint32(::configstore::Object *, const char *, DVSDataHandle, const char *, uint64_t,
                   const ConvertContext &);
int32_t SaveString(::configstore::Object *, const char *, const void *, uint32_t,
                   const ConvertContext &);
int32_t LoadString(::configstore::Object *, const char *, DVSDataHandle, const char *, uint64_t,
                   const ConvertContext &);
int32_t SaveInt32(::configstore::Object *, const char *, const void *, uint32_t,
                  const ConvertContext &);
int32_t LoadInt32(::configstore::Object *, const char *, DVSDataHandle, const char *, uint64_t,
                  const ConvertContext &);
int32_t SaveBoolByte(::configstore::Object *, const char *, const void *, uint32_t,
                     const ConvertContext &);
int32_t LoadBoolByte(::configstore::Object *, const char *, DVSDataHandle, const char *, uint64_t,
                     const ConvertContext &);
int32_t SaveBoolText(::configstore::Object *, const char *, const void *, uint32_t,
                     const ConvertContext &);
int32_t LoadBoolText(::configstore::Object *, const char *, DVSDataHandle, const char *, uint64_t,
                     const ConvertContext &);
int32_t SaveIpv4Address(::configstore::Object *, const char *, const void *, uint32_t,
                        const ConvertContext &);
int32_t LoadIpv4Address(::configstore::Object *, const char *, DVSDataHandle, const char *,
                        uint64_t, const ConvertContext &);
int32_t SaveResPoolKeyList(::configstore::Object *, const char *, const void *, uint32_t,
                           const ConvertContext &);
int32_t LoadResPoolKeyList(::configstore::Object *, const char *, DVSDataHandle, const char *,
                           uint64_t, const ConvertContext &);
int32_t SaveUplinkKeyList(::configstore::Object *, const char *, const void *, uint32_t,
                          const ConvertContext &);
int32_t LoadUplinkKeyList(::configstore::Object *, const char *, DVSDataHandle, const char *,
                          uint64_t, const ConvertContext &);
int32_t SaveSwitchVersion(::configstore::Object *, const char *, const void *, uint32_t,
                          const ConvertContext &);
int32_t LoadSwitchVersion(::configstore::Object *, const char *, DVSDataHandle, const char *,
                          uint64_t, const ConvertContext &);
int32_t SaveUplinkNameList(::configstore::Object *, const char *, const void *, uint32_t,
                           const ConvertContext &);
int32_t LoadUplinkNameList(::configstore::Object *, const char *, DVSDataHandle, const char *,
                           uint64_t, const ConvertContext &);
int32_t SaveTxUplink(::configstore::Object *, const char *, const void *, uint32_t,
                     const ConvertContext &);
int32_t LoadTxUplink(::configstore::Object *, const char *, DVSDataHandle, const char *, uint64_t,
                     const ConvertContext &);
int32_t SavePtAllowed(::configstore::Object *, const char *, const void *, uint32_t,
                      const ConvertContext &);
int32_t LoadPtAllowed(::configstore::Object *, const char *, DVSDataHandle, const char *, uint64_t,
                      const ConvertContext &);
int32_t SaveEnabledText(::configstore::Object *, const char *, const void *, uint32_t,
                        const ConvertContext &);
int32_t LoadEnabledText(::configstore::Object *, const char *, DVSDataHandle, const char *,
                        uint64_t, const ConvertContext &);
int32_t SaveSkip(::configstore::Object *, const char *, const void *, uint32_t,
                 const ConvertContext &);
int32_t LoadSkip(::configstore::Object *, const char *, DVSDataHandle, const char *, uint64_t,
                 const ConvertContext &);

// The converters of this library's own structured properties.  The opaque
// data pair serves the catch-all rows of every class, kept apart by
// ctx.propClass (opaque_data_converter.cc).  The resource-pool pair also
// rebuilds a port's pools when the load passes the port property's name
// (respool_converter.cc).  filter_policy_converter.cc has the last pair.
int32_t SaveOpaqueData(::configstore::Object *, const char *, const void *, uint32_t,
                       const ConvertContext &);
int32_t LoadOpaqueData(::configstore::Object *, const char *, DVSDataHandle, const char *, uint64_t,
                       const ConvertContext &);
int32_t SaveResPoolConfig(::configstore::Object *, const char *, const void *, uint32_t,
                          const ConvertContext &);
int32_t LoadResPoolConfig(::configstore::Object *, const char *, DVSDataHandle, const char *,
                          uint64_t, const ConvertContext &);
int32_t SaveFilterPolicy(::configstore::Object *, const char *, const void *, uint32_t,
                         const ConvertContext &);
int32_t LoadFilterPolicy(::configstore::Object *, const char *, DVSDataHandle, const char *,
                         uint64_t, const ConvertContext &);

// Uplink teaming policy and LACP (teaming_converter.cc, lacp_converter.cc)
// The policy code of a store text: the code at the text's position in
// TEAMING_POLICY_ENUM, 0 for an unknown or null text.
uint32_t TeamingPolicyFromSchema(const char *text);
// The position of text in LACP_MODE_2_CAHRS; -1 (with a message) when it
// has none.
int32_t LacpModeFromString(const char *text);
int32_t SaveTeamingEther(::configstore::Object *, const char *, const void *, uint32_t,
                         const ConvertContext &);
int32_t LoadTeamingEther(::configstore::Object *, const char *, DVSDataHandle, const char *,
                         uint64_t, const ConvertContext &);
int32_t SaveTeamingVswitch(::configstore::Object *, const char *, const void *, uint32_t,
                           const ConvertContext &);
int32_t LoadTeamingVswitch(::configstore::Object *, const char *, DVSDataHandle, const char *,
                           uint64_t, const ConvertContext &);
int32_t SaveLacpGroups(::configstore::Object *, const char *, const void *, uint32_t,
                       const ConvertContext &);
int32_t LoadLacpGroups(::configstore::Object *, const char *, DVSDataHandle, const char *, uint64_t,
                       const ConvertContext &);
int32_t SaveLacpPolicy(::configstore::Object *, const char *, const void *, uint32_t,
                       const ConvertContext &);
int32_t LoadLacpPolicy(::configstore::Object *, const char *, DVSDataHandle, const char *, uint64_t,
                       const ConvertContext &);

// IPFIX, link discovery, health checks, port VLAN, shaping and security (monitoring_converters.cc,
// port_policy_converters.cc) The two health-check rows share one key: the property's name
// (ctx.propName on save, the row's name on load) picks the "health_checks" instance.  A value too
// short for its layout, or a number with no store text, is refused with STATUS_BAD_PARAM.
int32_t SaveIpfix(::configstore::Object *, const char *, const void *, uint32_t,
                  const ConvertContext &);
int32_t LoadIpfix(::configstore::Object *, const char *, DVSDataHandle, const char *, uint64_t,
                  const ConvertContext &);
int32_t SaveLinkDiscovery(::configstore::Object *, const char *, const void *, uint32_t,
                          const ConvertContext &);
int32_t LoadLinkDiscovery(::configstore::Object *, const char *, DVSDataHandle, const char *,
                          uint64_t, const ConvertContext &);
int32_t SaveHealthCheck(::configstore::Object *, const char *, const void *, uint32_t,
                        const ConvertContext &);
int32_t LoadHealthCheck(::configstore::Object *, const char *, DVSDataHandle, const char *,
                        uint64_t, const ConvertContext &);
int32_t SaveVlanEther(::configstore::Object *, const char *, const void *, uint32_t,
                      const ConvertContext &);
int32_t LoadVlanEther(::configstore::Object *, const char *, DVSDataHandle, const char *, uint64_t,
                      const ConvertContext &);
int32_t SaveVlanVswitch(::configstore::Object *, const char *, const void *, uint32_t,
                        const ConvertContext &);
int32_t LoadVlanVswitch(::configstore::Object *, const char *, DVSDataHandle, const char *,
                        uint64_t, const ConvertContext &);
int32_t SaveShaping(::configstore::Object *, const char *, const void *, uint32_t,
                    const ConvertContext &);
int32_t LoadShaping(::configstore::Object *, const char *, DVSDataHandle, const char *, uint64_t,
                    const ConvertContext &);
// Both security rows save alike; each load converts only its own class
// family's row.
int32_t SaveSecurity(::configstore::Object *, const char *, const void *, uint32_t,
                     const ConvertContext &);
int32_t LoadSecurityEther(::configstore::Object *, const char *, DVSDataHandle, const char *,
                          uint64_t, const ConvertContext &);
int32_t LoadSecurityVswitch(::configstore::Object *, const char *, DVSDataHandle, const char *,
                            uint64_t, const ConvertContext &);

// Private VLAN map and mirror sessions (pvlan_converter.cc, mirror_converter.cc)
// Both private VLAN rows save alike; the load rebuilds only the row that
// fits the switch's class and version (ctx.source, ctx.version).  The
// mirror sessions' port entries are 52 bytes wide from ctx.version 100 on,
// 36 below.  Damaged values are refused with STATUS_BAD_PARAM.
int32_t SavePvlanMap(::configstore::Object *, const char *, const void *, uint32_t,
                     const ConvertContext &);
int32_t LoadPvlanMap(::configstore::Object *, const char *, DVSDataHandle, const char *, uint64_t,
                     const ConvertContext &);
// 1 with *type set for a text of PVLAN_2_CHARS, else 0 after a message.
int32_t PvlanTypeFromString(const char *text, uint8_t *type);
int32_t SaveMirrorSessions(::configstore::Object *, const char *, const void *, uint32_t,
                           const ConvertContext &);
int32_t LoadMirrorSessions(::configstore::Object *, const char *, DVSDataHandle, const char *,
                           uint64_t, const ConvertContext &);

}  // namespace dvs::configstore

#endif  // DVS_CONFIGSTORE_CONVERTERS_H
