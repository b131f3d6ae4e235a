// idle_backends.cc -- the few connections a process keeps open between its
// stores (see idle_backends.h).
#include "idle_backends.h"

#include <unistd.h>

#include <array>
#include <atomic>
#include <mutex>
#include <utility>

namespace configstore {
namespace detail {
namespace {

// Enough for the stores that a process's threads use at once; more idle
// connections would only hold files and page caches open.
constexpr size_t kMaxIdle = 4;

using Idle = std::array<std::unique_ptr<Backend>, kMaxIdle>;

// Closes a backend that leaves the idle set: as DestroyStore closes one
// while its files are its own, else without touching them.
void Close(std::unique_ptr<Backend> backend) noexcept {
   if (backend != nullptr && !backend->StillServes()) {
      backend->Disown();
   }
}

void CloseAll(Idle idle) noexcept {
   for (std::unique_ptr<Backend> &backend : idle) {
      Close(std::move(backend));
   }
}

class IdleBackends {
  public:
   IdleBackends() = default;
   IdleBackends(const IdleBackends &) = delete;
   IdleBackends &operator=(const IdleBackends &) = delete;
   ~IdleBackends() {
      gone_.store(true);
      CloseAll(TakeAll());
   }

   // Whether the set still exists: a store destroyed while the process
   // exits, after the set, is closed at once.
   static bool Gone() noexcept { return gone_.load(); }

   std::unique_ptr<Backend> Take(std::string_view place) noexcept {
      Idle retired;
      std::unique_ptr<Backend> found;
      {
         std::lock_guard<std::mutex> hold(mutex_);
         ForgetIfForked();
         // The newest first: its pages are the likeliest to be cached.
         for (size_t i = idle_.size(); i-- > 0 && found == nullptr;) {
            std::unique_ptr<Backend> &slot = idle_[i];
            if (slot == nullptr || slot->Place() != place) {
               continue;
            }
            if (slot->StillServes()) {
               found = std::move(slot);
            } else {
               retired[i] = std::move(slot);
            }
         }
         Compact();
      }
      CloseAll(std::move(retired));
      return found;
   }

   void Keep(std::unique_ptr<Backend> backend) noexcept {
      std::unique_ptr<Backend> oldest;
      {
         std::lock_guard<std::mutex> hold(mutex_);
         ForgetIfForked();
         if (idle_.back() != nullptr) {
            oldest = std::move(idle_.front());
            Compact();
         }
         for (std::unique_ptr<Backend> &slot : idle_) {
            if (slot == nullptr) {
               slot = std::move(backend);
               break;
            }
         }
      }
      Close(std::move(oldest));
   }

   Idle TakeAll() noexcept {
      std::lock_guard<std::mutex> hold(mutex_);
      ForgetIfForked();
      return std::exchange(idle_, Idle{});
   }

  private:
   // A child of fork() holds copies of its parent's connections, whose
   // locks belong to the parent: using or even closing them could damage
   // the database, so the child lets go of them without a call.  (The
   // child of a process with other threads may call only async-signal-
   // safe functions until it execs, so it never gets here with the
   // mutex held by a thread that no longer exists.)
   void ForgetIfForked() noexcept {
      const pid_t self = ::getpid();
      if (self == owner_) {
         return;
      }
      for (size_t i = 0; i < idle_.size(); ++i) {
         // Still reachable from here, for leak checkers: the memory is
         // the parent's as much as the connection.
         inherited_[i] = idle_[i].release();
      }
      owner_ = self;
   }

   // Moves the idle backends to the front, oldest first.
   void Compact() noexcept {
      size_t next = 0;
      for (size_t i = 0; i < idle_.size(); ++i) {
         if (idle_[i] != nullptr) {
            if (i != next) {
               idle_[next] = std::move(idle_[i]);
            }
            ++next;
         }
      }
   }

   static std::atomic<bool> gone_;
   std::mutex mutex_;
   Idle idle_;  // oldest first, the empty slots last
   std::array<Backend *, kMaxIdle> inherited_{};  // the parent's, never closed
   pid_t owner_ = ::getpid();
};

std::atomic<bool> IdleBackends::gone_{false};

IdleBackends &TheIdleBackends() {
   static IdleBackends idle;
   return idle;
}

}  // namespace

std::unique_ptr<Backend> TakeIdleBackend(std::string_view place) noexcept {
   if (place.empty() || IdleBackends::Gone()) {
      return nullptr;
   }
   return TheIdleBackends().Take(place);
}

void ReleaseBackend(std::unique_ptr<Backend> backend) noexcept {
   if (backend == nullptr || backend->Place().empty() || IdleBackends::Gone() ||
       !backend->Park()) {
      return;  // closed here, as the store's own
   }
   TheIdleBackends().Keep(std::move(backend));
}

void CloseIdleBackends() noexcept {
   if (!IdleBackends::Gone()) {
      CloseAll(TheIdleBackends().TakeAll());
   }
}

}  // namespace detail
}  // namespace configstore
