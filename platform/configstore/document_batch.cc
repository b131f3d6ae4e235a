// Parses the documents of one listing as they are read (see
// document_batch.h).
//
// A whole host's switches are read in one listing before anything uses
// them, and parsing is most of that read.  The documents are independent:
// each becomes a tree with memory of its own, and the parser is per
// thread.  So a helper parses documents while the database is still
// reading the next ones, and the reading thread joins it once the listing
// is complete, each taking the next document in listing order whenever it
// is free.  A caller that can use each document before the later ones are
// parsed streams them instead: the helper reads the listing and parses
// ahead, and the caller takes each document, in order, as it is ready.
#include "document_batch.h"

#include <pthread.h>
#include <signal.h>

#include <new>
#include <system_error>
#include <utility>

namespace configstore {
namespace detail {

DocumentBatch::~DocumentBatch() {
   Stop();
}

void DocumentBatch::Add(StoredDocument &&doc) {
   bytes_ += doc.doc.size();
   auto slot = std::make_unique<Slot>();
   slot->doc = std::move(doc);
   {
      std::lock_guard<std::mutex> lock(mutex_);
      slots_.push_back(std::move(slot));
   }
   added_.notify_all();
   if (!helperLists_ && !helper_.joinable() && bytes_ >= kParallelParseBytes) {
      StartHelper([this] { Work(); });
   }
}

bool DocumentBatch::ListOnHelper(std::function<int32_t()> list) {
   // Set before the helper starts: it reads it when it adds documents.
   helperLists_ = true;
   if (!StartHelper([this, list = std::move(list)] {
          try {
             listRc_ = list();
          } catch (...) {
             listError_ = std::current_exception();
          }
          Complete();
          Work();
       })) {
      helperLists_ = false;
      return false;
   }
   return true;
}

int32_t DocumentBatch::ListResult() const {
   if (listError_) {
      std::rethrow_exception(listError_);
   }
   return listRc_;
}

void DocumentBatch::Complete() {
   {
      std::lock_guard<std::mutex> lock(mutex_);
      complete_ = true;
   }
   added_.notify_all();
}

std::vector<ParsedDocument> DocumentBatch::Finish() {
   Complete();
   Work();
   if (helper_.joinable()) {
      helper_.join();
   }
   // Documents are taken in listing order, so when one fails every
   // document before it was taken, and finished by whoever took it,
   // before the threads stopped.
   for (const std::unique_ptr<Slot> &slot : slots_) {
      if (slot->error) {
         std::rethrow_exception(slot->error);
      }
   }
   std::vector<ParsedDocument> parsed;
   parsed.reserve(slots_.size());
   for (std::unique_ptr<Slot> &slot : slots_) {
      parsed.push_back(ParsedDocument{std::move(slot->doc.instance), std::move(slot->tree)});
   }
   return parsed;
}

DocumentBatch::Slot *DocumentBatch::Take() {
   std::unique_lock<std::mutex> lock(mutex_);
   for (;;) {
      if (failed_) {
         return nullptr;
      }
      if (next_ < slots_.size()) {
         return slots_[next_++].get();
      }
      if (complete_) {
         return nullptr;
      }
      added_.wait(lock);
   }
}

void DocumentBatch::Stream(const std::function<bool(ParsedDocument &&)> &take) {
   bool taking = true;
   for (size_t i = 0;; i++) {
      Slot *slot = nullptr;
      {
         std::unique_lock<std::mutex> lock(mutex_);
         added_.wait(lock, [this, i] { return i < slots_.size() || complete_; });
         if (i >= slots_.size()) {
            break;
         }
         slot = slots_[i].get();
         // Slots are handed out in order: one not handed out yet is the
         // next, and this thread parses it itself rather than wait.
         if (next_ == i) {
            next_++;
            lock.unlock();
            Parse(slot);
            lock.lock();
         }
         parsed_.wait(lock, [slot] { return slot->done; });
      }
      if (slot->error) {
         std::rethrow_exception(slot->error);
      }
      if (taking) {
         taking = take(ParsedDocument{std::move(slot->doc.instance), std::move(slot->tree)});
      }
      slot->doc.doc = std::string();  // its text is no longer needed
      slot->tree.reset();
   }
   if (helper_.joinable()) {
      helper_.join();
   }
}

void DocumentBatch::Parse(Slot *slot) noexcept {
   std::exception_ptr error;
   std::unique_ptr<Tree> tree;
   try {
      tree = ParseDocument(slot->doc.doc, dropKeys_);
   } catch (...) {
      error = std::current_exception();
   }
   {
      std::lock_guard<std::mutex> lock(mutex_);
      slot->tree = std::move(tree);
      slot->error = error;
      slot->done = true;
      if (error) {
         failed_ = true;
      }
   }
   parsed_.notify_all();
}

void DocumentBatch::Work() noexcept {
   while (Slot *slot = Take()) {
      Parse(slot);
   }
}

// The helper runs with every signal blocked, so that a signal the
// caller's process expects on its own threads is never delivered to it.
bool DocumentBatch::StartHelper(std::function<void()> body) noexcept {
   sigset_t all;
   sigset_t callers;
   sigfillset(&all);
   if (pthread_sigmask(SIG_SETMASK, &all, &callers) != 0) {
      return false;
   }
   try {
      helper_ = std::thread(std::move(body));
   } catch (const std::system_error &) {
      // No thread: the adding thread parses everything in Finish.
   } catch (const std::bad_alloc &) {
   }
   pthread_sigmask(SIG_SETMASK, &callers, nullptr);
   return helper_.joinable();
}

void DocumentBatch::Stop() noexcept {
   if (!helper_.joinable()) {
      return;
   }
   {
      std::lock_guard<std::mutex> lock(mutex_);
      complete_ = true;
      failed_ = true;  // nothing more is taken
   }
   added_.notify_all();
   helper_.join();
}

}  // namespace detail
}  // namespace configstore
