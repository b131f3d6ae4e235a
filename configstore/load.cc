// Loading switch state from the configuration store: every switch object
// becomes one switch of a host configuration blob.
#include <configstore.h>
#include <hostlibs.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <unordered_set>

#include "configstore/configstore_internal.h"
#include "configstore/converters.h"
#include "data/blob_build.h"
#include "data/blob_stream.h"
#include "data/property_list.h"
#include "data/scratch_list_memory.h"

namespace dvs::configstore {

namespace cs = ::dvs::configstore::store_calls;

namespace {

constexpr uint32_t kLoadedFlag = 0x10;
constexpr uint32_t kHostBlobVersion = 9;

// Releases the text and the objects a load collects.
struct Text {
   char *s = nullptr;
   Text() = default;
   Text(const Text &) = delete;
   Text &operator=(const Text &) = delete;
   ~Text() { std::free(s); }
};

struct ObjectArray {
   cs::Object **objects = nullptr;
   uint32_t count = 0;
   ObjectArray() = default;
   ObjectArray(const ObjectArray &) = delete;
   ObjectArray &operator=(const ObjectArray &) = delete;
   ~ObjectArray() {
      for (uint32_t i = 0; i < count; i++) {
         Release(i);
      }
      std::free(objects);
   }
   // Destroys object i ahead of the rest.
   void Release(uint32_t i) {
      if (objects[i] != nullptr) {
         cs::DestroyConfigStoreObject(objects[i]);
         objects[i] = nullptr;
      }
   }
};

struct PropList {
   DVSDataHandle h = nullptr;
   PropList() = default;
   PropList(const PropList &) = delete;
   PropList &operator=(const PropList &) = delete;
   ~PropList() { DVSData_Free(h); }
   bool Alloc() { return DVSData_Alloc(&h, std::malloc, std::free) == STATUS_OK; }
};

// The names of a list's entries as the list compares them (their first
// 127 characters), so that an entry added under a name known to be new
// spares the list's own search.  Once a name could not be recorded, every
// name counts as possibly taken, which only costs the search.
class EntryNames {
  public:
   EntryNames() = default;
   explicit EntryNames(DVSDataHandle list) {
      for (const DVSDataEntry *e = list->head; e != nullptr; e = e->next) {
         AddIfNew(e->name);
      }
   }

   // Records name; true when no entry had it before.
   bool AddIfNew(const char *name) noexcept {
      if (!complete_) {
         return false;
      }
      try {
         return names_.emplace(name, strnlen(name, DVSDATA_NAME_MAX - 1)).second;
      } catch (...) {
         complete_ = false;
         return false;
      }
   }

  private:
   std::unordered_set<std::string> names_;
   bool complete_ = true;
};

// Where a load puts its switch blobs.  The host list replaces a switch
// whose uuid comes again, as DVSData_Update does.  When every uuid is
// known to be distinct and the list calls would not trace, the host blob
// is written directly instead: the same bytes, each switch blob written
// once, straight into the final buffer.  A switch whose port keys are
// distinct too is written as it loads (OpenSwitch, then each port's list
// as soon as it is built, then CloseSwitch), so that no port's blob is
// kept in a list of the switch's and copied again.
class HostBlobSink {
  public:
   HostBlobSink(bool direct, uint32_t sizeHint) : direct_(direct), stream_(sizeHint) {}

   // False when the host list cannot be made.
   bool Ready() { return direct_ || top_.Alloc(); }

   // Whether a switch may be written as it loads.
   bool Streams() const { return direct_; }

   // Adds the switch list.
   ReturnStatus Add(const char *uuid, PropList *swList, uint32_t version) {
      if (!direct_) {
         return ::dvs::data::UpdateWithListBlob(top_.h, uuid, swList->h, version, kLoadedFlag);
      }
      ::dvs::data::WarnOldVersion(version);
      return stream_.AppendListBlob(uuid, kLoadedFlag, swList->h);
   }

   // Starts the switch blob with the switch's own records, in switchList.
   ReturnStatus OpenSwitch(const char *uuid, DVSDataHandle switchList) {
      return stream_.OpenNested(uuid, kLoadedFlag, switchList);
   }
   // Where the ports of the open switch go.
   LoadedListDest *PortDest() { return &ports_; }
   ReturnStatus CloseSwitch(uint32_t version) {
      ::dvs::data::WarnOldVersion(version);
      return stream_.CloseNested();
   }

   ReturnStatus Finish(void **buf, uint32_t *len) {
      return direct_ ? stream_.Finish(buf, len)
                     : DVSData_Serialize(top_.h, buf, len, kHostBlobVersion);
   }

