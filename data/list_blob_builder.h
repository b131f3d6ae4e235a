// A list blob whose records each hold another list's blob (a host blob of
// switch lists), written in one pass once every nested list is known.  It
// gives the bytes DVSData_Serialize would give for a list built with
// DVSData_Append, without the entries: each nested blob is written once,
// straight into a buffer allocated at its exact size.  (Growing the buffer
// as lists came instead copied it at every doubling and, on memory the
// process had given back, faulted its pages in twice.)  Names are not
// checked for repeats; callers that need DVSData_Update's replacing of a
// repeated name build a list instead.
#ifndef DVS_DATA_LIST_BLOB_BUILDER_H
#define DVS_DATA_LIST_BLOB_BUILDER_H

#include <dvsdata.h>

#include <cstddef>
#include <cstdint>
#include <vector>

namespace dvs::data {

class ListBlobBuilder {
  public:
   ListBlobBuilder() = default;
   ~ListBlobBuilder();  // frees the lists it still holds
   ListBlobBuilder(const ListBlobBuilder &) = delete;
   ListBlobBuilder &operator=(const ListBlobBuilder &) = delete;

   // Adds a record named `name` (cut to 127 characters) with `flag` whose
   // value is the blob of *list, with the warning DVSData_Serialize gives
   // for an old `version`.  On success the builder owns the list (and *list
   // is null); it must not change before Finish.  NO_MEMORY or
   // LIMIT_EXCEEDED leave the blob as it was and the list with the caller.
   ReturnStatus AppendList(const char *name, uint32_t flag, DVSDataHandle *list,
                           uint32_t version);

   // Writes the blob and hands it over: *blob is released with free().
   // The builder is empty afterwards, or as it was when this fails.
   ReturnStatus Finish(void **blob, uint32_t *len);

  private:
   struct Record {
      char name[DVSDATA_NAME_MAX];
      uint32_t flag;
      uint32_t size;  // of the nested blob
      DVSDataHandle list;
   };
   void Clear() noexcept;

   std::vector<Record> records_;
   uint32_t length_ = 0;  // of the whole blob so far, header and end marker included
};

}  // namespace dvs::data

#endif  // DVS_DATA_LIST_BLOB_BUILDER_H
