// Property blob readers: the list readers (DVSData_DeserializeWithPropType,
// DVSData_Deserialize) and the single-value reader
// (DVSData_DeserializeGetPropVal).
//
// Input: control(1) blob...
//   bit 0     recompute the checksum (after the length field is set), so
//             that the record walk and not only the header test sees the
//             mutated bytes
//   bit 1     overwrite the length field with kLengths[bits 2-4]
//   bits 5-6  the list reader and its type mask
//   bit 7     a value buffer of 4 bytes instead of 256
// The blob is copied into a buffer of exactly its size, so any read past
// its end is caught.  A list that reads must serialize, and its blob must
// read back to a list that serializes to the same bytes; the value reader
// must agree with the list reader on the list's first entry.
#include <cstdlib>
#include <vector>

#include "fuzz/fuzz_support.h"

namespace {

using dvsfuzz::Load32;

ReturnStatus ReadList(DVSDataHandle *h, const std::vector<uint8_t> &blob, uint32_t mode) {
   static const uint32_t kMasks[] = {0xffffffffu, DVSDATA_PROP_TYPE_MASK, 0x10u};
   if (mode == 3) {
      return DVSData_Deserialize(h, blob.data(), static_cast<uint32_t>(blob.size()), malloc, free);
   }
   return DVSData_DeserializeWithPropType(h, blob.data(), static_cast<uint32_t>(blob.size()),
                                          malloc, free, kMasks[mode]);
}

std::vector<uint8_t> Serialize(DVSDataHandle h) {
   void *out = nullptr;
   uint32_t len = 0;
   FUZZ_CHECK(DVSData_Serialize(h, &out, &len, 6) == STATUS_OK);
   FUZZ_CHECK(len >= DVSDATA_MIN_BLOB_SIZE && Load32(static_cast<uint8_t *>(out)) == len);
   std::vector<uint8_t> blob(static_cast<uint8_t *>(out), static_cast<uint8_t *>(out) + len);
   DVSData_FreeAssocData(h, out);
   return blob;
}

// The first record's name and flag.
constexpr size_t kFirstName = DVSDATA_HEADER_SIZE + 4;
constexpr size_t kFirstFlag = kFirstName + DVSDATA_NAME_MAX;

// The list was read from blob and first is its first entry.  The value
// reader must find that name in the blob too; when the entry came from
// the blob's first record (same name, a flag the list kept), it must hand
// out that very value, or LIMIT_EXCEEDED when value is too small for it.
void CheckFirstValue(const std::vector<uint8_t> &blob, DVSDataEntry *first,
                     std::vector<uint8_t> &value) {
   const char *name = DVSData_Name(first);
   void *data = nullptr;
   const uint32_t len = DVSData_Data(first, &data);
   const ReturnStatus status =
      DVSData_DeserializeGetPropVal(blob.data(), static_cast<uint32_t>(blob.size()), name,
                                    value.data(), static_cast<uint32_t>(value.size()));
   FUZZ_CHECK(status == STATUS_OK || status == STATUS_LIMIT_EXCEEDED);
   const char *firstName = reinterpret_cast<const char *>(blob.data() + kFirstName);
   if (std::strncmp(firstName, name, DVSDATA_NAME_MAX) == 0 &&
       Load32(blob.data() + kFirstFlag) == first->flag) {
      FUZZ_CHECK(status == (len <= value.size() ? STATUS_OK : STATUS_LIMIT_EXCEEDED));
      FUZZ_CHECK(status != STATUS_OK || len == 0 || std::memcmp(value.data(), data, len) == 0);
   }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
   dvsfuzz::Quiet();
   return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
   if (size == 0 || size > (1u << 20)) {
      return 0;
   }
   const uint8_t control = data[0];
   std::vector<uint8_t> blob(data + 1, data + size);
   const auto size32 = static_cast<uint32_t>(blob.size());
   if ((control & 2) != 0 && blob.size() >= 4) {
      const uint32_t kLengths[] = {0x80000000u, 0xffffffffu, 0x7fffffffu, 0xfffffff0u,
                                   size32,      size32 - 1,  size32 + 1,  DVSDATA_MIN_BLOB_SIZE};
      dvsfuzz::Store32(blob.data(), kLengths[(control >> 2) & 7]);
   }
   if ((control & 1) != 0) {
      dvsfuzz::RepairChecksum(blob.data(), blob.size());
   }

   const uint32_t mode = (control >> 5) & 3;
   std::vector<uint8_t> value((control & 0x80) != 0 ? 4 : 256);
   const auto valueSize = static_cast<uint32_t>(value.size());
   DVSDataHandle h = nullptr;
   if (ReadList(&h, blob, mode) == STATUS_OK) {
      if (h->head != nullptr) {
         CheckFirstValue(blob, h->head, value);
      }
      const std::vector<uint8_t> once = Serialize(h);
      DVSData_Free(h);
      DVSDataHandle again = nullptr;
      FUZZ_CHECK(ReadList(&again, once, mode) == STATUS_OK);
      FUZZ_CHECK(Serialize(again) == once);
      DVSData_Free(again);
   }

   // The single-value reader, for a name the blob's first record may carry
   // and for a fixed one.
   char name[DVSDATA_NAME_MAX] = "className";
   if (blob.size() >= kFirstName + DVSDATA_NAME_MAX) {
      std::memcpy(name, blob.data() + kFirstName, sizeof name - 1);
   }
   (void)DVSData_DeserializeGetPropVal(blob.data(), size32, name, value.data(), valueSize);
   (void)DVSData_DeserializeGetPropVal(blob.data(), size32, "maxPorts", value.data(), valueSize);
   return 0;
}
