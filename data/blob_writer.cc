// Blob writers: the whole list, the list without properties matched by a
// name or type filter, and a single entry.  Entries already hold their
// record images, so writing is a header, one copy per record and an end
// marker.
#include <cstring>

#include "data/blob_build.h"
#include "data/data_trace.h"
#include "data/record_layout.h"
#include "data/word_sum.h"

namespace dvs::data {
namespace {

// The one port property that survives the volatile-name filter although
// its name holds the filtered substring.
constexpr const char kPersistedVolatileProp[] = "com.ostrel.common.port.volatile.persist";

// Which properties a writer leaves out.
class Filter {
  public:
   static Filter None() { return Filter(Kind::kNone, nullptr, 0); }
   static Filter ExcludingName(const char *substring) {
      return substring != nullptr ? Filter(Kind::kName, substring, 0) : None();
   }
   static Filter ExcludingType(uint32_t mask) {
      return mask != 0 ? Filter(Kind::kType, nullptr, mask) : None();
   }

   bool IsNone() const { return kind_ == Kind::kNone; }

   // Whether the entry is written.  Each test is traced at level 1 unless
   // the caller only sizes a blob ahead of writing it.
   bool Keeps(const DVSDataEntry *e, bool traced = true) const {
      switch (kind_) {
         case Kind::kNone:
            return true;
         case Kind::kName:
            if (traced) {
               DATA_TRACE(1, "Entry %s, length %u exName %s\n", e->name, e->dataLen, substring_);
            }
            return std::strstr(e->name, substring_) == nullptr ||
                   std::strstr(e->name, kPersistedVolatileProp) != nullptr;
         case Kind::kType:
            if (traced) {
               DATA_TRACE(1, "Property type entry %s, length %u flag %x/%x\n", e->name, e->dataLen,
                          e->flag, mask_);
            }
            return (e->flag & mask_) == 0;
      }
      return true;
   }

  private:
   enum class Kind { kNone, kName, kType };
   Filter(Kind kind, const char *substring, uint32_t mask)
       : kind_(kind), substring_(substring), mask_(mask) {}