  private:
   // Each port's list, written into the open switch blob as it comes,
   // with the warning serializing it would give.
   class IntoStream : public LoadedListDest {
     public:
      explicit IntoStream(::dvs::data::BlobStream *stream) : stream_(stream) {}
      ReturnStatus Add(const char *name, uint32_t flag, DVSDataHandle list, uint32_t version,
                       bool /*nameIsNew: always*/) override {
         ::dvs::data::WarnOldVersion(version);
         return stream_->AppendListBlob(name, flag, list);
      }

     private:
      ::dvs::data::BlobStream *stream_;
   };

   bool direct_;
   PropList top_;
   ::dvs::data::BlobStream stream_;
   IntoStream ports_{&stream_};
};

// Whether the host blob can be written directly (see HostBlobSink): every
// switch has a readable uuid, no two alike as list names compare, and the
// list calls would not trace.  Any doubt answers no.
bool CanWriteHostBlobDirectly(const ObjectArray &switches) noexcept {
   if (dvsdata_debug >= 2) {
      return false;
   }
   EntryNames seen;
   for (uint32_t i = 0; i < switches.count; i++) {
      Text uuid;
      if (cs::GetValueStr(switches.objects[i], "uuid", &uuid.s) != cs::kSuccess ||
          !seen.AddIfNew(uuid.s)) {
         return false;
      }
   }
   return true;
}

// The port objects of a switch object, with their "key" values read up
// to the first that cannot be (keyRc).
struct SwitchPorts {
   cs::FilterSpec *filter = nullptr;
   ObjectArray objects;
   cs::Object *resMgmt = nullptr;
   char **uplinkKeys = nullptr;
   uint32_t uplinkKeyCount = 0;
   char **keys = nullptr;  // one per port object; keysRead of them were read
   uint32_t keysRead = 0;
   int32_t keyRc = cs::kSuccess;

   SwitchPorts() = default;
   SwitchPorts(const SwitchPorts &) = delete;
   SwitchPorts &operator=(const SwitchPorts &) = delete;
   ~SwitchPorts() {
      for (uint32_t i = 0; i < keysRead; i++) {
         std::free(keys[i]);
      }
      std::free(keys);
      cs::DestroyStringArrayValue(uplinkKeys, uplinkKeyCount);
      if (filter != nullptr) {
         cs::DestroyFilterSpecObject(filter);
      }
   }

