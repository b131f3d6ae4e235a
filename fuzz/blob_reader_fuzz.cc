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
// read back to a list that serializes to the same bytes.
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
   DVSDataHandle h = nullptr;
   if (ReadList(&h, blob, mode) == STATUS_OK) {
      const std::vector<uint8_t> once = Serialize(h);
      DVSData_Free(h);
      DVSDataHandle again = nullptr;
      FUZZ_CHECK(ReadList(&again, once, mode) == STATUS_OK);
      FUZZ_CHECK(Serialize(again) == once);
      DVSData_Free(again);
   }

   // The single-value reader, for a name the blob's first record may carry
   // and for a fixed one.
   std::vector<uint8_t> value((control & 0x80) != 0 ? 4 : 256);
   const auto valueSize = static_cast<uint32_t>(value.size());
   char name[DVSDATA_NAME_MAX] = "className";
   if (blob.size() >= DVSDATA_HEADER_SIZE + 4 + DVSDATA_NAME_MAX) {
      std::memcpy(name, blob.data() + DVSDATA_HEADER_SIZE + 4, sizeof name - 1);
   }
   (void)DVSData_DeserializeGetPropVal(blob.data(), size32, name, value.data(), valueSize);
   (void)DVSData_DeserializeGetPropVal(blob.data(), size32, "maxPorts", value.data(), valueSize);
   return 0;
}