   Kind kind_;
   const char *substring_;
   uint32_t mask_;
};

// Size of the blob that Write produces with this filter.  The walk is
// bounded by serialSize like the writer's, so both agree on which entries
// they consider.
uint32_t FilteredSize(DVSDataHandle h, const Filter &filter, bool traced = true) {
   if (filter.IsNone()) {
      return h->serialSize;
   }
   uint32_t size = DVSDATA_MIN_BLOB_SIZE;
   uint32_t remaining = h->serialSize - DVSDATA_HEADER_SIZE;
   for (const DVSDataEntry *e = h->head; e != nullptr && e->serialLen < remaining; e = e->next) {
      if (filter.Keeps(e, traced)) {
         size += RecordLength(e->dataLen);
      }
      remaining -= e->serialLen;
   }
   return size;
}

// Gets the output buffer: the caller's (when it is large enough) or a new
// one from the list's allocator.
ReturnStatus TakeBuffer(DVSDataHandle h, void **blob, uint32_t *len, uint32_t need,
                        bool *allocated) {
   *allocated = false;
   if (*blob != nullptr) {
      if (need > *len) {
         return STATUS_LIMIT_EXCEEDED;
      }
      *len = need;
      return STATUS_OK;
   }
   *len = need;
   *blob = h->allocFn(need);
   if (*blob == nullptr) {
      return STATUS_NO_MEMORY;
   }
   *allocated = true;
   return STATUS_OK;
}

// Where a record copy stopped: the write position, the part of the list's
// recorded size not walked, the entry it stopped at (null at the end) and
// the word sum of what was copied.
struct RecordCopy {
   uint32_t pos;
   uint32_t remaining;
   const DVSDataEntry *stop;
   uint32_t sum;
};

// Entries are separate allocations, so the walk is a chain of dependent
// loads.  Entries appended one after another usually sit at a steady
// stride, so the entries two and three links ahead are guessed from the
// last step and fetched early; a wrong guess costs a wasted prefetch,
// never a fault.
__attribute__((always_inline)) inline void PrefetchAhead(const DVSDataEntry *e) {
   const DVSDataEntry *next = e->next;
   if (next == nullptr) {
      return;
   }
   const uintptr_t at = reinterpret_cast<uintptr_t>(next);
   const uintptr_t step = at - reinterpret_cast<uintptr_t>(e);
   __builtin_prefetch(reinterpret_cast<const void *>(at + step));
   __builtin_prefetch(reinterpret_cast<const void *>(at + step + 64));
   __builtin_prefetch(reinterpret_cast<const void *>(at + 2 * step));
   __builtin_prefetch(reinterpret_cast<const void *>(at + 2 * step + 64));
}

// Copies the record images the filter keeps to out + pos, summing their
// words as they are copied (every image is a whole number of words at a
// word offset).  Built once per lane width; see CopyKeptRecords.
template <typename Sum>
__attribute__((always_inline)) inline RecordCopy CopyKeptRecordsWith(DVSDataHandle h,
                                                                     const Filter &filter,
                                                                     uint8_t *out, uint32_t pos,
                                                                     uint32_t need) {
   Sum sum;
   uint32_t remaining = h->serialSize - DVSDATA_HEADER_SIZE;
   const DVSDataEntry *e = h->head;
   if (filter.IsNone() && dvsdata_debug < 2) {
      // Nothing to test or trace per record: a loop without calls keeps
      // the sum in registers.
      for (; e != nullptr && e->serialLen < remaining; e = e->next) {
         if (e->serialLen > need - kEndMarkerSize - pos) {
            break;
         }
         PrefetchAhead(e);
         sum.Copy(out + pos, RecordImage(e), e->serialLen / 4);
         pos += e->serialLen;
         remaining -= e->serialLen;
      }
      return RecordCopy{pos, remaining, e, sum.Total()};
   }
   for (; e != nullptr && e->serialLen < remaining; e = e->next) {
      if (filter.Keeps(e)) {
         // A list changed behind our back could outgrow the buffer; treat
         // that like any other disagreement between list and size.
         if (e->serialLen > need - kEndMarkerSize - pos) {
            break;
         }
         DATA_TRACE(2, "serializing %s: %u/%u data/serial bytes\n", e->name, e->dataLen,
                    e->serialLen);
         sum.Copy(out + pos, RecordImage(e), e->serialLen / 4);
         pos += e->serialLen;
      }
      remaining -= e->serialLen;
   }
   return RecordCopy{pos, remaining, e, sum.Total()};
}

RecordCopy CopyKeptRecordsNarrow(DVSDataHandle h, const Filter &filter, uint8_t *out,
                                 uint32_t pos, uint32_t need) {
   return CopyKeptRecordsWith<WordSum>(h, filter, out, pos, need);
}

#if DVS_HAVE_WIDE_VECTORS
DVS_WIDE_VECTORS RecordCopy CopyKeptRecordsWide(DVSDataHandle h, const Filter &filter,
                                                uint8_t *out, uint32_t pos, uint32_t need) {
   return CopyKeptRecordsWith<WideWordSum>(h, filter, out, pos, need);
}
#endif

// The records are short (a 140-byte head and the value), so the copy runs
// at memory speed only with the widest vectors the processor has.
RecordCopy CopyKeptRecords(DVSDataHandle h, const Filter &filter, uint8_t *out, uint32_t pos,
                           uint32_t need) {
#if DVS_HAVE_WIDE_VECTORS
   if (HasWideVectors()) {
      return CopyKeptRecordsWide(h, filter, out, pos, need);
   }
#endif
   return CopyKeptRecordsNarrow(h, filter, out, pos, need);
}

// Writes the list's blob of `need` bytes (its FilteredSize) at out; see
// WriteListBlob.
ReturnStatus WriteInto(DVSDataHandle h, const Filter &filter, uint8_t *out, uint32_t need,
                       uint32_t *wordSum) {
   const uint32_t headSum = WriteBlobHeader(out, need);
   const RecordCopy copy = CopyKeptRecords(h, filter, out, DVSDATA_HEADER_SIZE, need);
   if (copy.stop == nullptr && copy.remaining == kEndMarkerSize &&
       copy.pos == need - kEndMarkerSize) {
      WriteEndMarker(out, copy.pos);
      *wordSum = SealWithWordSum(out, need, headSum + copy.sum);
      return STATUS_OK;
   }
   DATA_TRACE(0,
              "DVSData length changed during serialization, buflen = %u, lenRemaining = %u, "
              "name %s, size %u\n",
              need, copy.remaining, copy.stop != nullptr ? copy.stop->name : "NULL",
              copy.stop != nullptr ? copy.stop->serialLen : 0);
   return STATUS_LIMIT_EXCEEDED;
}

ReturnStatus Write(DVSDataHandle h, void **blob, uint32_t *len, const Filter &filter) {
   if (h == nullptr || blob == nullptr || len == nullptr) {
      return STATUS_BAD_PARAM;
   }
   const uint32_t need = FilteredSize(h, filter);
   DATA_TRACE(2, "allocating buffer size %d\n", static_cast<int>(need));
   bool allocated = false;
   if (ReturnStatus status = TakeBuffer(h, blob, len, need, &allocated); status != STATUS_OK) {
      return status;
   }
   uint32_t wordSum = 0;
   const ReturnStatus status = WriteInto(h, filter, static_cast<uint8_t *>(*blob), need, &wordSum);
   if (status != STATUS_OK && allocated) {
      h->freeFn(*blob);
      *blob = nullptr;
   }
   return status;
}

}  // namespace

uint32_t ListBlobSize(DVSDataHandle h, uint32_t typeMask) {
   return FilteredSize(h, Filter::ExcludingType(typeMask), false);
}

uint32_t CopyListRecords(DVSDataHandle h, uint8_t *out) {
   // The whole list, unfiltered: the walk ends with the list itself.
   const uint32_t all = h->serialSize;
   return CopyKeptRecords(h, Filter::None(), out - DVSDATA_HEADER_SIZE, DVSDATA_HEADER_SIZE,
                          all)
      .sum;
}

ReturnStatus WriteListBlob(DVSDataHandle h, uint32_t typeMask, uint8_t *out, uint32_t size,
                           uint32_t *wordSum) {
   return WriteInto(h, Filter::ExcludingType(typeMask), out, size, wordSum);
}

void WarnOldVersion(uint32_t version) {
   // Old switch versions are only warned about; their blobs look the same.
   if (version <= 3) {
      DATA_TRACE(0, "DVS version %d is smaller than 6.0.\n", static_cast<int>(version));
   }
}

uint32_t WriteBlobHeader(uint8_t *blob, uint32_t length) {
   StoreU32(blob + kBlobLengthOffset, length);
   StoreU32(blob + kBlobChecksumOffset, 0);
   StoreU16(blob + kBlobVersionOffset, DVSDATA_BLOB_VERSION);
   StoreU16(blob + kBlobReservedOffset, 0);
   return SumWords(blob, DVSDATA_HEADER_SIZE / 4);
}

void WriteEndMarker(uint8_t *blob, uint32_t end) {
   StoreU32(blob + end, 0);
}

uint32_t SealWithWordSum(uint8_t *blob, uint32_t length, uint32_t wordSum) {
   // The checksum leaves out the words before kChecksumStart; they were
   // summed with the rest, so take them off again.  The checksum field is
   // still zero here and adds nothing to either sum.
   const uint32_t headWords = length < kChecksumStart ? length / 4 : kChecksumStart / 4;
   const uint32_t checksum = wordSum - SumWords(blob, headWords);
   StoreU32(blob + kBlobChecksumOffset, checksum);
   return wordSum + checksum;
}

uint32_t WriteRecordHead(uint8_t *record, const char *name, uint32_t flag, uint32_t dataLen) {
   StoreU32(record + kRecordSerialLenOffset, RecordLength(dataLen));
   // As the list stores names: cut to 127 characters, the rest zeros.
   const size_t nameLen = strnlen(name, DVSDATA_NAME_MAX - 1);
   std::memcpy(record + kRecordNameOffset, name, nameLen);
   std::memset(record + kRecordNameOffset + nameLen, 0, DVSDATA_NAME_MAX - nameLen);
   StoreU32(record + kRecordFlagOffset, flag);
   StoreU32(record + kRecordDataLenOffset, dataLen);
   return SumWords(record, kRecordDataOffset / 4);
}

uint32_t WriteRecord(uint8_t *record, const char *name, uint32_t flag, const void *data,
                     uint32_t dataLen) {
   uint32_t sum = WriteRecordHead(record, name, flag, dataLen);
   uint8_t *value = record + kRecordDataOffset;
   const uint32_t whole = dataLen / 4 * 4;
   sum += CopySumWords(value, static_cast<const uint8_t *>(data), whole / 4);
   // The last, partial value word and the padding: zeros around the rest.
   const uint32_t tailLen = RecordLength(dataLen) - kRecordDataOffset - whole;
   std::memset(value + whole, 0, tailLen);
   if (dataLen > whole) {
      std::memcpy(value + whole, static_cast<const uint8_t *>(data) + whole, dataLen - whole);
   }
   return sum + SumWords(value + whole, tailLen / 4);
}

void ZeroRecordPadding(uint8_t *record, uint32_t dataLen) {
   std::memset(record + kRecordDataOffset + dataLen, 0,
               RecordLength(dataLen) - kRecordDataOffset - dataLen);
}

}  // namespace dvs::data

