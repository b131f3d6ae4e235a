// The checksum of a blob whose record values are blobs themselves (a host
// blob of switch blobs, each holding port blobs), taken so that the inner
// blobs can be checked without reading their bytes again.
//
// The checksum is a wrapping sum of 32-bit words, so the sum of a blob is
// the sum of the sums of any cut of it into word-aligned pieces.  The pass
// cuts the blob at its records and at the records of values that look
// like blobs, and remembers the word sum of every value it met, two levels
// deep (below the top level, only of values of a kilobyte or more).  A reader of a nested blob then finds its checksum from the sum of
// its value and its first eight words.  Every remembered sum is the true
// sum of its bytes whatever they hold, so a damaged or hostile blob can
// make the pass remember useless sums, never wrong ones.
#ifndef DVS_DATA_NESTED_SUMS_H
#define DVS_DATA_NESTED_SUMS_H

#include <cstddef>
#include <cstdint>
#include <vector>

namespace dvs::data {

class NestedSums {
  public:
   // The checksum of the blob of `length` bytes (its header's length, at
   // least 16, all readable) as DVSDataChecksum gives it, remembering the
   // sums of its values and of their values.  When memory for them runs
   // short, fewer are remembered (the checksum is the same) and
   // OutOfMemory() tells so.
   uint32_t Checksum(const uint8_t *blob, uint32_t length);
   bool OutOfMemory() const { return short_; }

   // The word sum of the `len` bytes at `data` when the pass remembered
   // that very value, else null.
   const uint32_t *Find(const uint8_t *data, uint32_t len) const;

  private:
   struct Value {
      const uint8_t *data;
      uint32_t len;
      uint32_t sum;
   };

   // Sum of the words from p to end, cut at the records that start at p;
   // values are remembered, and summed the same way when `descend`.
   uint32_t SumRecords(const uint8_t *p, const uint8_t *end, bool descend);
   // Takes a place for a value in address order; SIZE_MAX when none.
   size_t Remember(const uint8_t *data, uint32_t len);

   std::vector<Value> values_;  // by address: a value comes before the values inside it
   bool short_ = false;         // memory ran out: remember nothing more
   mutable size_t next_ = 0;    // where Find looks first
};

// The checksum of a blob of `len` bytes whose words sum to `wordSum`, as
// DVSDataChecksum gives it; false when that cannot be told from the sum
// (the header's length is not `len`, or not a whole number of words).
bool ChecksumFromWordSum(const uint8_t *blob, uint32_t len, uint32_t wordSum, uint32_t *checksum);

}  // namespace dvs::data

#endif  // DVS_DATA_NESTED_SUMS_H
