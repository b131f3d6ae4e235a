// document_batch.h -- the documents of one listing parsed into trees as
// they are read, on two threads when the listing is large enough to gain
// by it.
//
// Internal to libconfigstorec; nothing here is exported.
#ifndef CONFIGSTORE_DOCUMENT_BATCH_H
#define CONFIGSTORE_DOCUMENT_BATCH_H

#include <condition_variable>
#include <cstddef>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "backend.h"
#include "document.h"

namespace configstore {
namespace detail {

// Once a listing has passed this many bytes, a helper thread starts
// parsing its documents.  Below it, starting a thread costs about what it
// saves.
constexpr size_t kParallelParseBytes = 256 * 1024;

struct ParsedDocument {
   std::string instance;
   std::unique_ptr<Tree> tree;
};

// Parses the documents of one listing (see ParseDocument), given one at a
// time in listing order.  Once the listing passes kParallelParseBytes, a
// helper thread that lives only as long as the batch parses documents as
// soon as they are added; the thread that adds them joins in when the
// listing is complete.  When no thread can be started, that thread parses
// them all.  Or the helper reads the listing itself (ListOnHelper) and
// then parses, while the caller takes the documents in order (Stream).
// Not itself shared: one thread owns it and calls everything but what
// ListOnHelper runs.
class DocumentBatch {
  public:
   explicit DocumentBatch(const char *const *dropKeys) : dropKeys_(dropKeys) {}
   // Stops the helper: a batch left unfinished (a listing that failed)
   // waits only for the document the helper is parsing.
   ~DocumentBatch();
   DocumentBatch(const DocumentBatch &) = delete;
   DocumentBatch &operator=(const DocumentBatch &) = delete;

   // The next document of the listing; may throw std::bad_alloc.
   void Add(StoredDocument &&doc);
   // Instead of adding on this thread: runs list, which adds every
   // document of the listing and answers the listing's code, on the
   // helper thread, which then parses too.  False when no thread could be
   // started: the caller lists then.  Stream waits for the listing; after
   // it, ListResult answers list's code and rethrows what list threw.
   bool ListOnHelper(std::function<int32_t()> list);
   int32_t ListResult() const;
   // The bytes of the documents added so far (after the listing: all).
   size_t Bytes() const { return bytes_; }
   // After the last document added on this thread, before Stream.
   void Complete();
   // After the last document: every document parsed, in listing order.
   // Throws what parsing the first document that fails, in listing order,
   // throws: the error a parse of one document after the other stops at.
   std::vector<ParsedDocument> Finish();
   // After the last document, instead of Finish: hands each document to
   // take, in listing order, as soon as it is parsed, while the helper goes
   // on with the later ones.  Once take answers false, none is handed over
   // any more, but every later one is still parsed.  Throws what Finish
   // throws, when the failing document is reached; take has then had every
   // document before it.  take runs on the calling thread; what it throws
   // is thrown on.
   void Stream(const std::function<bool(ParsedDocument &&)> &take);
   // Stops handing out documents and waits for the helper: after a
   // Stream that threw, before ListResult.
   void Stop() noexcept;

  private:
   struct Slot {
      StoredDocument doc;
      std::unique_ptr<Tree> tree;
      std::exception_ptr error;
      bool done = false;  // parsed, or failed; guarded by mutex_
   };

   // The next document nobody has taken, or null: every added one is
   // taken and the listing is complete, or a document failed.  Waits
   // for one to be added otherwise.
   Slot *Take();
   void Parse(Slot *slot) noexcept;
   void Work() noexcept;
   bool StartHelper(std::function<void()> body) noexcept;

   const char *const *dropKeys_;
   size_t bytes_ = 0;
   std::thread helper_;
   bool helperLists_ = false;  // set before the helper starts
   int32_t listRc_ = 0;
   std::exception_ptr listError_;

   std::mutex mutex_;  // guards the members below
   std::condition_variable added_;
   std::condition_variable parsed_;  // a slot is done
   std::vector<std::unique_ptr<Slot>> slots_;
   size_t next_ = 0;  // the first slot nobody has taken
   bool complete_ = false;
   bool failed_ = false;
};

}  // namespace detail
}  // namespace configstore

#endif  // CONFIGSTORE_DOCUMENT_BATCH_H
