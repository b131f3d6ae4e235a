// Building a list blob of nested list blobs in one buffer (see
// list_blob_builder.h).
#include "data/list_blob_builder.h"

#include <cstdlib>
#include <cstring>

#include "data/blob_build.h"
#include "data/record_layout.h"

namespace dvs::data {

ListBlobBuilder::~ListBlobBuilder() {
   std::free(buf_);
}

bool ListBlobBuilder::Reserve(uint64_t more) {
   const uint64_t need = uint64_t{end_} + more + kEndMarkerSize;
   if (need <= capacity_) {
      return true;
   }
   // Doubling keeps the copies of a growing buffer to about its final
   // size; large blocks grow in place where the allocator can map them.
   uint64_t grown = capacity_ < 4096 ? 4096 : capacity_;
   while (grown < need) {
      grown *= 2;
   }
   void *bigger = std::realloc(buf_, grown);
   if (bigger == nullptr) {
      return false;
   }
   buf_ = static_cast<uint8_t *>(bigger);
   capacity_ = grown;
   return true;
}

ReturnStatus ListBlobBuilder::AppendList(const char *name, uint32_t flag, DVSDataHandle list,
                                         uint32_t version) {
   if (name == nullptr || list == nullptr) {
      return STATUS_BAD_PARAM;
   }
   WarnOldVersion(version);
   const uint32_t size = ListBlobSize(list, 0);
   // The whole blob, this record included, keeps a 32-bit length.
   if (size > kMaxDataLen || RecordLength(size) > UINT32_MAX - kEndMarkerSize - end_) {
      return STATUS_NO_MEMORY;
   }
   const uint32_t recordLen = RecordLength(size);
   if (!Reserve(recordLen)) {
      return STATUS_NO_MEMORY;
   }
   uint8_t *record = buf_ + end_;
   uint32_t valueSum = 0;
   const ReturnStatus status =
      WriteListBlob(list, 0, record + kRecordDataOffset, size, &valueSum);
   if (status != STATUS_OK) {
      return status;
   }
   const uint32_t headSum = WriteRecordHead(record, name, flag, size);
   ZeroRecordPadding(record, size);
   recordSum_ += headSum + valueSum;
   end_ += recordLen;
   return STATUS_OK;
}

ReturnStatus ListBlobBuilder::Finish(void **blob, uint32_t *len) {
   if (blob == nullptr || len == nullptr) {
      return STATUS_BAD_PARAM;
   }
   if (!Reserve(0)) {
      return STATUS_NO_MEMORY;
   }
   const uint32_t length = end_ + kEndMarkerSize;
   const uint32_t headSum = WriteBlobHeader(buf_, length);
   WriteEndMarker(buf_, end_);
   SealWithWordSum(buf_, length, headSum + recordSum_);
   // The spare room of the last doubling goes back; should that fail, the
   // larger block serves as well.
   if (void *exact = std::realloc(buf_, length); exact != nullptr) {
      buf_ = static_cast<uint8_t *>(exact);
   }
   *blob = buf_;
   *len = length;
   buf_ = nullptr;
   capacity_ = 0;
   end_ = DVSDATA_HEADER_SIZE;
   recordSum_ = 0;
   return STATUS_OK;
}

}  // namespace dvs::data
