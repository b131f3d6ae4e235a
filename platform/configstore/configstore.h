// configstore.h -- client library of the host's configuration store.
//
// The store holds structured objects: a top-level object is identified by
// (group, object, component, instance id) and carries typed values (string,
// integer, boolean, list of strings, list of integers) and sub-objects that
// nest to any depth.  A sub-object key holds either a singleton (instance
// id null or "") or a collection of instances keyed by instance id, kept in
// the order they were created.  Objects are kept in an SQLite database
// (CONFIGSTORE_PATH, else /var/lib/ostrel/configstore.db) with real
// transactions; each GetStore is a connection of its own (see DestroyStore).
//
// CONFIGSTORE_URL=etcd://HOST:PORT[,HOST:PORT...]/PREFIX keeps them in an
// etcd cluster instead, under the host namespace CONFIGSTORE_HOST (else the
// machine's host name), so that one cluster holds many hosts side by side.
// Both variables are read at every GetStore.  A transaction is then
// committed as one etcd transaction: every write of it or none.  A commit
// that another store's commit overtook on the same objects answers kBusy
// and writes nothing; one past the server's size limits answers kTooLarge.
//
// Every call returns 0 on success, kNotFound (6) when what was asked for
// does not exist, and one of the other codes below for any other failure.
// Strings, instance ids and object arrays handed out are malloc'ed and
// released by the caller with free() (the objects of an array are destroyed
// one by one first); string arrays are released with
// DestroyStringArrayValue.  Sub-object handles belong to their root object
// and are released with it.
//
// SetValueEmptyList also empties the sub-object key of the same name: every
// sub-object under it goes at once, with everything below it.  A handle to
// a sub-object that is gone (DeleteSubObject, DeleteSubObjectInstances,
// SetValueEmptyList on its key, or any of these on an ancestor) stays
// valid memory until its root is destroyed, but every call on it answers
// kNotFound and reaches nothing.
#ifndef CONFIGSTORE_H
#define CONFIGSTORE_H

#include <cstddef>
#include <cstdint>

#if defined(CONFIGSTORE_BUILDING_LIBRARY)
#define CONFIGSTORE_EXPORT __attribute__((visibility("default")))
#else
#define CONFIGSTORE_EXPORT
#endif

