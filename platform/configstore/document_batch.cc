// Parses the documents of one listing, sharing a large listing with a
// helper thread (see document_batch.h).
//
// A whole host's switches are read in one listing before anything uses
// them, and parsing is most of that read.  The documents are independent:
// each becomes a tree with memory of its own, and the parser is per
// thread.  So the calling thread and one helper take documents in listing
// order, whichever is free taking the next one, until none is left.
#include "document_batch.h"

#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <exception>
#include <new>
#include <system_error>
#include <thread>
#include <utility>

namespace configstore {
namespace detail {

namespace {

// What the threads parsing one listing share.
class Batch {
  public:
   Batch(const std::vector<StoredDocument> &docs, const char *const *dropKeys)
       : docs_(docs), dropKeys_(dropKeys), trees_(docs.size()), errors_(docs.size()) {}

   // Parses the next document nobody has taken, until every one is taken
   // or one has failed.  Documents are taken in listing order, so when
   // one fails every document before it has been taken, and is finished
   // by whoever took it, before the threads stop.
   void Work() noexcept {
      while (!failed_.load(std::memory_order_relaxed)) {
         const size_t i = next_.fetch_add(1, std::memory_order_relaxed);
         if (i >= docs_.size()) {
            return;
         }
         try {
            trees_[i] = ParseDocument(docs_[i].doc, dropKeys_);
         } catch (...) {
            errors_[i] = std::current_exception();
            failed_.store(true, std::memory_order_relaxed);
         }
      }
   }

   // Once every thread is done: the trees, or the failure of the first
   // document in listing order that failed.
   std::vector<std::unique_ptr<Tree>> Finish() {
      for (const std::exception_ptr &error : errors_) {
         if (error) {
            std::rethrow_exception(error);
         }
      }
      return std::move(trees_);
   }

  private:
   const std::vector<StoredDocument> &docs_;
   const char *const *dropKeys_;
   std::vector<std::unique_ptr<Tree>> trees_;
   std::vector<std::exception_ptr> errors_;
   std::atomic<size_t> next_{0};
   std::atomic<bool> failed_{false};
};

// Starts a thread working on `batch`; false when none can be started.
// The helper runs with every signal blocked, so that a signal the caller's
// process expects on its own threads is never delivered to it.
bool StartHelper(Batch *batch, std::thread *helper) {
   sigset_t all;
   sigset_t callers;
   sigfillset(&all);
   if (pthread_sigmask(SIG_SETMASK, &all, &callers) != 0) {
      return false;
   }
   bool started = true;
   try {
      *helper = std::thread([batch] { batch->Work(); });
   } catch (const std::system_error &) {
      started = false;
   } catch (const std::bad_alloc &) {
      started = false;
   }
   pthread_sigmask(SIG_SETMASK, &callers, nullptr);
   return started;
}

bool WorthAHelper(const std::vector<StoredDocument> &docs) {
   if (docs.size() < 2) {
      return false;
   }
   size_t bytes = 0;
   for (const StoredDocument &d : docs) {
      bytes += d.doc.size();
   }
   return bytes >= kParallelParseBytes;
}

}  // namespace

std::vector<std::unique_ptr<Tree>> ParseDocuments(const std::vector<StoredDocument> &docs,
                                                  const char *const *dropKeys) {
   Batch batch(docs, dropKeys);
   std::thread helper;
   if (WorthAHelper(docs)) {
      StartHelper(&batch, &helper);
   }
   batch.Work();
   if (helper.joinable()) {
      helper.join();
   }
   return batch.Finish();
}

}  // namespace detail
}  // namespace configstore
