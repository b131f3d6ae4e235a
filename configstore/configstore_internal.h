// Internals of the configuration-store mapping shared between its files.
#ifndef DVS_CONFIGSTORE_CONFIGSTORE_INTERNAL_H
#define DVS_CONFIGSTORE_CONFIGSTORE_INTERNAL_H

#include <dvsconfigstore.h>

#include <cstdint>

// The store client's object handle (configstore.h).
namespace configstore {
struct Object;
}  // namespace configstore

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

}  // namespace dvs::configstore

#endif  // DVS_CONFIGSTORE_CONFIGSTORE_INTERNAL_H
