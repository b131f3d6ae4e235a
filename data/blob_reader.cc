// Blob readers: rebuild a list from a blob, or fetch one value straight out
// of a blob.  Blobs arrive from the kernel, files and stores and may be
// damaged, so every length is checked against the buffer before it is
// followed: no record, however malformed, makes a reader step outside the
// bytes it was given.
#include <cstring>

#include "data/blob_view.h"
#include "data/data_trace.h"
#include "data/nested_sums.h"
#include "data/property_list.h"
#include "data/record_layout.h"

namespace dvs::data {
namespace {

// One record of a blob, after its fields have been checked to lie inside
// its own length.
struct Record {
   uint32_t serialLen;
   const char *name;
   size_t nameLen;
   uint32_t flag;
   uint32_t dataLen;
   const uint8_t *data;
};

// The header checks shared by both readers, up to (not including) the
// version and checksum tests, whose order differs between them.
ReturnStatus CheckLengths(const uint8_t *blob, uint32_t bufferLen, uint32_t *length) {
   DATA_TRACE(2, "Deserialize data, length = %d\n", static_cast<int>(bufferLen));
   if (bufferLen < DVSDATA_MIN_BLOB_SIZE) {
      DATA_TRACE(0, "bad data: buffer size %d smaller than minimum header size\n",
                 static_cast<int>(bufferLen));
      return STATUS_BAD_PARAM;
   }
   *length = LoadU32(blob + kBlobLengthOffset);
   if (*length < DVSDATA_MIN_BLOB_SIZE) {
      DATA_TRACE(0, "bad data: data size %d in header smaller than minimum header size\n",
                 static_cast<int>(*length));
      return STATUS_BAD_PARAM;
   }
   if (bufferLen < *length) {
      DATA_TRACE(0, "bad data: buffer size %d smaller than size %d in header\n",
                 static_cast<int>(bufferLen), static_cast<int>(*length));
      return STATUS_BAD_PARAM;
   }
   return STATUS_OK;
}

// The checksum a blob should carry: from its known word sum when one is
// given and tells it, else summed afresh.
uint32_t ComputeChecksum(const uint8_t *blob, uint32_t len, const uint32_t *wordSum) {
   uint32_t checksum = 0;
   if (wordSum != nullptr && ChecksumFromWordSum(blob, len, *wordSum, &checksum)) {
      return checksum;
   }
   return DVSDataChecksum(blob);
}

ReturnStatus CheckChecksum(const uint8_t *blob, uint32_t computed) {
   const uint32_t stored = LoadU32(blob + kBlobChecksumOffset);
   if (stored != computed) {
      DATA_TRACE(0, "bad chksum: expected 0x%x, actual 0x%x\n", stored, computed);
      return STATUS_BAD_CHECKSUM;
   }
   return STATUS_OK;
}

uint16_t Version(const uint8_t *blob) {
   return LoadU16(blob + kBlobVersionOffset);
}

// Decodes the record of `serialLen` bytes at `p` (which the caller has
// checked lies inside the blob), refusing records whose own fields would
// run past that length.
ReturnStatus ReadRecord(const uint8_t *p, uint32_t serialLen, Record *rec) {
   if (serialLen < kRecordDataOffset) {
      DATA_TRACE(0, "bad data: record length %u too small for its fields\n", serialLen);
      return STATUS_BAD_PARAM;
   }
   rec->serialLen = serialLen;
   rec->name = reinterpret_cast<const char *>(p + kRecordNameOffset);
   const void *nul = std::memchr(rec->name, '\0', DVSDATA_NAME_MAX);
   if (nul == nullptr) {
      DATA_TRACE(0, "bad data: property name not terminated in record of length %u\n", serialLen);
      return STATUS_BAD_PARAM;
   }
   rec->nameLen = static_cast<size_t>(static_cast<const char *>(nul) - rec->name);
   rec->flag = LoadU32(p + kRecordFlagOffset);
   rec->dataLen = LoadU32(p + kRecordDataLenOffset);
   if (rec->dataLen > serialLen - kRecordDataOffset) {
      DATA_TRACE(0, "bad data: value length %u runs past record of length %u\n", rec->dataLen,
                 serialLen);
      return STATUS_BAD_PARAM;
   }
   rec->data = p + kRecordDataOffset;
   return STATUS_OK;
}

ReturnStatus RecordTooLong(uint32_t serialLen) {
   DATA_TRACE(0, "bad data: data length smaller than data block size %d\n",
              static_cast<int>(serialLen));
   return STATUS_BAD_PARAM;
}

// Walks the records of a checked blob of `length` bytes, calling
// visit(record) for each; visit returns true to stop the walk.  Returns
// STATUS_OK with *stopped telling whether visit stopped it, or the status
// of the first malformed record or failed visit.
template <typename Visit>
ReturnStatus WalkRecords(const uint8_t *blob, uint32_t length, bool *stopped, Visit visit) {
   *stopped = false;
   uint32_t remaining = length - DVSDATA_HEADER_SIZE;
   const uint8_t *p = blob + DVSDATA_HEADER_SIZE;
   uint32_t serialLen = LoadU32(p);
   if (serialLen == 0) {
      return STATUS_OK;
   }
   while (serialLen <= remaining) {
      Record rec;
      if (ReturnStatus status = ReadRecord(p, serialLen, &rec); status != STATUS_OK) {
         return status;
      }
      DATA_TRACE(3, "deserializing %s: %u/%u data/serial bytes %d flag\n", rec.name, rec.dataLen,
                 serialLen, static_cast<int>(rec.flag));
      ReturnStatus status = STATUS_OK;
      if (visit(rec, &status)) {
         *stopped = true;
         return status;
      }
      if (status != STATUS_OK) {
         return status;
      }
      remaining -= serialLen;
      if (remaining < kEndMarkerSize) {
         DATA_TRACE(0, "bad data: not end with 4 (zero) marker bytes\n");
         return STATUS_BAD_PARAM;
      }
      p += serialLen;
      serialLen = LoadU32(p);
      if (serialLen == 0) {
         return STATUS_OK;
      }
   }
   return RecordTooLong(serialLen);
}

// The list reader's checks of the header: lengths, version, checksum.
// checksum(length) gives the checksum the blob should carry; it is asked
// only once the lengths are known to be good.
template <typename Checksum>
ReturnStatus CheckHeader(const uint8_t *bytes, uint32_t len, uint32_t *length, Checksum checksum) {
   if (ReturnStatus status = CheckLengths(bytes, len, length); status != STATUS_OK) {
      return status;
   }
   if (Version(bytes) != DVSDATA_BLOB_VERSION) {
      DATA_TRACE(0, "Bad data: expected header version %d, actual %d\n", DVSDATA_BLOB_VERSION,
                 static_cast<int>(Version(bytes)));
      return STATUS_BAD_PARAM;
   }
   return CheckChecksum(bytes, checksum(*length));
}

// CheckBlob with the checksum given by checksum(length).
template <typename Checksum>
ReturnStatus CheckBlobWith(const void *blob, uint32_t len, Checksum checksum) {
   if (blob == nullptr) {
      return STATUS_BAD_PARAM;
   }
   const auto *bytes = static_cast<const uint8_t *>(blob);
   uint32_t length = 0;
   if (ReturnStatus status = CheckHeader(bytes, len, &length, checksum); status != STATUS_OK) {
      return status;
   }
   bool stopped = false;
   return WalkRecords(bytes, length, &stopped,
                      [](const Record &, ReturnStatus *) { return false; });
}

}  // namespace

ReturnStatus CheckBlob(const void *blob, uint32_t len) {
   return CheckBlobWithWordSum(blob, len, nullptr);
}

ReturnStatus CheckBlobWithWordSum(const void *blob, uint32_t len, const uint32_t *wordSum) {
   const auto *bytes = static_cast<const uint8_t *>(blob);
   return CheckBlobWith(blob, len, [&](uint32_t) { return ComputeChecksum(bytes, len, wordSum); });
}

ReturnStatus CheckBlobTakingSums(const void *blob, uint32_t len, NestedSums *sums) {
   const auto *bytes = static_cast<const uint8_t *>(blob);
   const ReturnStatus status =
      CheckBlobWith(blob, len, [&](uint32_t length) { return sums->Checksum(bytes, length); });
   // A reader that cannot have the sums cannot have the lists it is about
   // to build either: memory is short, and the caller hears it now.
   return sums->OutOfMemory() ? STATUS_NO_MEMORY : status;
}

ReturnStatus DeserializeList(DVSDataHandle *h, const void *blob, uint32_t len,
                             DVSDataAllocFn allocFn, DVSDataFreeFn freeFn, uint32_t typeMask,
                             const uint32_t *wordSum) {
   if (h == nullptr || blob == nullptr || allocFn == nullptr || freeFn == nullptr) {
      return STATUS_BAD_PARAM;
   }
   const auto *bytes = static_cast<const uint8_t *>(blob);
   uint32_t length = 0;
   if (ReturnStatus status = CheckHeader(bytes, len, &length,
                                         [&](uint32_t) {
                                            return ComputeChecksum(bytes, len, wordSum);
                                         });
       status != STATUS_OK) {
      return status;
   }

   // The new list is published only when the whole blob has been read; on
   // failure the caller's handle keeps whatever it held.
   DVSDataHandle list = nullptr;
   if (ReturnStatus status = DVSData_Alloc(&list, allocFn, freeFn); status != STATUS_OK) {
      return status;
   }
   bool stopped = false;
   ReturnStatus status =
      WalkRecords(bytes, length, &stopped, [&](const Record &rec, ReturnStatus *st) {
         if ((rec.flag & typeMask) != 0) {
            *st = AppendNamed(list, rec.name, rec.nameLen, rec.data, rec.dataLen, rec.flag);
         }
         return false;
      });
   if (status != STATUS_OK) {
      DVSData_Free(list);
      return status;
   }
   DATA_TRACE(2, "Deserialize data done, serializeSize = %d\n", static_cast<int>(list->serialSize));
   *h = list;
   return STATUS_OK;
}

}  // namespace dvs::data

