// Reading a blob in place: the checks that the list reader makes, and a
// walk over the records of a blob that passed them, without building a
// list.  The configuration-blob reader uses these for the outer levels of
// its nested blobs, whose records it only passes on.
#ifndef DVS_DATA_BLOB_VIEW_H
#define DVS_DATA_BLOB_VIEW_H

#include <dvsdata.h>

#include <cstddef>
#include <cstdint>

#include "data/record_layout.h"

namespace dvs::data {

// One record of a checked blob; name and data point into the blob.
struct RecordView {
   const char *name;
   uint32_t flag;
   uint32_t dataLen;
   const uint8_t *data;
};

// Everything that DVSData_Deserialize checks before and while it reads the
// records (lengths, version, checksum, every record's bounds), with the
// same messages and statuses, in the same order.
ReturnStatus CheckBlob(const void *blob, uint32_t len);

class NestedSums;
// CheckBlob that takes the checksum with *sums (see nested_sums.h), which
// then tells the checksums of the blobs nested in this one; NO_MEMORY
// when there was no memory for them.
ReturnStatus CheckBlobTakingSums(const void *blob, uint32_t len, NestedSums *sums);
// CheckBlob of a blob whose words sum to *wordSum (null: not known), as
// NestedSums finds it for a nested blob.
ReturnStatus CheckBlobWithWordSum(const void *blob, uint32_t len, const uint32_t *wordSum);

// DVSData_DeserializeWithPropType of a blob whose words sum to *wordSum
// (null: not known).
ReturnStatus DeserializeList(DVSDataHandle *h, const void *blob, uint32_t len,
                             DVSDataAllocFn allocFn, DVSDataFreeFn freeFn, uint32_t typeMask,
                             const uint32_t *wordSum);

// Calls visit(record) for each record of a blob that CheckBlob accepted
// whose flag shares a bit with typeMask, in blob order, until visit
// returns a status other than STATUS_OK, which is returned.
template <typename Visit>
ReturnStatus ForEachCheckedRecord(const void *blob, uint32_t typeMask, Visit visit) {
   const auto *p = static_cast<const uint8_t *>(blob) + DVSDATA_HEADER_SIZE;
   // CheckBlob walked these same records to a zero length: every record
   // lies inside the blob and its value inside the record.
   for (uint32_t serialLen = LoadU32(p); serialLen != 0; p += serialLen, serialLen = LoadU32(p)) {
      const RecordView rec{reinterpret_cast<const char *>(p + kRecordNameOffset),
                           LoadU32(p + kRecordFlagOffset), LoadU32(p + kRecordDataLenOffset),
                           p + kRecordDataOffset};
      if ((rec.flag & typeMask) == 0) {
         continue;
      }
      if (ReturnStatus status = visit(rec); status != STATUS_OK) {
         return status;
      }
   }
   return STATUS_OK;
}

}  // namespace dvs::data

#endif  // DVS_DATA_BLOB_VIEW_H
