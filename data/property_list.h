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

// DVSData_Serialize(list, version) followed by DVSData_Update(h, name,
// blob, flag), with the same result, statuses and traces; a name new to h
// has the blob written straight into its entry instead of being copied
// there from a buffer of its own.  A caller that keeps track of the names
// in h passes nameIsNew to spare the search of h for the name (which
// makes building a list of n entries this way cost n squared).
ReturnStatus UpdateWithListBlob(DVSDataHandle h, const char *name, DVSDataHandle list,
                                uint32_t version, uint32_t flag, bool nameIsNew = false);

}  // namespace dvs::data

#endif  // DVS_DATA_PROPERTY_LIST_H
