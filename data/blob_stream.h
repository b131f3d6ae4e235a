// A list blob whose records hold nested list blobs (a host blob of switch
// blobs), written as its pieces come instead of from lists that hold the
// whole: one nested blob at a time can be open, and the records added to
// it (the switch's own, then one per port, each the blob of a list that
// can be freed right after) go straight into the final buffer.  Nothing is
// written twice; the checksums are summed as the bytes go in.  The bytes
// are those DVSData_Serialize gives for the same records built as lists.
//
// The buffer grows as needed; it starts at the caller's estimate, which
// spares the copies of growing when it is large enough.  Names are not
// checked for repeats: callers that need DVSData_Update's replacing of a
// repeated name build a list instead.  Nothing here traces.
#ifndef DVS_DATA_BLOB_STREAM_H
#define DVS_DATA_BLOB_STREAM_H

#include <dvsdata.h>

#include <cstddef>
#include <cstdint>

namespace dvs::data {

class BlobStream {
  public:
   explicit BlobStream(uint32_t sizeHint) : hint_(sizeHint) {}
   ~BlobStream();  // frees a blob not handed over
   BlobStream(const BlobStream &) = delete;
   BlobStream &operator=(const BlobStream &) = delete;

   // Adds a record named `name` (cut to 127 characters) with `flag` whose
   // value is the blob of list, to the open nested blob or, when none is
   // open, to the outer one.  The list is left as it was.
   ReturnStatus AppendListBlob(const char *name, uint32_t flag, DVSDataHandle list);

   // Opens a record named `name` with `flag` whose value is a nested blob
   // that starts with the records of list (copied as they are).
   ReturnStatus OpenNested(const char *name, uint32_t flag, DVSDataHandle list);
   // Ends the open nested blob: its end marker and checksum, and its record.
   ReturnStatus CloseNested();

   // Ends the outer blob and hands it over: *blob is released with free().
   // A nested blob still open gives STATUS_BAD_PARAM.
   ReturnStatus Finish(void **blob, uint32_t *len);

  private:
   // Makes room for `more` bytes past the end; NO_MEMORY when the blob
   // would outgrow a 32-bit length or memory runs out.
   ReturnStatus Reserve(uint64_t more);
   // Adds to the sum of the blob the new bytes belong to.
   void AddSum(uint32_t sum) { (open_ ? nestedSum_ : outerSum_) += sum; }

   uint32_t hint_;
   uint8_t *buf_ = nullptr;
   size_t capacity_ = 0;
   uint32_t end_ = 0;  // bytes written, the outer header included
   uint32_t outerSum_ = 0;
   bool open_ = false;
   uint32_t nestedRecord_ = 0;  // where the open nested blob's record starts
   uint32_t nestedSum_ = 0;
};

}  // namespace dvs::data

#endif  // DVS_DATA_BLOB_STREAM_H
