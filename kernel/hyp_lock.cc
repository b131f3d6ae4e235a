// The "dvshyp" lock: orders the kernel-interface operations that load
// kernel state into the switch registry.  It ranks below "dvsstate" and is
// always taken first; it is recursive so that a holder may call other
// operations that take it.  The plain device commands do not take it.
#include <dvshyp.h>
#include <hostlibs.h>

namespace {

constexpr uint32_t kLockRank = 0xfefffffe;

// Created on first use and never destroyed.
KRecLock *dvsHypLock = nullptr;

}  // namespace

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
