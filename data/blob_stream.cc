// A list blob of nested list blobs written piece by piece (see
// blob_stream.h).
#include "data/blob_stream.h"

#include <cstdlib>

#include "data/blob_build.h"
#include "data/record_layout.h"
#include "data/word_sum.h"

namespace dvs::data {

namespace {

constexpr uint32_t kFirstCapacity = 64 * 1024;
constexpr size_t kQuarterGrowthFrom = 4 * 1024 * 1024;

}  // namespace

BlobStream::~BlobStream() {
   std::free(buf_);
}

ReturnStatus BlobStream::Reserve(uint64_t more) {
   if (buf_ == nullptr) {
      // Room for the outer header from the start; it is written at the end.
      // A generous estimate that cannot be had is no reason to fail.
      size_t first = hint_ > kFirstCapacity ? hint_ : kFirstCapacity;
      buf_ = static_cast<uint8_t *>(std::malloc(first));
      if (buf_ == nullptr && first > kFirstCapacity) {
         first = kFirstCapacity;
         buf_ = static_cast<uint8_t *>(std::malloc(first));
      }
      if (buf_ == nullptr) {
         return STATUS_NO_MEMORY;
      }
      capacity_ = first;
      end_ = DVSDATA_HEADER_SIZE;
   }
   // The end marker of the outer blob and of an open nested one still
   // have to fit behind what is asked for.
   const uint64_t need = uint64_t{end_} + more + 2 * kEndMarkerSize;
   if (need > UINT32_MAX) {
      return STATUS_NO_MEMORY;
   }
   if (need <= capacity_) {
      return STATUS_OK;
   }
   // Small buffers double; large ones grow by a quarter, since a buffer
   // that outgrew its estimate is most often nearly full already.
   size_t grown = capacity_;
   while (grown < need) {
      grown += grown < kQuarterGrowthFrom ? grown : grown / 4;
   }
   auto *bigger = static_cast<uint8_t *>(std::realloc(buf_, grown));
   if (bigger == nullptr) {
      return STATUS_NO_MEMORY;
   }
   buf_ = bigger;
   capacity_ = grown;
   return STATUS_OK;
}

ReturnStatus BlobStream::AppendListBlob(const char *name, uint32_t flag, DVSDataHandle list) {
   if (name == nullptr || list == nullptr) {
      return STATUS_BAD_PARAM;
   }
   const uint32_t size = ListBlobSize(list, 0);
   if (size > kMaxDataLen) {
      return STATUS_NO_MEMORY;
   }
   if (ReturnStatus status = Reserve(RecordLength(size)); status != STATUS_OK) {
      return status;
   }
   uint8_t *record = buf_ + end_;
   uint32_t valueSum = 0;
   const ReturnStatus status = WriteListBlob(list, 0, record + kRecordDataOffset, size, &valueSum);
   if (status != STATUS_OK) {
      return status;
   }
   ZeroRecordPadding(record, size);
   AddSum(WriteRecordHead(record, name, flag, size) + valueSum);
   end_ += RecordLength(size);
   return STATUS_OK;
}

ReturnStatus BlobStream::OpenNested(const char *name, uint32_t flag, DVSDataHandle list) {
   if (open_ || name == nullptr || list == nullptr) {
      return STATUS_BAD_PARAM;
   }
   const uint32_t records = list->serialSize - DVSDATA_MIN_BLOB_SIZE;
   if (ReturnStatus status = Reserve(uint64_t{kRecordDataOffset} + DVSDATA_HEADER_SIZE + records);
       status != STATUS_OK) {
      return status;
   }
   nestedRecord_ = end_;
   uint8_t *record = buf_ + end_;
   // The record's head and the nested header take their lengths at the
   // close; the name and flag go in now.
   WriteRecordHead(record, name, flag, 0);
   uint8_t *nested = record + kRecordDataOffset;
   nestedSum_ = CopyListRecords(list, nested + DVSDATA_HEADER_SIZE);
   end_ += kRecordDataOffset + DVSDATA_HEADER_SIZE + records;
   open_ = true;
   return STATUS_OK;
}

ReturnStatus BlobStream::CloseNested() {
   if (!open_) {
      return STATUS_BAD_PARAM;
   }
   const uint32_t size = end_ + kEndMarkerSize - (nestedRecord_ + kRecordDataOffset);
   if (size > kMaxDataLen) {
      return STATUS_NO_MEMORY;
   }
   // Reserve kept room for the end marker; the padding needs at most the
   // record's slack past it.
   const uint32_t padding = RecordLength(size) - kRecordDataOffset - size;
   if (ReturnStatus status = Reserve(kEndMarkerSize + padding); status != STATUS_OK) {
      return status;
   }
   uint8_t *record = buf_ + nestedRecord_;
   uint8_t *nested = record + kRecordDataOffset;
   const uint32_t headSum = WriteBlobHeader(nested, size);
   WriteEndMarker(nested, size - kEndMarkerSize);
   const uint32_t nestedSum = SealWithWordSum(nested, size, headSum + nestedSum_);
   ZeroRecordPadding(record, size);
   // The name and flag went in at the open.
   StoreU32(record + kRecordSerialLenOffset, RecordLength(size));
   StoreU32(record + kRecordDataLenOffset, size);
   open_ = false;
   outerSum_ += SumWords(record, kRecordDataOffset / 4) + nestedSum;
   end_ = nestedRecord_ + RecordLength(size);
   return STATUS_OK;
}

ReturnStatus BlobStream::Finish(void **blob, uint32_t *len) {
   if (blob == nullptr || len == nullptr || open_) {
      return STATUS_BAD_PARAM;
   }
   if (ReturnStatus status = Reserve(0); status != STATUS_OK) {
      return status;
   }
   const uint32_t length = end_ + kEndMarkerSize;
   const uint32_t headSum = WriteBlobHeader(buf_, length);
   WriteEndMarker(buf_, end_);
   SealWithWordSum(buf_, length, headSum + outerSum_);
   // A buffer much larger than its blob gives the rest back.  A little
   // slack stays: trimming it would leave the allocator a block just too
   // small for the next estimate, and on large blocks every call would
   // then map fresh pages and fault them in.
   void *fitted = capacity_ - length > length / 8 ? std::realloc(buf_, length) : nullptr;
   *blob = fitted != nullptr ? fitted : buf_;
   *len = length;
   buf_ = nullptr;
   capacity_ = 0;
   end_ = 0;
   outerSum_ = 0;
   return STATUS_OK;
}

}  // namespace dvs::data
