// Internals of the configuration-store mapping shared between its files.
#ifndef DVS_CONFIGSTORE_CONFIGSTORE_INTERNAL_H
#define DVS_CONFIGSTORE_CONFIGSTORE_INTERNAL_H

#include <dvsconfigstore.h>

#include <cstdint>

namespace dvs::configstore {

// The row the save uses for propName in a class's table: the first row
// with that exact name, else the class's catch-all row.
const PropConfigMapEntry *FindConfigMapEntry(uint32_t propClass, const char *propName);

}  // namespace dvs::configstore

#endif  // DVS_CONFIGSTORE_CONFIGSTORE_INTERNAL_H
