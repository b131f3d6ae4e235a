// Internals shared by the kernel-state views and the persistent-state
// assembly: the "dvshyp" lock guard, the frame that borrows the switch
// registry for the kernel's state, and the fetch of one port's properties.
#ifndef DVS_KERNEL_KERNEL_INTERNAL_H
#define DVS_KERNEL_KERNEL_INTERNAL_H

#include <dvshyp.h>
#include <hostlibs.h>

namespace dvs::kernel {

// In builds with lock checking (DVS_LOCK_RANK_CHECK), aborts naming the
// caller unless the calling thread holds the "dvshyp" lock (see
// DVS_ASSERT_STATE_LOCKED for the registry's own lock).
#ifdef DVS_LOCK_RANK_CHECK
void CheckHypLockHeld(const char *where);
#define DVS_ASSERT_HYP_LOCKED() ::dvs::kernel::CheckHypLockHeld(__func__)
#else
#define DVS_ASSERT_HYP_LOCKED() ((void)0)
#endif

// Holds the "dvshyp" lock from construction to the end of the scope.  It
// ranks below "dvsstate", so it is always taken first.
class HypLockGuard {
  public:
   HypLockGuard() : lock_(DVSwitchHYPLock()) {}
   ~HypLockGuard() { DVSwitchHYPUnlock(lock_); }
   HypLockGuard(const HypLockGuard &) = delete;
   HypLockGuard &operator=(const HypLockGuard &) = delete;

  private:
   KRecLock *lock_;
};

// Removes `entry`, whose predecessor in the list is `prev` (null at the
// head), and releases it.
void RemoveEntry(DVSDataHandle list, DVSDataEntry *prev, DVSDataEntry *entry);

// Walks the list with DVSData_Next and removes every entry for which
// keep(entry) is false.  Returns the status that ended the walk:
// STATUS_NOT_FOUND past the last entry.
template <typename Keep>
ReturnStatus FilterList(DVSDataHandle list, Keep keep) {
   DVSDataEntry *prev = nullptr;
   DVSDataEntry *entry = nullptr;
   ReturnStatus status;
   while ((status = DVSData_Next(list, prev, &entry)) == STATUS_OK) {
      if (keep(entry)) {
         prev = entry;
      } else {
         RemoveEntry(list, prev, entry);
      }
   }
   return status;
}

// Fetches the properties that the kernel holds for one port and decodes
// them into a new list on the process heap, which the caller frees with
// DVSData_Free.  No lock is taken: the list is private.
ReturnStatus FetchPortProps(const char *sw, const char *port, DVSDataHandle *out);

// Name fragment of the properties that do not outlive a restart.
constexpr const char kVolatileFragment[] = ".volatile.";

}  // namespace dvs::kernel

#endif  // DVS_KERNEL_KERNEL_INTERNAL_H
