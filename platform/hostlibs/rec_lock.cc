/*
 * rec_lock.cc -- named, ranked, recursive locks.
 *
 * Each lock is a plain (non-recursive) pthread mutex plus the token of the
 * owning thread and a nesting depth.  The owner token is atomic so that any
 * thread may ask "do I hold this?" without taking the mutex: a thread can
 * only ever read its own token back from a lock it really holds.  The depth
 * and the held-list link are touched only by the holder, under the mutex.
 *
 * Rank checking (HOSTLIBS_LOCK_RANK_CHECK): every thread keeps an intrusive
 * list of the locks it holds, linked through the locks themselves (a lock has
 * at most one holder, so one link field per lock suffices and nothing is
 * allocated).  Taking a lock that the thread does not hold yet is refused
 * when the thread already holds a lock of higher OR EQUAL rank: two distinct
 * locks of the same rank have no defined order between them, so nesting them
 * could deadlock against a thread that nests them the other way round.
 * Re-taking a lock the thread already holds is always allowed.
 */
#include "hostlibs.h"

#include <pthread.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

struct KRecLock {
   pthread_mutex_t mutex;
   std::atomic<uint64_t> owner; /* token of the holding thread, 0 when free */
   uint32_t depth;              /* nesting depth; holder only */
   uint32_t rank;
   KRecLock *nextHeld; /* holder's held-lock list; holder only */
   char name[KLOCK_NAME_MAX];
};

namespace {

/* Tokens are never reused, unlike pthread_t values or stack addresses. */
std::atomic<uint64_t> nextThreadToken{1};

uint64_t ThreadToken() {
   thread_local uint64_t token = 0;
   if (token == 0) {
      token = nextThreadToken.fetch_add(1, std::memory_order_relaxed);
   }
   return token;
}

#ifdef HOSTLIBS_LOCK_RANK_CHECK
thread_local KRecLock *heldLocks = nullptr;

[[noreturn]] void RankViolation(const KRecLock *taking, const KRecLock *held) {
   std::fprintf(stderr,
                "hostlibs: lock rank violation: taking \"%s\" (rank 0x%08x) while holding "
                "\"%s\" (rank 0x%08x)\n",
                taking->name, taking->rank, held->name, held->rank);
   std::fflush(stderr);
   std::abort();
}

void CheckRankBeforeTaking(const KRecLock *lock) {
   for (const KRecLock *held = heldLocks; held != nullptr; held = held->nextHeld) {
      if (held->rank >= lock->rank) {
         RankViolation(lock, held);
      }
   }
}

void PushHeld(KRecLock *lock) {
   lock->nextHeld = heldLocks;
   heldLocks = lock;
}

/* Locks may be released in any order, so unlink wherever it sits. */
void PopHeld(KRecLock *lock) {
   for (KRecLock **link = &heldLocks; *link != nullptr; link = &(*link)->nextHeld) {
      if (*link == lock) {
         *link = lock->nextHeld;
         lock->nextHeld = nullptr;
         return;
      }
   }
}
#endif

/* Guards first creation of every singleton lock. */
pthread_mutex_t createMutex = PTHREAD_MUTEX_INITIALIZER;

/* Locks are published once and never destroyed, so this is the only place
 * that frees one: when its mutex cannot be set up. */
KRecLock *NewLock(const char *name, uint32_t rank) {
   void *mem = std::malloc(sizeof(KRecLock));
   if (mem == nullptr) {
      return nullptr;
   }
   KRecLock *lock = static_cast<KRecLock *>(mem);
   new (&lock->owner) std::atomic<uint64_t>(0);
   lock->depth = 0;
   lock->rank = rank;
   lock->nextHeld = nullptr;
   Str_Strcpy(lock->name, name, sizeof lock->name);
   if (pthread_mutex_init(&lock->mutex, nullptr) != 0) {
      std::free(mem);
      return nullptr;
   }
   return lock;
}

bool HeldByCaller(const KRecLock *lock) {
   return lock->owner.load(std::memory_order_relaxed) == ThreadToken();
}

}  // namespace

extern "C" {

HOSTLIBS_EXPORT ReturnStatus KLock_CreateSingletonRecLockInt(KRecLock **storage, const char *name,
                                                             uint32_t rank) {
   if (storage == nullptr || name == nullptr) {
      return STATUS_BAD_PARAM;
   }
   if (__atomic_load_n(storage, __ATOMIC_ACQUIRE) != nullptr) {
      return STATUS_OK;
   }

   /*
    * First creation is serialised rather than raced with compare-exchange:
    * only one thread ever writes *storage, so callers may read their storage
    * slot with plain loads afterwards (a losing compare-exchange counts as a
    * write to race detectors, which would flag every such read).
    */
   pthread_mutex_lock(&createMutex);
   ReturnStatus status = STATUS_OK;
   if (__atomic_load_n(storage, __ATOMIC_ACQUIRE) == nullptr) {
      KRecLock *lock = NewLock(name, rank);
      if (lock != nullptr) {
         __atomic_store_n(storage, lock, __ATOMIC_RELEASE);
      } else {
         status = STATUS_NO_MEMORY;
      }
   }
   pthread_mutex_unlock(&createMutex);
   return status;
}

HOSTLIBS_EXPORT void KLock_AcquireRecLock(KRecLock *lock) {
   if (lock == nullptr) {
      return;
   }
   if (HeldByCaller(lock)) {
      lock->depth++;
      return;
   }
#ifdef HOSTLIBS_LOCK_RANK_CHECK
   CheckRankBeforeTaking(lock);
#endif
   pthread_mutex_lock(&lock->mutex);
   lock->owner.store(ThreadToken(), std::memory_order_relaxed);
   lock->depth = 1;
#ifdef HOSTLIBS_LOCK_RANK_CHECK
   PushHeld(lock);
#endif
}

HOSTLIBS_EXPORT void KLock_ReleaseRecLock(KRecLock *lock) {
   if (lock == nullptr) {
      return;
   }
   if (!HeldByCaller(lock)) {
#ifdef HOSTLIBS_LOCK_RANK_CHECK
      std::fprintf(stderr, "hostlibs: releasing lock \"%s\" (rank 0x%08x) not held by caller\n",
                   lock->name, lock->rank);
      std::fflush(stderr);
      std::abort();
#else
      return;
#endif
   }
   if (--lock->depth > 0) {
      return;
   }
#ifdef HOSTLIBS_LOCK_RANK_CHECK
   PopHeld(lock);
#endif
   lock->owner.store(0, std::memory_order_relaxed);
   pthread_mutex_unlock(&lock->mutex);
}

HOSTLIBS_EXPORT bool KLock_IsLockedByCaller(const KRecLock *lock) {
   return lock != nullptr && HeldByCaller(lock);
}

HOSTLIBS_EXPORT const char *KLock_Name(const KRecLock *lock) {
   return lock != nullptr ? lock->name : "";
}

HOSTLIBS_EXPORT uint32_t KLock_Rank(const KRecLock *lock) {
   return lock != nullptr ? lock->rank : 0;
}

}  // extern "C"
