// Internal list operations shared by the list and the blob readers.
#ifndef DVS_DATA_PROPERTY_LIST_H
#define DVS_DATA_PROPERTY_LIST_H

#include <dvsdata.h>

#include <cstddef>

namespace dvs::data {

// First entry whose name matches over the whole name field, with its
// predecessor (null when it is the head).  Null when there is none.
DVSDataEntry *FindEntry(DVSDataHandle h, const char *name, DVSDataEntry **prev);

// DVSData_Append for a name already known to be nameLen (at most 127)
// characters long, as the blob readers have it.
ReturnStatus AppendNamed(DVSDataHandle h, const char *name, size_t nameLen, const void *data,
                         uint32_t dataLen, uint32_t flag);

}  // namespace dvs::data

#endif  // DVS_DATA_PROPERTY_LIST_H