using namespace dvs::data;

extern "C" {

DVS_EXPORT ReturnStatus DVSData_Deserialize(DVSDataHandle *h, const void *blob, uint32_t len,
                                            DVSDataAllocFn allocFn, DVSDataFreeFn freeFn) {
   return DVSData_DeserializeWithPropType(h, blob, len, allocFn, freeFn, DVSDATA_DESERIALIZE_MASK);
}

DVS_EXPORT ReturnStatus DVSData_DeserializeWithPropType(DVSDataHandle *h, const void *blob,
                                                        uint32_t len, DVSDataAllocFn allocFn,
                                                        DVSDataFreeFn freeFn, uint32_t typeMask) {
   return DeserializeList(h, blob, len, allocFn, freeFn, typeMask, nullptr);
}

DVS_EXPORT ReturnStatus DVSData_DeserializeGetPropVal(const void *blob, uint32_t len,
                                                      const char *name, void *buf,
                                                      uint32_t bufSize) {
   if (blob == nullptr || name == nullptr || buf == nullptr) {
      return STATUS_BAD_PARAM;
   }
   const auto *bytes = static_cast<const uint8_t *>(blob);
   uint32_t length = 0;
   if (ReturnStatus status = CheckLengths(bytes, len, &length); status != STATUS_OK) {
      return status;
   }
   // This reader tests the checksum before the version, unlike the list
   // reader; callers tell the two failures apart by status.
   if (ReturnStatus status = CheckChecksum(bytes, DVSDataChecksum(bytes)); status != STATUS_OK) {
      return status;
   }
   if (Version(bytes) != DVSDATA_BLOB_VERSION) {
      DATA_TRACE(0, "Unsupported DVS data version %u\n", static_cast<unsigned>(Version(bytes)));
      return STATUS_BAD_PARAM;
   }

   bool found = false;
   ReturnStatus status =
      WalkRecords(bytes, length, &found, [&](const Record &rec, ReturnStatus *st) {
         if (!NamesEqual(rec.name, name)) {
            return false;
         }
         if (bufSize < rec.dataLen) {
            DATA_TRACE(0,
                       "propVal buffer of size %u not sufficient to store value of size %u for "
                       "property %s\n",
                       bufSize, rec.dataLen, name);
            *st = STATUS_LIMIT_EXCEEDED;
         } else {
            std::memcpy(buf, rec.data, rec.dataLen);
         }
         return true;
      });
   if (status != STATUS_OK || found) {
      return status;
   }
   return STATUS_NOT_FOUND;
}

}  // extern "C"
