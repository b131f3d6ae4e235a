// Building a list blob of nested list blobs in one buffer (see
// list_blob_builder.h).
#include "data/list_blob_builder.h"

#include <cstdlib>
#include <cstring>
#include <new>

#include "data/blob_build.h"
#include "data/record_layout.h"

namespace dvs::data {

ListBlobBuilder::~ListBlobBuilder() {
   Clear();
}

void ListBlobBuilder::Clear() noexcept {
   for (Record &r : records_) {
      DVSData_Free(r.list);
   }
   records_.clear();
   length_ = 0;
}

ReturnStatus ListBlobBuilder::AppendList(const char *name, uint32_t flag, DVSDataHandle *list,
                                         uint32_t version) {
   if (name == nullptr || list == nullptr || *list == nullptr) {
      return STATUS_BAD_PARAM;
   }
   WarnOldVersion(version);
   const uint32_t length = length_ != 0 ? length_ : DVSDATA_HEADER_SIZE + kEndMarkerSize;
   const uint32_t size = ListBlobSize(*list, 0);
   // The whole blob, this record included, keeps a 32-bit length.
   if (size > kMaxDataLen || RecordLength(size) > UINT32_MAX - length) {
      return STATUS_NO_MEMORY;
   }
   Record r{};
   std::strncpy(r.name, name, sizeof r.name - 1);
   r.flag = flag;
   r.size = size;
   r.list = *list;
   try {
      records_.push_back(r);
   } catch (const std::bad_alloc &) {
      return STATUS_NO_MEMORY;
   }
   length_ = length + RecordLength(size);
   *list = nullptr;
   return STATUS_OK;
}

ReturnStatus ListBlobBuilder::Finish(void **blob, uint32_t *len) {
   if (blob == nullptr || len == nullptr) {
      return STATUS_BAD_PARAM;
   }
   const uint32_t length = length_ != 0 ? length_ : DVSDATA_HEADER_SIZE + kEndMarkerSize;
   auto *buf = static_cast<uint8_t *>(std::malloc(length));
   if (buf == nullptr) {
      return STATUS_NO_MEMORY;
   }
   uint32_t end = DVSDATA_HEADER_SIZE;
   uint32_t recordSum = 0;
   for (const Record &r : records_) {
      uint8_t *record = buf + end;
      uint32_t valueSum = 0;
      const ReturnStatus status =
         WriteListBlob(r.list, 0, record + kRecordDataOffset, r.size, &valueSum);
      if (status != STATUS_OK) {
         std::free(buf);
         return status;
      }
      recordSum += WriteRecordHead(record, r.name, r.flag, r.size) + valueSum;
      ZeroRecordPadding(record, r.size);
      end += RecordLength(r.size);
   }
   const uint32_t headSum = WriteBlobHeader(buf, length);
   WriteEndMarker(buf, end);
   SealWithWordSum(buf, length, headSum + recordSum);
   *blob = buf;
   *len = length;
   Clear();
   return STATUS_OK;
}

}  // namespace dvs::data
