// The switch objects a save run reads from the store before it writes: the
// run deletes at the end those whose switch is gone, and each switch save
// takes its own object from them instead of reading it a second time.
#ifndef DVS_CONFIGSTORE_EXISTING_OBJECTS_H
#define DVS_CONFIGSTORE_EXISTING_OBJECTS_H

#include <cstdint>

// The store client's handles (configstore.h).
namespace configstore {
struct Object;
struct Store;
}  // namespace configstore

namespace dvs::configstore {

class ExistingObjects {
  public:
   // What Take knows of a switch's object.
   enum class Found {
      kTaken,    // handed over
      kAbsent,   // every object was collected and none is the switch's
      kUnknown,  // not collected here: the caller reads the store
   };

   ExistingObjects() = default;
   ExistingObjects(const ExistingObjects &) = delete;
   ExistingObjects &operator=(const ExistingObjects &) = delete;
   ~ExistingObjects();

   // The object of swId, when the store has one.  Returns 0 or the code of
   // a failed read: a run that cannot tell which objects exist must not
   // commit, or it would leave a stale one behind.
   int32_t CollectOne(::configstore::Store *store, const char *swId);
   // Every switch object, without the sub-objects of the keys whose every
   // instance a switch save deletes before writing (read and checked, but
   // not kept); 0 or the code of the failed read.
   int32_t CollectAll(::configstore::Store *store);

   // Hands the collected object whose instance id is swId to the caller
   // (kTaken, *out set), who destroys it.  *out is null otherwise.
   Found Take(const char *swId, ::configstore::Object **out);

   // Deletes the objects whose "uuid", as collected, names no switch of the
   // registry; an object without one is left alone.  0 or the first
   // failure's code, a failed read of "uuid" included.
   int32_t DeleteStale(::configstore::Store *store) const;

  private:
   struct Entry {
      ::configstore::Object *object;  // null once taken
      char *id;                       // instance id; null when it could not be read
      char *uuid;                     // the "uuid" text when uuidRc is 0
      int32_t uuidRc;                 // what reading "uuid" answered
   };

   // Takes over count objects (not the array holding them) and notes the
   // instance id and "uuid" of each.  0, or 2 when the notes cannot be
   // allocated (the objects are destroyed then).
   int32_t Remember(::configstore::Object *const *objects, uint32_t count);

   Entry *entries_ = nullptr;
   uint32_t count_ = 0;
   uint32_t next_ = 0;      // where Take starts looking: saves follow store order
   bool complete_ = false;  // every switch object collected, each id known
};

}  // namespace dvs::configstore

#endif  // DVS_CONFIGSTORE_EXISTING_OBJECTS_H
