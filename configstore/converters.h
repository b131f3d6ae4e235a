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

// Kind of a switch by its class name (SwitchClassKind): 1 for exactly
// "vswitch", 2 for exactly "cswitch", 0 for any other class.  Some rows
// exist once per family of classes and the load picks one of each pair by
// it.
constexpr uint32_t kClassKindOther = 0;
constexpr uint32_t kClassKindVswitch = 1;
constexpr uint32_t kClassKindCswitch = 2;

// Everything a converter may read beyond its own value; converters keep no
// state of their own.  The save or load of a switch fills the last three
// members once for the switch, and the dispatchers add the first three for
// each row: the class of the table the row came from (the catch-all rows
// of the global and host tables share one converter and one store key),
// the property's own name on save (the row may be the catch-all one) and
// the object the row's path was walked from; for a global or host row
// they also set switchObj to that object, the switch's own.
struct ConvertContext {
   uint32_t propClass = PROP_CLASS_GLOBAL;   // PROP_CLASS_GLOBAL, _HOST or _PORT
   const char *propName = nullptr;           // save: the property's name; load: the row's
   ::configstore::Object *source = nullptr;  // where the path walk started
   // Version number of the switch: on load the one read from its store
   // object, on save the registry's.
   uint32_t version = 0;
   // The switch's store object: set by the save for the port rows too,
   // null for a port row on load.
   ::configstore::Object *switchObj = nullptr;
   uint32_t classKind = kClassKindOther;
};

// Save direction: writes the property value (value, valueLen bytes) under
// key on obj, the object found by walking the row's path.  Returns the
// store's code, or -1 for a failure of the converter's own.
using SaveConverter = int32_t(::configstore::Object *obj, const char *key, const void *value,
                              uint32_t valueLen, const ConvertContext &ctx);

// Load direction: reads key on obj and adds the rebuilt property to props
// under propName with flag propFlag (DVSData_Update).  A value the store
// does not have adds nothing and returns 0.  Returns the store's code, or
// -1 for a failure of the converter's own.  The switch version converter
// reads ctx.source, the switch object, whose "product" sub-object and
// "zlt_enabled" value hold the version.
using LoadConverter = int32_t(::configstore::Object *obj, const char *key, DVSDataHandle props,
                              const char *propName, uint64_t propFlag, const ConvertContext &ctx);

using SaveConverterFn = SaveConverter *;
using LoadConverterFn = LoadConverter *;

struct PropConverter {
   SaveConverterFn save;
   LoadConverterFn load;
};

// Indexed by converter type; an entry whose functions are null has no
// converter, and the dispatchers treat it as an unknown type.
extern const PropConverter kPropConverters[PROP_CONV_END];

// The converter of convType, or null when there is none (30, 37 and up).
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
SaveConverter SaveUint32, SaveString, SaveInt32, SaveBoolByte, SaveBoolText, SaveIpv4Address,
   SaveResPoolKeyList, SaveUplinkKeyList, SaveSwitchVersion, SaveUplinkNameList, SaveTxUplink,
   SavePtAllowed, SaveEnabledText, SaveSkip;
LoadConverter LoadUint32, LoadString, LoadInt32, LoadBoolByte, LoadBoolText, LoadIpv4Address,
   LoadResPoolKeyList, LoadUplinkKeyList, LoadSwitchVersion, LoadUplinkNameList, LoadTxUplink,
   LoadPtAllowed, LoadEnabledText, LoadSkip;

// The converters of this library's own structured properties.  The opaque
// data pair serves the catch-all rows of every class, kept apart by
// ctx.propClass (opaque_data_converter.cc).  The resource-pool pair also
// rebuilds a port's pools when the load passes the port property's name
// (respool_converter.cc).  filter_policy_converter.cc has the last pair.
SaveConverter SaveOpaqueData, SaveResPoolConfig, SaveFilterPolicy;
LoadConverter LoadOpaqueData, LoadResPoolConfig, LoadFilterPolicy;

// Uplink teaming policy and LACP (teaming_converter.cc, lacp_converter.cc).
// The "ether" and "vswitch" rows are kept apart by ctx.classKind.
SaveConverter SaveTeamingEther, SaveTeamingVswitch, SaveLacpGroups, SaveLacpPolicy;
LoadConverter LoadTeamingEther, LoadTeamingVswitch, LoadLacpGroups, LoadLacpPolicy;
// The policy code of a store text: the code at the text's position in
// TEAMING_POLICY_ENUM, 0 for an unknown or null text.
uint32_t TeamingPolicyFromSchema(const char *text);
// The position of text in LACP_MODE_2_CAHRS; -1 (with a message) when it
// has none.
int32_t LacpModeFromString(const char *text);

// IPFIX, link discovery, health checks, port VLAN, shaping and security
// (monitoring_converters.cc, port_policy_converters.cc).  The two
// health-check rows share one key: the property's name (ctx.propName on
// save, the row's name on load) picks the "health_checks" instance.  A
// value too short for its layout, or a number with no store text, is
// refused with STATUS_BAD_PARAM.  Both security rows save alike; each load
// converts only its own class family's row (ctx.classKind), as do the
// VLAN rows.
SaveConverter SaveIpfix, SaveLinkDiscovery, SaveHealthCheck, SaveVlanEther, SaveVlanVswitch,
   SaveShaping, SaveSecurity;
LoadConverter LoadIpfix, LoadLinkDiscovery, LoadHealthCheck, LoadVlanEther, LoadVlanVswitch,
   LoadShaping, LoadSecurityEther, LoadSecurityVswitch;

// Private VLAN map and mirror sessions (pvlan_converter.cc,
// mirror_converter.cc).  Both private VLAN rows save alike; the load
// rebuilds only the row that fits the switch's class and version
// (ctx.source, ctx.version).  The width of the mirror sessions' port
// entries follows ctx.version (MirrorPortEntrySize).  Damaged values are
// refused with STATUS_BAD_PARAM.
SaveConverter SavePvlanMap, SaveMirrorSessions;
LoadConverter LoadPvlanMap, LoadMirrorSessions;
// 1 with *type set for a text of PVLAN_2_CHARS, else 0 after a message.
int32_t PvlanTypeFromString(const char *text, uint8_t *type);

}  // namespace dvs::configstore

#endif  // DVS_CONFIGSTORE_CONVERTERS_H
