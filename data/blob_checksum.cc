// The blob checksum: a 32-bit wrapping sum of the words from byte 32 on,
// plus any trailing bytes.  The first 32 bytes (header, the first record's
// length and the first 16 bytes of its name) are outside the sum; other
// holders of the format verify exactly this region, so it must not change.
#include <dvsdata.h>

#include <algorithm>

#include "data/record_layout.h"
#include "data/word_sum.h"

extern "C" DVS_EXPORT uint32_t DVSDataChecksum(const void *blob) {
   if (blob == nullptr) {
      return 0;
   }
   const auto *bytes = static_cast<const uint8_t *>(blob);
   // The length is read as a signed 32-bit value; a negative one (a damaged
   // or hostile header) covers no bytes at all.  Offsets are computed in 64
   // bits so that no bound can overflow or wrap.
   const int64_t length =
      static_cast<int32_t>(dvs::data::LoadU32(bytes + dvs::data::kBlobLengthOffset));
   const int64_t wordEnd = length / 4 * 4;

   uint32_t sum = 0;
   const int64_t start = dvs::data::kChecksumStart;
   if (wordEnd > start) {
      sum = dvs::data::SumWords(bytes + start, static_cast<size_t>((wordEnd - start) / 4));
   }
   for (int64_t offset = std::max<int64_t>(wordEnd, start); offset < length; ++offset) {
      sum += bytes[offset];
   }
   return sum;
}
