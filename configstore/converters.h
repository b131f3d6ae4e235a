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

namespace dvs::configstore {

// Save direction: writes the property value (value, valueLen bytes) under
// key on obj, the object found by walking the row's path.  Returns the
// store's code, or -1 for a failure of the converter's own.
using SaveConverterFn = int32_t (*)(::configstore::Object *obj, const char *key, const void *value,
                                    uint32_t valueLen);

// Load direction: reads key on obj and adds the rebuilt property to props
// under propName with flag propFlag (DVSData_Update).  A value the store
// does not have adds nothing and returns 0.  Returns the store's code, or
// -1 for a failure of the converter's own.  The switch version converter
// is the exception on obj: it is given the switch object, whose "product"
// sub-object and "zlt_enabled" value it reads.
using LoadConverterFn = int32_t (*)(::configstore::Object *obj, const char *key,
                                    DVSDataHandle props, const char *propName, uint64_t propFlag);

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

// The scalar and list converters (scalar_converters.cc).
int32_t SaveUint32(::configstore::Object *, const char *, const void *, uint32_t);
int32_t LoadUint32(::configstore::Object *, const char *, DVSDataHandle, const char *, uint64_t);
int32_t SaveString(::configstore::Object *, const char *, const void *, uint32_t);
int32_t LoadString(::configstore::Object *, const char *, DVSDataHandle, const char *, uint64_t);
int32_t SaveInt32(::configstore::Object *, const char *, const void *, uint32_t);
int32_t LoadInt32(::configstore::Object *, const char *, DVSDataHandle, const char *, uint64_t);
int32_t SaveBoolByte(::configstore::Object *, const char *, const void *, uint32_t);
int32_t LoadBoolByte(::configstore::Object *, const char *, DVSDataHandle, const char *, uint64_t);
int32_t SaveBoolText(::configstore::Object *, const char *, const void *, uint32_t);
int32_t LoadBoolText(::configstore::Object *, const char *, DVSDataHandle, const char *, uint64_t);
int32_t SaveIpv4Address(::configstore::Object *, const char *, const void *, uint32_t);
int32_t LoadIpv4Address(::configstore::Object *, const char *, DVSDataHandle, const char *,
                        uint64_t);
int32_t SaveResPoolKeyList(::configstore::Object *, const char *, const void *, uint32_t);
int32_t LoadResPoolKeyList(::configstore::Object *, const char *, DVSDataHandle, const char *,
                           uint64_t);
int32_t SaveUplinkKeyList(::configstore::Object *, const char *, const void *, uint32_t);
int32_t LoadUplinkKeyList(::configstore::Object *, const char *, DVSDataHandle, const char *,
                          uint64_t);
int32_t SaveSwitchVersion(::configstore::Object *, const char *, const void *, uint32_t);
int32_t LoadSwitchVersion(::configstore::Object *, const char *, DVSDataHandle, const char *,
                          uint64_t);
int32_t SaveUplinkNameList(::configstore::Object *, const char *, const void *, uint32_t);
int32_t LoadUplinkNameList(::configstore::Object *, const char *, DVSDataHandle, const char *,
                           uint64_t);
int32_t SaveTxUplink(::configstore::Object *, const char *, const void *, uint32_t);
int32_t LoadTxUplink(::configstore::Object *, const char *, DVSDataHandle, const char *, uint64_t);
int32_t SavePtAllowed(::configstore::Object *, const char *, const void *, uint32_t);
int32_t LoadPtAllowed(::configstore::Object *, const char *, DVSDataHandle, const char *, uint64_t);
int32_t SaveEnabledText(::configstore::Object *, const char *, const void *, uint32_t);
int32_t LoadEnabledText(::configstore::Object *, const char *, DVSDataHandle, const char *,
                        uint64_t);
int32_t SaveSkip(::configstore::Object *, const char *, const void *, uint32_t);
int32_t LoadSkip(::configstore::Object *, const char *, DVSDataHandle, const char *, uint64_t);

}  // namespace dvs::configstore

#endif  // DVS_CONFIGSTORE_CONVERTERS_H
