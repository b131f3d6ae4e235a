// Internal list operations shared by the list and the blob readers.
#ifndef DVS_DATA_PROPERTY_LIST_H
#define DVS_DATA_PROPERTY_LIST_H

#include <dvsdata.h>

namespace dvs::data {

// First entry whose name matches over the whole name field, with its
// predecessor (null when it is the head).  Null when there is none.
DVSDataEntry *FindEntry(DVSDataHandle h, const char *name, DVSDataEntry **prev);

}  // namespace dvs::data

#endif  // DVS_DATA_PROPERTY_LIST_H
