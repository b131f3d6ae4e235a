// The configuration-store client as the mapping code calls it (through the
// alias cs).  Every call passes straight through to ::configstore, except
// that the reads note when they ran out of memory.  The converters take a
// value or sub-object they cannot read for an absent one, which is right
// when the store has none but would silently drop it when memory ran
// short; a load therefore checks the note before it hands out a blob.
#ifndef DVS_CONFIGSTORE_STORE_CALLS_H
#define DVS_CONFIGSTORE_STORE_CALLS_H

#include <configstore.h>

#include <cstdint>

namespace dvs::configstore {

// Set when memory ran out during the current load in a way the load went
// on past: a read taken for an absent value, or a row skipped.
extern bool gStoreOutOfMemory;

namespace store_calls {

using namespace ::configstore;

inline int32_t Noted(int32_t rc) {
   if (rc == kNoMemory) {
      gStoreOutOfMemory = true;
   }
   return rc;
}

inline int32_t GetValueStr(Object *obj, const char *key, char **value) {
   return Noted(::configstore::GetValueStr(obj, key, value));
}
inline int32_t GetValueStrRef(Object *obj, const char *key, const char **value, size_t *len) {
   return Noted(::configstore::GetValueStrRef(obj, key, value, len));
}
inline int32_t GetValueInt(Object *obj, const char *key, int32_t *value) {
   return Noted(::configstore::GetValueInt(obj, key, value));
}
inline int32_t GetValueUint32(Object *obj, const char *key, uint32_t *value) {
   return Noted(::configstore::GetValueUint32(obj, key, value));
}
inline int32_t GetValueUint16(Object *obj, const char *key, uint16_t *value) {
   return Noted(::configstore::GetValueUint16(obj, key, value));
}
inline int32_t GetValueLong(Object *obj, const char *key, int64_t *value) {
   return Noted(::configstore::GetValueLong(obj, key, value));
}
inline int32_t GetValueBool(Object *obj, const char *key, bool *value) {
   return Noted(::configstore::GetValueBool(obj, key, value));
}
inline int32_t GetValueStringArray(Object *obj, const char *key, char ***values, uint32_t *count) {
   return Noted(::configstore::GetValueStringArray(obj, key, values, count));
}
inline int32_t GetSubObject(Object *parent, const char *key, const char *instanceId, Object **out) {
   return Noted(::configstore::GetSubObject(parent, key, instanceId, out));
}
inline int32_t GetSubObjectInstances(Object *parent, FilterSpec *filter, Object ***objects,
                                     uint32_t *count) {
   return Noted(::configstore::GetSubObjectInstances(parent, filter, objects, count));
}
inline int32_t CreateFilterSpecObject(const char *a, const char *b, const char *c, const char *d,
                                      FilterSpec **out) {
   return Noted(::configstore::CreateFilterSpecObject(a, b, c, d, out));
}

}  // namespace store_calls
}  // namespace dvs::configstore

#endif  // DVS_CONFIGSTORE_STORE_CALLS_H
