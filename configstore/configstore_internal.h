// Internals of the configuration-store mapping shared between its files.
#ifndef DVS_CONFIGSTORE_CONFIGSTORE_INTERNAL_H
#define DVS_CONFIGSTORE_CONFIGSTORE_INTERNAL_H

#include <dvsconfigstore.h>
#include <dvsdata.h>
#include <dvsstate.h>

#include <cstdint>

#include "common/debug_log.h"

#include "configstore/converters.h"
#include "configstore/store_calls.h"

// The store client's handles (configstore.h).
namespace configstore {
struct Object;
struct Store;
}  // namespace configstore

// Messages of this module: failures print at dvsconfigstore_debug 0 or
// more, progress lines above 0.
#define CONFIGSTORE_FAIL(...) ::dvs::DebugLog(dvsconfigstore_debug, 0, __VA_ARGS__)
#define CONFIGSTORE_PROGRESS(...) ::dvs::DebugLog(dvsconfigstore_debug, 1, __VA_ARGS__)

namespace dvs::data {
class ScratchListMemory;
}  // namespace dvs::data

namespace dvs::configstore {

// The row the save uses for propName in a class's table: the first row
// with that exact name, else the class's catch-all row.
const PropConfigMapEntry *FindConfigMapEntry(uint32_t propClass, const char *propName);

// Fetches the sub-object key/instanceId of parent (instanceId null: the
// store's default), creating it when it is absent and create is set.  *out
// is null unless the result is 0.  Store codes are returned unchanged; 6
// when the sub-object is absent and create is not set.
int32_t GetOrCreateSubObject(bool create, ::configstore::Object *parent, const char *key,
                             const char *instanceId, ::configstore::Object **out);

// Walks the first depth - 1 components of path from start and stores the
// object that holds the value in *out (start itself for depth 0 or 1).  On
// a non-zero store code *out is left as it was.  The sub-objects belong to
// start's root object and are released with it.
int32_t WalkConfigPath(const char (*path)[PROP_CONFIG_NAME_MAX], uint32_t depth,
                       ::configstore::Object *start, bool create, ::configstore::Object **out);

// ---- module state -------------------------------------------------------
// Converters read none of this: all they need comes in their
// ConvertContext, filled once per switch by the save or load.  What runs
// still share is only this module state, written without a lock:
// gSwitchClassKind (written as each switch's save or load starts) and
// gIsZltSwitch (as each switch's save starts), which keep the values of the
// last switch saved or loaded, the save's time counter gConfigStoreTimeMs
// and the load's out-of-memory note gStoreOutOfMemory (store_calls.h).  A
// load that overlaps another run may thus report running out of memory for
// a read of the other run.
//
// Kind (kClassKind*) of the switch saved or loaded last.
extern uint32_t gSwitchClassKind;
// Whether the switch saved last has a version of the overlay family (100
// and up).
extern bool gIsZltSwitch;
// Milliseconds spent in store calls during the current save.
extern int64_t gConfigStoreTimeMs;

// The size of the host blob last loaded or saved, and from it the size a
// load starts its host blob at: a host saves and loads much the same
// switches each time, so the blob is written into a buffer of about its
// size from the start instead of one grown as it fills (growing maps fresh
// memory).  The same size from one load to the next also lets the C
// library hand the block the caller freed to the next load.  Kept without
// a lock; a stale value only costs a grown or a trimmed buffer.
void NoteLoadedHostBlobSize(uint32_t len);
void NoteSavedHostBlobSize(uint32_t len);
uint32_t HostBlobSizeHint();

// The kClassKind* of a switch class name.
uint32_t SwitchClassKind(const char *className);
// The monotonic clock in milliseconds.
int64_t MonotonicMs();

// Status of this library's own failures, next to the store's codes.
constexpr int32_t kConfigStoreOwnFailure = -1;

// Store coordinates of a switch object.
constexpr const char *kSwitchGroup = "switches";
constexpr const char *kSwitchObject = "network_tds";
constexpr const char *kSwitchComponent = "node";

// ---- save -----------------------------------------------------------------
class ExistingObjects;

// Shared by the per-switch saves of one run.
struct ConfigSaveCtx {
   int32_t status;  // 0, or the first failure's code
   ::configstore::Store *store;
   // The switch objects the run read before the saves (may be null): a
   // switch save takes its object from them rather than reading it again.
   ExistingObjects *existing;
};

// Writes one property of class propClass onto obj through its map row and
// converter.  Returns the store's code or -1.
// switchCtx holds the switch's version, class kind and store object.
int32_t SaveConfigProp(::configstore::Object *obj, const char *name, const void *value,
                       uint32_t valueLen, uint32_t propClass, const ConvertContext &switchCtx);

// Fetches the store object of switch swId, clearing the keys and sub-objects
// a previous save may have left, or creates an empty one.  The object is
// taken from existing (may be null) when collected there, else read from
// store.  Returns 0 or the store's code (nothing printed).
int32_t GetOrCreateSwitchObject(::configstore::Store *store, ExistingObjects *existing,
                                const char *swId, ::configstore::Object **out);

// The store object of dvs for a switch save (GetOrCreateSwitchObject).  On
// failure prints why, sets the run's status to -1 and returns false.
bool OpenSwitchObject(ConfigSaveCtx *ctx, DVSwitch *dvs, ::configstore::Object **obj);

// Ends the save of dvs with result rc: releases obj and records rc in the
// run's status; a failure is printed.  Returns true when the walk over the
// switches is to stop.
bool FinishSwitchSave(ConfigSaveCtx *ctx, DVSwitch *dvs, ::configstore::Object *obj, int32_t rc);

// Writes "max_ports", "name" (the alias, else the id) and "uuid" of dvs on
// obj; "SaveDVS: <name>" is printed at messageLevel.  Returns 0 or the code
// of the first write that failed (a switch object without its identity
// must not be stored).
int32_t WriteSwitchIdentity(::configstore::Object *obj, DVSwitch *dvs, int32_t messageLevel);

// DVSState_SwitchForEach callbacks over a ConfigSaveCtx; true stops the walk.
bool SaveSwitchToConfigStore(DVSwitch *dvs, void *ctx);
bool SaveSwitchIdentityToConfigStore(DVSwitch *dvs, void *ctx);

// ---- load -----------------------------------------------------------------
// Where the load puts each property list it builds: serialized into a
// switch's list, or written straight into the host blob.
class LoadedListDest {
  public:
   virtual ~LoadedListDest() = default;
   // Adds the blob of list, serialized with version, under name with flag;
   // nameIsNew: the caller knows that no entry is named so yet.
   virtual ReturnStatus Add(const char *name, uint32_t flag, DVSDataHandle list, uint32_t version,
                            bool nameIsNew) = 0;
};

// Into a property list, as DVSData_Update adds to it.
class IntoPropList : public LoadedListDest {
  public:
   explicit IntoPropList(DVSDataHandle list) : list_(list) {}
   ReturnStatus Add(const char *name, uint32_t flag, DVSDataHandle list, uint32_t version,
                    bool nameIsNew) override;

  private:
   DVSDataHandle list_;
};

// Builds the property list of class propClass from src and adds it,
// serialized with the switch's version, to dest under listName.  switchCtx
// holds the switch's version and class kind.  resMgmt (may be null) is the
// switch's "resource_management" object, given for uplink ports.
// nameIsNew: the caller knows that dest holds no entry named listName.
// scratch (may be null): the list is built in that memory, which is reset
// once the list is in dest.
int32_t LoadConfigProps(const char *listName, ::configstore::Object *src, LoadedListDest *dest,
                        uint32_t propClass, const ConvertContext &switchCtx,
                        ::configstore::Object *resMgmt, bool nameIsNew = false,
                        ::dvs::data::ScratchListMemory *scratch = nullptr);
// The same into the property list dest, as DVSData_Update adds to it.
int32_t LoadConfigProps(const char *listName, ::configstore::Object *src, DVSDataHandle dest,
                        uint32_t propClass, const ConvertContext &switchCtx,
                        ::configstore::Object *resMgmt, bool nameIsNew = false);

}  // namespace dvs::configstore

#endif  // DVS_CONFIGSTORE_CONFIGSTORE_INTERNAL_H
