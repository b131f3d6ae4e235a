// A list blob built record by record in one growing buffer, for a list
// whose records each hold another list's blob (a host blob of switch
// lists).  It gives the bytes DVSData_Serialize would give for a list
// built with DVSData_Append, without the entries: each nested blob is
// written once, straight into the final buffer.  Names are not checked
// for repeats; callers that need DVSData_Update's replacing of a repeated
// name build a list instead.
#ifndef DVS_DATA_LIST_BLOB_BUILDER_H
#define DVS_DATA_LIST_BLOB_BUILDER_H

#include <dvsdata.h>

#include <cstddef>
#include <cstdint>

namespace dvs::data {

class ListBlobBuilder {
  public:
   ListBlobBuilder() = default;
   ~ListBlobBuilder();
   ListBlobBuilder(const ListBlobBuilder &) = delete;
   ListBlobBuilder &operator=(const ListBlobBuilder &) = delete;

   // Adds a record named `name` (cut to 127 characters) with `flag` whose
   // value is list's blob, with the warning DVSData_Serialize gives for an
   // old `version`.  NO_MEMORY or LIMIT_EXCEEDED leave the blob as it was.
   ReturnStatus AppendList(const char *name, uint32_t flag, DVSDataHandle list, uint32_t version);

   // Seals the blob and hands it over: *blob is released with free().
   // The builder is empty afterwards.
   ReturnStatus Finish(void **blob, uint32_t *len);

  private:
   // Room for `more` bytes past the records and the end marker.
   bool Reserve(uint64_t more);

   uint8_t *buf_ = nullptr;
   size_t capacity_ = 0;
   uint32_t end_ = DVSDATA_HEADER_SIZE;  // where the next record goes
   uint32_t recordSum_ = 0;              // word sum of the records so far
};

}  // namespace dvs::data

#endif  // DVS_DATA_LIST_BLOB_BUILDER_H
