// Feeds arbitrary bytes to both blob readers.  The input is copied into a
// buffer of exactly its size so that any read past the end is caught, and
// the checksum is repaired half of the time so that the record walk, not
// just the header checks, sees the mutated bytes.
#include <dvsdata.h>

#include <cstdlib>
#include <cstring>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
   if (size == 0 || size > (1u << 20)) {
      return 0;
   }
   const bool repair = (data[0] & 1) != 0;
   std::vector<uint8_t> blob(data + 1, data + size);
   if (repair && blob.size() >= 8) {
      uint32_t length = 0;
      std::memcpy(&length, blob.data(), 4);
      if (length <= blob.size()) {
         const uint32_t sum = DVSDataChecksum(blob.data());
         std::memcpy(blob.data() + 4, &sum, 4);
      }
   }
   const auto len = static_cast<uint32_t>(blob.size());
   DVSDataHandle h = nullptr;
   if (DVSData_DeserializeWithPropType(&h, blob.data(), len, malloc, free, 0xffffffffu) ==
       STATUS_OK) {
      void *out = nullptr;
      uint32_t outLen = 0;
      if (DVSData_Serialize(h, &out, &outLen, 6) != STATUS_OK) {
         std::abort();
      }
      DVSData_FreeAssocData(h, out);
      DVSData_Free(h);
   }
   uint8_t value[256];
   (void)DVSData_DeserializeGetPropVal(blob.data(), len, "className", value, sizeof value);
   return 0;
}
