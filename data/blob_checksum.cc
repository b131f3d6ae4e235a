// The blob checksum: a 32-bit wrapping sum of the words from byte 32 on,
// plus any trailing bytes.  The first 32 bytes (header, the first record's
// length and the first 16 bytes of its name) are outside the sum; other
// holders of the format verify exactly this region, so it must not change.
#include <dvsdata.h>

#include "data/record_layout.h"

namespace {
constexpr int32_t kChecksumStart = 32;
}

extern "C" DVS_EXPORT uint32_t DVSDataChecksum(const void *blob) {
   if (blob == nullptr) {
      return 0;
   }
   const auto *bytes = static_cast<const uint8_t *>(blob);
   const auto length =
      static_cast<int32_t>(dvs::data::LoadU32(bytes + dvs::data::kBlobLengthOffset));
   const int32_t words = length / 4;

   uint32_t sum = 0;
   for (int32_t offset = kChecksumStart; offset <= 4 * words - 4; offset += 4) {
      sum += dvs::data::LoadU32(bytes + offset);
   }
   if (length % 4 != 0) {
      const int32_t from = 4 * words > kChecksumStart ? 4 * words : kChecksumStart;
      for (int32_t offset = from; offset < length; ++offset) {
         sum += bytes[offset];
      }
   }
   return sum;
}
