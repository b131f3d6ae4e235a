// Byte layout of property records and blobs, shared by the list and the
// blob readers and writers.  Everything here is internal to the library.
#ifndef DVS_DATA_RECORD_LAYOUT_H
#define DVS_DATA_RECORD_LAYOUT_H

#include <dvsdata.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace dvs::data {

// Offsets inside a blob header.
constexpr uint32_t kBlobLengthOffset = 0;
constexpr uint32_t kBlobChecksumOffset = 4;
constexpr uint32_t kBlobVersionOffset = 8;
constexpr uint32_t kBlobReservedOffset = 10;
constexpr uint32_t kEndMarkerSize = 4;
// The checksum sums the blob from this offset on.
constexpr uint32_t kChecksumStart = 32;

// Offsets inside a record image (relative to its serialLen field).
constexpr uint32_t kRecordSerialLenOffset = 0;
constexpr uint32_t kRecordNameOffset = 4;
constexpr uint32_t kRecordFlagOffset = 132;
constexpr uint32_t kRecordDataLenOffset = 136;
constexpr uint32_t kRecordDataOffset = 140;

// The fixed part of a record plus the slack that the length formula adds.
constexpr uint32_t kRecordOverhead = 146;

// The in-memory entry is the link followed by the record image, byte for
// byte, so that a record is written out with a single copy.
constexpr size_t kImageStart = offsetof(DVSDataEntry, serialLen);
static_assert(offsetof(DVSDataEntry, serialLen) - kImageStart == kRecordSerialLenOffset);
static_assert(offsetof(DVSDataEntry, name) - kImageStart == kRecordNameOffset);
static_assert(offsetof(DVSDataEntry, flag) - kImageStart == kRecordFlagOffset);
static_assert(offsetof(DVSDataEntry, dataLen) - kImageStart == kRecordDataLenOffset);
static_assert(offsetof(DVSDataEntry, data) - kImageStart == kRecordDataOffset);
static_assert(sizeof(DVSDataEntry::name) == DVSDATA_NAME_MAX);
static_assert(DVSDATA_HEADER_SIZE == 12 && DVSDATA_MIN_BLOB_SIZE == 16);

// Largest value length whose record length still fits in 32 bits.
constexpr uint32_t kMaxDataLen = UINT32_MAX - kRecordOverhead;

// Record length of a value of dataLen bytes: always 3 to 6 bytes of slack
// after the value, never the tightest multiple of four.  Callers check
// dataLen <= kMaxDataLen first.
constexpr uint32_t RecordLength(uint32_t dataLen) {
   return (dataLen + kRecordOverhead) & ~3u;
}
static_assert(RecordLength(0) == 144 && RecordLength(1) == 144);
static_assert(RecordLength(2) == 148 && RecordLength(5) == 148);
static_assert(RecordLength(6) == 152);

// Property names compare over the whole name field and no further.
inline bool NamesEqual(const char *stored, const char *wanted) {
   return std::strncmp(stored, wanted, DVSDATA_NAME_MAX) == 0;
}

// Unaligned native-order access to blob fields.
inline uint32_t LoadU32(const void *p) {
   uint32_t v;
   std::memcpy(&v, p, sizeof v);
   return v;
}
inline uint16_t LoadU16(const void *p) {
   uint16_t v;
   std::memcpy(&v, p, sizeof v);
   return v;
}
inline void StoreU32(void *p, uint32_t v) {
   std::memcpy(p, &v, sizeof v);
}
inline void StoreU16(void *p, uint16_t v) {
   std::memcpy(p, &v, sizeof v);
}

inline const uint8_t *RecordImage(const DVSDataEntry *entry) {
   return reinterpret_cast<const uint8_t *>(entry) + kImageStart;
}

}  // namespace dvs::data

#endif  // DVS_DATA_RECORD_LAYOUT_H