namespace configstore {

// Result codes.
constexpr int32_t kSuccess = 0;
constexpr int32_t kBadParam = 1;       // null pointer, empty key or name, bad source
constexpr int32_t kNoMemory = 2;       // allocation failed
constexpr int32_t kTypeMismatch = 3;   // value of another kind, or integer out of range
constexpr int32_t kBadJson = 4;        // malformed JSON text or stored document
constexpr int32_t kDatabaseError = 5;  // the database could not be opened, read or written
constexpr int32_t kNotFound = 6;       // no such object, sub-object or value
constexpr int32_t kBusy = 7;           // the database stayed locked past the busy timeout
constexpr int32_t kNoTransaction = 8;  // commit or cancel without a transaction
constexpr int32_t kInTransaction = 9;  // begin while a transaction is open
constexpr int32_t kCorrupt = 10;       // the database file is damaged or not a store
constexpr int32_t kUnreachable = 11;   // no server of the cluster answered in time; a
                                       // commit answering this may or may not have applied
constexpr int32_t kTooLarge = 12;      // a commit over the server's size or operation limits
constexpr int32_t kBadUrl = 13;        // CONFIGSTORE_URL is not a location the store can use

// The name of a result code as this header spells it ("kCorrupt") and
// what it means ("the database file is damaged or not a store"), for
// messages.  A code the store does not define gets "unknown" and a text
// saying so.  Both are static strings, never null.
CONFIGSTORE_EXPORT const char *StatusName(int32_t code);
CONFIGSTORE_EXPORT const char *StatusText(int32_t code);

// Environment variable naming the database file, and the default path.
constexpr const char *kPathEnv = "CONFIGSTORE_PATH";
constexpr const char *kDefaultPath = "/var/lib/ostrel/configstore.db";
// Environment variables selecting a replicated store and its host namespace.
constexpr const char *kUrlEnv = "CONFIGSTORE_URL";
constexpr const char *kHostEnv = "CONFIGSTORE_HOST";

// Sources of Set: the live object, and the desired user configuration.
constexpr const char *kSourceExternal = "EXTERNAL";
constexpr const char *kSourceUser = "USER";

struct Store;
struct Object;
struct FilterSpec;

CONFIGSTORE_EXPORT int32_t GetStore(int32_t flags, Store **store);
CONFIGSTORE_EXPORT int32_t BeginTransaction(Store *store);
CONFIGSTORE_EXPORT int32_t CommitTransaction(Store *store);
CONFIGSTORE_EXPORT int32_t CancelTransaction(Store *store);
// A store destroyed outside a transaction leaves its database connection
// open for the next GetStore of the same file in this process (a few at
// most), which then skips opening one.  A connection is used again only
// while its files are the ones it left; one whose file was removed,
// replaced or rewritten meanwhile is closed without writing to it.  While
// connections are idle the latest commits may still sit in the file's
// journal (the -wal file beside it), as with any open connection: copy the
// database with SQLite's backup, or call CloseIdleStores first, which
// closes them (as does the process's exit), moving the journal into the
// file.
CONFIGSTORE_EXPORT void DestroyStore(Store *store);
CONFIGSTORE_EXPORT void CloseIdleStores();

CONFIGSTORE_EXPORT int32_t Get(Store *store, const char *group, const char *object,
                               const char *component, const char *instanceId, Object **out);
CONFIGSTORE_EXPORT int32_t CreateObject(const char *group, const char *object,
                                        const char *component, const char *instanceId,
                                        const char *json, Object **out);
CONFIGSTORE_EXPORT int32_t Set(Store *store, Object *obj, const char *source);
CONFIGSTORE_EXPORT int32_t Delete(Store *store, const char *group, const char *object,
                                  const char *component, const char *instanceId);
CONFIGSTORE_EXPORT void DestroyConfigStoreObject(Object *obj);

CONFIGSTORE_EXPORT int32_t CreateFilterSpecObject(const char *a, const char *b, const char *c,
                                                  const char *d, FilterSpec **out);
CONFIGSTORE_EXPORT void DestroyFilterSpecObject(FilterSpec *filter);
CONFIGSTORE_EXPORT int32_t GetInstances(Store *store, FilterSpec *filter, Object ***objects,
                                        uint32_t *count);
// GetInstances for objects about to be rewritten: the sub-objects under
// the top-level keys of dropKeys (null-terminated; null for none) are
// read and checked as GetInstances checks them, then left out, as if
// DeleteSubObjectInstances had removed them.
CONFIGSTORE_EXPORT int32_t GetInstancesWithout(Store *store, FilterSpec *filter,
                                               const char *const *dropKeys, Object ***objects,
                                               uint32_t *count);
// GetInstances one instance at a time, in the same order, for a caller
// that can use each before the later ones are read: visit is given each
// object (and destroys it) as soon as it is parsed, while the later ones
// are parsed on another thread.  visit runs on the calling thread.  The
// answer is what GetInstances answers for the same listing: 0, or the code
// of the read, or of the first instance, that fails; in the second case
// visit has had every instance before that one.  A non-zero code from
// visit ends the visits, but every later instance is still read and
// checked, so that the answer stays GetInstances's; visit's code is left
// in *visitRc (0 when it never failed).
typedef int32_t (*InstanceVisitor)(Object *object, void *ctx);
CONFIGSTORE_EXPORT int32_t GetInstancesEach(Store *store, FilterSpec *filter,
                                            InstanceVisitor visit, void *ctx, int32_t *visitRc);
CONFIGSTORE_EXPORT int32_t GetDesiredUserConfigInstances(const char *group, const char *object,
                                                         const char *component, Object ***objects,
                                                         uint32_t *count);
CONFIGSTORE_EXPORT int32_t GetSubObjectInstances(Object *parent, FilterSpec *filter,
                                                 Object ***objects, uint32_t *count);
CONFIGSTORE_EXPORT int32_t DeleteSubObjectInstances(Object *parent, FilterSpec *filter);
CONFIGSTORE_EXPORT int32_t GetSubObject(Object *parent, const char *key, const char *instanceId,
                                        Object **out);
CONFIGSTORE_EXPORT int32_t CreateSubObject(Object *parent, const char *key, const char *instanceId,
                                           Object **out);
CONFIGSTORE_EXPORT int32_t DeleteSubObject(Object *parent, const char *key, const char *instanceId);
CONFIGSTORE_EXPORT int32_t GenerateInstanceId(char **id);

CONFIGSTORE_EXPORT int32_t GetValueStr(Object *obj, const char *key, char **value);
// GetValueStr without a copy: *value points at the text inside the object
// (NUL-terminated, *len bytes before the NUL), valid until the object, or
// the top-level object it belongs to, is changed or destroyed.
CONFIGSTORE_EXPORT int32_t GetValueStrRef(Object *obj, const char *key, const char **value,
                                          size_t *len);
CONFIGSTORE_EXPORT int32_t GetValueInt(Object *obj, const char *key, int32_t *value);
CONFIGSTORE_EXPORT int32_t GetValueUint32(Object *obj, const char *key, uint32_t *value);
CONFIGSTORE_EXPORT int32_t GetValueUint16(Object *obj, const char *key, uint16_t *value);
CONFIGSTORE_EXPORT int32_t GetValueLong(Object *obj, const char *key, int64_t *value);
CONFIGSTORE_EXPORT int32_t GetValueBool(Object *obj, const char *key, bool *value);
CONFIGSTORE_EXPORT int32_t GetValueStringArray(Object *obj, const char *key, char ***values,
                                               uint32_t *count);
CONFIGSTORE_EXPORT int32_t SetValueStr(Object *obj, const char *key, const char *value);
CONFIGSTORE_EXPORT int32_t SetValueInt(Object *obj, const char *key, int32_t value);
CONFIGSTORE_EXPORT int32_t SetValueUint32(Object *obj, const char *key, uint32_t value);
CONFIGSTORE_EXPORT int32_t SetValueUint16(Object *obj, const char *key, uint16_t value);
CONFIGSTORE_EXPORT int32_t SetValueLong(Object *obj, const char *key, int64_t value);
CONFIGSTORE_EXPORT int32_t SetValueBool(Object *obj, const char *key, bool value);
CONFIGSTORE_EXPORT int32_t SetValueEmptyList(Object *obj, const char *key);
CONFIGSTORE_EXPORT int32_t AppendValueString(Object *obj, const char *key, const char *value);
CONFIGSTORE_EXPORT int32_t AppendValueInt(Object *obj, const char *key, int32_t value);
CONFIGSTORE_EXPORT int32_t RemoveValue(Object *obj, const char *key);
CONFIGSTORE_EXPORT void DestroyStringArrayValue(char **values, uint32_t count);

// The instance id of a top-level object (malloc'ed; "" for a singleton),
// and its document as the store keeps it ({"values": {...},
// "subobjects": {...}}), for tools that show stored objects whatever the
// backend.  kBadParam for a sub-object handle.
CONFIGSTORE_EXPORT int32_t GetInstanceId(Object *obj, char **id);
CONFIGSTORE_EXPORT int32_t GetStoredDocument(Object *obj, char **json);

// The hosts whose objects the store holds (a file store: its own host),
// sorted by name, and when each last committed (seconds since the epoch,
// 0 when unknown).  Release with DestroyHostList.
struct HostInfo {
   char *name;
   int64_t savedAt;
};
CONFIGSTORE_EXPORT int32_t GetHosts(Store *store, HostInfo **hosts, uint32_t *count);
CONFIGSTORE_EXPORT void DestroyHostList(HostInfo *hosts, uint32_t count);

}  // namespace configstore

#endif  // CONFIGSTORE_H