using namespace dvs::data;

extern "C" {

DVS_EXPORT uint32_t DVSData_SerializedSize(DVSDataHandle h, uint32_t /*version*/) {
   return h != nullptr ? h->serialSize : 0;
}

DVS_EXPORT uint32_t DVSData_SerializedSizeExNamedProp(DVSDataHandle h, uint32_t /*version*/,
                                                      const char *exName) {
   return h != nullptr ? FilteredSize(h, Filter::ExcludingName(exName)) : 0;
}

DVS_EXPORT ReturnStatus DVSData_Serialize(DVSDataHandle h, void **blob, uint32_t *len,
                                          uint32_t version) {
   return DVSData_SerializeExNamedProp(h, blob, len, version, nullptr);
}

DVS_EXPORT ReturnStatus DVSData_SerializeExNamedProp(DVSDataHandle h, void **blob, uint32_t *len,
                                                     uint32_t version, const char *exName) {
   WarnOldVersion(version);
   return Write(h, blob, len, Filter::ExcludingName(exName));
}

DVS_EXPORT ReturnStatus DVSData_SerializeExTypeProp(DVSDataHandle h, void **blob, uint32_t *len,
                                                    uint32_t typeMask) {
   return Write(h, blob, len, Filter::ExcludingType(typeMask));
}

DVS_EXPORT ReturnStatus DVSData_SerializeEntry(DVSDataHandle h, const char *name, void **blob,
                                               uint32_t *len) {
   if (h == nullptr || name == nullptr || blob == nullptr || len == nullptr) {
      return STATUS_BAD_PARAM;
   }
   *len = 0;
   const DVSDataEntry *e = h->head;
   while (e != nullptr && std::strcmp(e->name, name) != 0) {
      e = e->next;
   }
   if (e == nullptr) {
      return STATUS_NOT_FOUND;
   }
   DATA_TRACE(2, "serializing %s: %u/%u data/serial bytes\n", e->name, e->dataLen, e->serialLen);
   if (e->serialLen > UINT32_MAX - DVSDATA_MIN_BLOB_SIZE) {
      return STATUS_NO_MEMORY;
   }
   const uint32_t need = e->serialLen + DVSDATA_MIN_BLOB_SIZE;
   // The capacity compared here is the out length, which was just cleared:
   // a caller buffer is therefore always too small, and callers pass null.
   if (*blob != nullptr) {
      return STATUS_LIMIT_EXCEEDED;
   }
   auto *out = static_cast<uint8_t *>(h->allocFn(need));
   if (out == nullptr) {
      return STATUS_NO_MEMORY;
   }
   uint32_t sum = WriteBlobHeader(out, need);
   sum += CopySumWords(out + DVSDATA_HEADER_SIZE, RecordImage(e), e->serialLen / 4);
   WriteEndMarker(out, need - kEndMarkerSize);
   SealWithWordSum(out, need, sum);
   *blob = out;
   *len = need;
   return STATUS_OK;
}

}  // extern "C"