   // Whether every key was read and none is taken by another or by a
   // record of the switch's list.
   bool KeysDistinct(DVSDataHandle switchList) const noexcept {
      if (keyRc != cs::kSuccess) {
         return false;
      }
      EntryNames taken(switchList);
      for (uint32_t i = 0; i < keysRead; i++) {
         if (!taken.AddIfNew(keys[i])) {
            return false;
         }
      }
      return true;
   }
};

// Reads the ports of obj: their objects and keys, the switch's
// "resource_management" object and its "uplink_port_keys".
int32_t CollectPorts(cs::Object *obj, SwitchPorts *ports) {
   int32_t rc = cs::CreateFilterSpecObject("ports", "", "", "", &ports->filter);
   if (rc != cs::kSuccess) {
      ports->filter = nullptr;
      return rc;
   }
   rc = cs::GetSubObjectInstances(obj, ports->filter, &ports->objects.objects,
                                  &ports->objects.count);
   if (cs::GetSubObject(obj, "resource_management", "", &ports->resMgmt) != cs::kSuccess) {
      ports->resMgmt = nullptr;
   }
   if (cs::GetValueStringArray(obj, "uplink_port_keys", &ports->uplinkKeys,
                               &ports->uplinkKeyCount) != cs::kSuccess) {
      ports->uplinkKeys = nullptr;
      ports->uplinkKeyCount = 0;
   }
   if (rc != cs::kSuccess || ports->objects.count == 0) {
      return rc;
   }
   ports->keys = static_cast<char **>(std::calloc(ports->objects.count, sizeof(char *)));
   if (ports->keys == nullptr) {
      return kConfigStoreOwnFailure;
   }
   for (uint32_t i = 0; i < ports->objects.count; i++) {
      ports->keyRc = cs::GetValueStr(ports->objects.objects[i], "key", &ports->keys[i]);
      if (ports->keyRc != cs::kSuccess) {
         ports->keys[i] = nullptr;
         break;
      }
      ports->keysRead = i + 1;
   }
   return cs::kSuccess;
}

// The ports into dest, each under its key; uplink ports (those named by
// the switch's "uplink_port_keys") also get the switch's resource pools.
// Without keysNew, a port key may repeat another or a record already in
// switchList, which then tells which keys are new.
int32_t LoadPorts(const SwitchPorts &ports, LoadedListDest *dest, bool keysNew,
                  DVSDataHandle switchList, const ConvertContext &switchCtx) {
   EntryNames taken;
   if (!keysNew) {
      taken = EntryNames(switchList);
   }
   // Each port's list lives only until it is in dest; the next port's
   // reuses its memory.
   ::dvs::data::ScratchListMemory scratch;
   int32_t rc = cs::kSuccess;
   for (uint32_t i = 0; rc == cs::kSuccess && i < ports.objects.count; i++) {
      if (i == ports.keysRead) {
         rc = ports.keyRc;
         break;
      }
      const char *portKey = ports.keys[i];
      cs::Object *pools =
         ports.uplinkKeyCount >= 1 &&
               StringExistInArray(portKey, ports.uplinkKeys, ports.uplinkKeyCount)
            ? ports.resMgmt
            : nullptr;
      rc = LoadConfigProps(portKey, ports.objects.objects[i], dest, PROP_CLASS_PORT, switchCtx,
                           pools, keysNew || taken.AddIfNew(portKey), &scratch);
   }
   return AbsentIsSuccess(rc);
}

int32_t AppendFlagged(DVSDataHandle list, const char *name, const void *data, uint32_t len) {
   return DVSData_Append(list, name, data, len, kLoadedFlag) == STATUS_OK ? cs::kSuccess
                                                                          : kConfigStoreOwnFailure;
}

// One switch object into the host blob, under its "uuid".
int32_t LoadSwitch(cs::Object *obj, HostBlobSink *host) {
   Text uuid;
   int32_t rc = cs::GetValueStr(obj, "uuid", &uuid.s);
   if (rc != cs::kSuccess) {
      CONFIGSTORE_FAIL("Failed to get uuid, rc: %d\n", static_cast<int>(rc));
      return rc;
   }
   CONFIGSTORE_PROGRESS("Loading switch:%s\n", uuid.s);

   cs::Object *product = nullptr;
   rc = cs::GetSubObject(obj, "product", "", &product);
   if (rc != cs::kSuccess) {
      return rc;
   }
   rc = cs::GetSubObject(obj, "product", nullptr, &product);
   if (rc != cs::kSuccess) {
      CONFIGSTORE_FAIL("Failed to get product obj, rc: %d\n", static_cast<int>(rc));
      return rc;
   }
   Text className;
   rc = cs::GetValueStr(product, "forwarding_class", &className.s);
   if (rc != cs::kSuccess) {
      CONFIGSTORE_FAIL("Failed to get forwarding_class, rc: %d\n", static_cast<int>(rc));
      return rc;
   }
   int32_t maxPorts = 0;
   rc = cs::GetValueInt(obj, "max_ports", &maxPorts);
   if (rc != cs::kSuccess) {
      CONFIGSTORE_FAIL("Failed to get max_ports, rc: %d\n", static_cast<int>(rc));
      return rc;
   }

   PropList swList;
   ReturnStatus listStatus = STATUS_NO_MEMORY;
   if (swList.Alloc()) {
      ConvertContext switchCtx;
      switchCtx.classKind = SwitchClassKind(className.s);
      gSwitchClassKind = switchCtx.classKind;
      uint32_t version = 0;
      rc = ReadSwitchVersion(obj, &version);
      if (rc != cs::kSuccess) {
         return rc;
      }
      switchCtx.version = version;
      const uint32_t classLen = static_cast<uint32_t>(std::strlen(className.s) + 1);
      rc = AppendFlagged(swList.h, DVS_REC_SWITCH_VERSION, &version, sizeof version);
      if (rc == cs::kSuccess) {
         rc = AppendFlagged(swList.h, DVS_REC_CLASS_NAME, className.s, classLen);
      }
      if (rc == cs::kSuccess) {
         rc = AppendFlagged(swList.h, DVS_REC_MAX_PORTS, &maxPorts, sizeof maxPorts);
      }
      if (rc == cs::kSuccess) {
         rc = LoadConfigProps(DVS_REC_GLOBAL_PROPS, obj, swList.h, PROP_CLASS_GLOBAL, switchCtx,
                              nullptr);
         if (rc == cs::kSuccess) {
            rc = LoadConfigProps(DVS_REC_HOST_PROPS, obj, swList.h, PROP_CLASS_HOST, switchCtx,
                                 nullptr);
         }
         SwitchPorts ports;
         if (rc == cs::kSuccess) {
            // A switch object without ports has none to load.
            rc = AbsentIsSuccess(CollectPorts(obj, &ports));
         }
         if (rc != cs::kSuccess) {
            return rc;
         }
         // Written as it loads when no port can replace another's record.
         const bool streamed = host->Streams() && ports.KeysDistinct(swList.h);
         listStatus = streamed ? host->OpenSwitch(uuid.s, swList.h) : STATUS_OK;
         if (listStatus == STATUS_OK) {
            IntoPropList intoList(swList.h);
            rc = LoadPorts(ports, streamed ? host->PortDest() : &intoList, streamed, swList.h,
                           switchCtx);
            if (rc != cs::kSuccess) {
               return rc;
            }
            listStatus =
               streamed ? host->CloseSwitch(version) : host->Add(uuid.s, &swList, version);
         }
         if (listStatus == STATUS_OK) {
            return cs::kSuccess;
         }
      }
   }
   ::dvs::DebugLog(dvsconfigstore_debug, 1, "Load dvs: %s from configstore failed, error: %s\n",
                   uuid.s, HYP_ReturnStatusToString(listStatus));
   return kConfigStoreOwnFailure;
}

// The switch objects to load: the live ones, or the desired ones with the
// port-set name of the live object at the same position.
int32_t CollectSwitchObjects(cs::Store *store, cs::FilterSpec *filter, bool desired,
                             ObjectArray *desiredObjs, ObjectArray *liveObjs) {
   if (desired) {
      int32_t rc = cs::GetDesiredUserConfigInstances(kSwitchGroup, kSwitchObject, kSwitchComponent,
                                                     &desiredObjs->objects, &desiredObjs->count);
      if (rc != cs::kSuccess) {
         CONFIGSTORE_FAIL("Failed to get dvs desired user config instances\n");
         return rc;
      }
   }
   int32_t rc = cs::GetInstances(store, filter, &liveObjs->objects, &liveObjs->count);
   if (rc != cs::kSuccess) {
      CONFIGSTORE_FAIL("Failed to get dvs instances\n");
      return rc;
   }
   if (!desired) {
      return cs::kSuccess;
   }
   if (desiredObjs->count != liveObjs->count) {
      return kConfigStoreOwnFailure;
   }
   // Paired by position, not by uuid: both lists come in creation order.
   for (uint32_t i = 0; i < liveObjs->count; i++) {
      Text portset;
      if (cs::GetValueStr(liveObjs->objects[i], "portset_name", &portset.s) == cs::kSuccess) {
         rc = cs::SetValueStr(desiredObjs->objects[i], "portset_name", portset.s);
         if (rc != cs::kSuccess) {
            return rc;
         }
      }
   }
   return cs::kSuccess;
}

// A load of the live switches that converts each switch as soon as its
// document is parsed, while the later ones are parsed on another thread.
// It gives what the load of a whole listing gives, but messages would come
// in another order (a switch's before the failure of a later document),
// so it runs only while the load and the lists it builds are silent.
bool CanLoadAsRead(bool desired) {
   return !desired && dvsconfigstore_debug < 0 && dvsdata_debug < 0;
}

struct LoadAsRead {
   HostBlobSink host{true, HostBlobSizeHint()};
   EntryNames seen;
   // A switch whose "uuid" cannot be read or repeats an earlier one: the
   // switch blobs written so far may not stand, and the load starts again
   // on the whole listing.
   bool startAgain = false;
};

int32_t LoadSwitchAsRead(cs::Object *obj, void *arg) {
   auto *load = static_cast<LoadAsRead *>(arg);
   int32_t rc = cs::kSuccess;
   {
      Text uuid;
      if (cs::GetValueStr(obj, "uuid", &uuid.s) != cs::kSuccess || !load->seen.AddIfNew(uuid.s)) {
         load->startAgain = true;
         rc = kConfigStoreOwnFailure;
      }
   }
   if (rc == cs::kSuccess) {
      rc = LoadSwitch(obj, &load->host);
   }
   cs::DestroyConfigStoreObject(obj);
   return rc;
}

// The load of the live switches, converted as they are read (see
// CanLoadAsRead).  Sets *startAgain when the switch objects need the load
// of a whole listing.
int32_t LoadLiveAsRead(cs::Store *store, cs::FilterSpec *filter, void **buf, uint32_t *len,
                       bool *startAgain) {
   *startAgain = false;
   const uint32_t classKindBefore = gSwitchClassKind;
   LoadAsRead load;
   int32_t switchRc = cs::kSuccess;
   int32_t rc = cs::GetInstancesEach(store, filter, LoadSwitchAsRead, &load, &switchRc);
   if (rc != cs::kSuccess) {
      // A load that cannot read every switch object converts none.
      gSwitchClassKind = classKindBefore;
      return rc;
   }
   if (load.startAgain) {
      *startAgain = true;
      return cs::kSuccess;
   }
   rc = switchRc;
   if (rc == cs::kSuccess && gStoreOutOfMemory) {
      rc = cs::kNoMemory;
   }
   if (rc == cs::kSuccess) {
      void *out = nullptr;
      uint32_t outLen = 0;
      rc = static_cast<int32_t>(load.host.Finish(&out, &outLen));
      if (rc == cs::kSuccess) {
         NoteLoadedHostBlobSize(outLen);
         *buf = out;
         *len = outLen;
      }
   }
   return rc;
}

int32_t LoadAll(cs::Store *store, void **buf, uint32_t *len, bool desired) {
   gStoreOutOfMemory = false;
   cs::FilterSpec *filter = nullptr;
   int32_t rc =
      cs::CreateFilterSpecObject(kSwitchGroup, kSwitchObject, kSwitchComponent, "", &filter);
   if (rc != cs::kSuccess) {
      return rc;
   }
   if (CanLoadAsRead(desired)) {
      bool startAgain = false;
      rc = LoadLiveAsRead(store, filter, buf, len, &startAgain);
      if (!startAgain) {
         cs::DestroyFilterSpecObject(filter);
         return rc;
      }
      gStoreOutOfMemory = false;
   }
   ObjectArray desiredObjs;
   ObjectArray liveObjs;
   rc = CollectSwitchObjects(store, filter, desired, &desiredObjs, &liveObjs);
   ObjectArray &switches = desired ? desiredObjs : liveObjs;
   HostBlobSink host(rc == cs::kSuccess && CanWriteHostBlobDirectly(switches),
                     HostBlobSizeHint());
   if (rc == cs::kSuccess && !host.Ready()) {
      rc = kConfigStoreOwnFailure;
   }
   for (uint32_t i = 0; rc == cs::kSuccess && i < switches.count; i++) {
      rc = LoadSwitch(switches.objects[i], &host);
      if (rc == cs::kSuccess) {
         // Done with: its memory goes back now, for the next switch's work
         // to reuse while it is still in the cache.
         switches.Release(i);
      } else {
         Text uuid;
         cs::GetValueStr(switches.objects[i], "uuid", &uuid.s);
         CONFIGSTORE_FAIL("Failed to load buf of switch: %s from configstore\n",
                          uuid.s != nullptr ? uuid.s : "(null)");
      }
   }
   // A read that ran out of memory may have been taken for an absent
   // value: the blob would silently lack it.
   if (rc == cs::kSuccess && gStoreOutOfMemory) {
      rc = cs::kNoMemory;
   }
   if (rc == cs::kSuccess) {
      void *out = nullptr;
      uint32_t outLen = 0;
      rc = static_cast<int32_t>(host.Finish(&out, &outLen));
      if (rc == cs::kSuccess) {
         NoteLoadedHostBlobSize(outLen);
         *buf = out;
         *len = outLen;
      }
   }
   cs::DestroyFilterSpecObject(filter);
   return rc;
}

}  // namespace

}  // namespace dvs::configstore

using namespace dvs::configstore;
namespace cs = ::dvs::configstore::store_calls;

extern "C" {

DVS_EXPORT bool StringExistInArray(const char *text, char **array, uint32_t count) {
   if (text == nullptr || array == nullptr || count < 1) {
      return false;
   }
   for (uint32_t i = 0; i < count; i++) {
      if (array[i] != nullptr && std::strcmp(text, array[i]) == 0) {
         return true;
      }
   }
   return false;
}

DVS_EXPORT int32_t DVSState_LoadFromConfigStoreAsBuf(void **buf, uint32_t *len, bool desired) {
   if (buf == nullptr || len == nullptr) {
      return kConfigStoreOwnFailure;
   }
   *buf = nullptr;
   *len = 0;
   cs::Store *store = nullptr;
   const int32_t rc = cs::GetStore(0, &store);
   if (rc != cs::kSuccess || store == nullptr) {
      // A call that succeeds without a store reports 0 and gives no buffer.
      CONFIGSTORE_FAIL("Get store failed\n");
      return rc;
   }
   const int32_t result = LoadAll(store, buf, len, desired);
   cs::DestroyStore(store);
   return result;
}

}  // extern "C"
