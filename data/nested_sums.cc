// Checksums of nested blobs taken in one pass (see nested_sums.h).
#include "data/nested_sums.h"

#include <dvsdata.h>

#include <algorithm>
#include <new>

#include "data/record_layout.h"
#include "data/word_sum.h"

namespace dvs::data {

namespace {

constexpr size_t kNotRemembered = SIZE_MAX;
// A nested blob shorter than this is summed again by its reader, which
// costs less than cutting it out and remembering its sum: it is in the
// cache by then, and a host of tiny ports has thousands.
constexpr uint32_t kWorthRemembering = 1024;
// The header's words that lie before the checksummed part: the first
// record's length and the first 16 bytes of its name.
constexpr size_t kRecordWordsBeforeSum = (kChecksumStart - DVSDATA_HEADER_SIZE) / 4;

// Sum of a few words (a record's head, its padding), inline: a call of
// the vector sum costs more than these take.
inline uint32_t SumFewWords(const uint8_t *p, size_t words) {
   uint32_t sum = 0;
   for (size_t i = 0; i < words; ++i) {
      sum += LoadU32(p + 4 * i);
   }
   return sum;
}

}  // namespace

size_t NestedSums::Remember(const uint8_t *data, uint32_t len) {
   if (short_) {
      return kNotRemembered;
   }
   try {
      values_.push_back(Value{data, len, 0});
   } catch (const std::bad_alloc &) {
      short_ = true;
      return kNotRemembered;
   }
   return values_.size() - 1;
}

uint32_t NestedSums::SumRecords(const uint8_t *p, const uint8_t *end, bool descend) {
   // Every cut falls on a word boundary of the outer blob: records start
   // and end on one, and so do values whose length is a whole number of
   // words, the only ones summed on their own.  Whatever does not read as
   // such a record ends the cutting; the rest is summed in one piece.
   uint32_t sum = 0;
   while (static_cast<size_t>(end - p) >= kRecordDataOffset) {
      const uint32_t serialLen = LoadU32(p + kRecordSerialLenOffset);
      if (serialLen < kRecordDataOffset || serialLen % 4 != 0 ||
          serialLen > static_cast<size_t>(end - p)) {
         break;
      }
      // A value that cannot be cut out on word boundaries, or that is not
      // worth remembering, is summed with its record in one piece.
      const uint32_t dataLen = LoadU32(p + kRecordDataLenOffset);
      if (dataLen % 4 != 0 || dataLen > serialLen - kRecordDataOffset ||
          (!descend && dataLen < kWorthRemembering)) {
         sum += SumWords(p, serialLen / 4);
         p += serialLen;
         continue;
      }
      const uint8_t *data = p + kRecordDataOffset;
      uint32_t valueSum = 0;
      if (dataLen < DVSDATA_MIN_BLOB_SIZE) {
         // Too short to be a blob: nobody asks for its sum.
         valueSum = SumFewWords(data, dataLen / 4);
      } else {
         const size_t slot = Remember(data, dataLen);
         valueSum = descend ? SumWords(data, DVSDATA_HEADER_SIZE / 4) +
                                 SumRecords(data + DVSDATA_HEADER_SIZE, data + dataLen, false)
                            : SumWords(data, dataLen / 4);
         if (slot != kNotRemembered) {
            values_[slot].sum = valueSum;
         }
      }
      const uint32_t padding = serialLen - kRecordDataOffset - dataLen;
      sum += SumFewWords(p, kRecordDataOffset / 4) + valueSum +
             SumFewWords(data + dataLen, padding / 4);
      p += serialLen;
   }
   return sum + SumWords(p, static_cast<size_t>(end - p) / 4);
}

uint32_t NestedSums::Checksum(const uint8_t *blob, uint32_t length) {
   values_.clear();
   short_ = false;
   next_ = 0;
   // Lengths that DVSDataChecksum reads as negative, or that leave no
   // record past the unsummed start, hold no nested blob worth the trouble.
   if (length > INT32_MAX || length <= kChecksumStart) {
      return DVSDataChecksum(blob);
   }
   const uint32_t wordEnd = length / 4 * 4;
   uint32_t sum = SumRecords(blob + DVSDATA_HEADER_SIZE, blob + wordEnd, true) -
                  SumWords(blob + DVSDATA_HEADER_SIZE, kRecordWordsBeforeSum);
   for (uint32_t offset = wordEnd; offset < length; ++offset) {
      sum += blob[offset];
   }
   return sum;
}

const uint32_t *NestedSums::Find(const uint8_t *data, uint32_t len) const {
   // Readers mostly ask in blob order: try the value after the last one
   // found before searching.
   auto it = values_.begin() + static_cast<std::ptrdiff_t>(next_);
   if (it == values_.end() || it->data != data) {
      it = std::lower_bound(values_.begin(), values_.end(), data,
                            [](const Value &v, const uint8_t *d) { return v.data < d; });
   }
   if (it == values_.end() || it->data != data || it->len != len) {
      return nullptr;
   }
   next_ = static_cast<size_t>(it - values_.begin()) + 1;
   return &it->sum;
}

bool ChecksumFromWordSum(const uint8_t *blob, uint32_t len, uint32_t wordSum, uint32_t *checksum) {
   const uint32_t length = LoadU32(blob + kBlobLengthOffset);
   if (length != len || length % 4 != 0 || length > INT32_MAX) {
      return false;
   }
   *checksum = length <= kChecksumStart ? 0 : wordSum - SumWords(blob, kChecksumStart / 4);
   return true;
}

}  // namespace dvs::data
