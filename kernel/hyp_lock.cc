// The "dvshyp" lock: orders the kernel-interface operations that load
// kernel state into the switch registry.  It ranks below "dvsstate" and is
// always taken first; it is recursive so that a holder may call other
// operations that take it.  The plain device commands do not take it.
#include <dvshyp.h>
#include <hostlibs.h>

#include <cstdio>
#include <cstdlib>

#include "kernel/kernel_internal.h"

namespace {

constexpr uint32_t kLockRank = 0xfefffffe;

// Created on first use and never destroyed.
KRecLock *dvsHypLock = nullptr;

}  // namespace

#ifdef DVS_LOCK_RANK_CHECK
void dvs::kernel::CheckHypLockHeld(const char *where) {
   if (!KLock_IsLockedByCaller(__atomic_load_n(&dvsHypLock, __ATOMIC_ACQUIRE))) {
      std::fprintf(stderr, "dvs: %s needs the \"dvshyp\" lock held by its caller\n", where);
      std::fflush(stderr);
      std::abort();
   }
}
#endif

extern "C" {

DVS_EXPORT KRecLock *DVSwitchHYPLock(void) {
   if (__atomic_load_n(&dvsHypLock, __ATOMIC_ACQUIRE) == nullptr) {
      KLock_CreateSingletonRecLockInt(&dvsHypLock, "dvshyp", kLockRank);
   }
   KRecLock *lock = __atomic_load_n(&dvsHypLock, __ATOMIC_ACQUIRE);
   KLock_AcquireRecLock(lock);
   return lock;
}

DVS_EXPORT void DVSwitchHYPUnlock(KRecLock *lock) {
   if (lock != nullptr) {
      KLock_ReleaseRecLock(lock);
   }
}

}  // extern "C"
