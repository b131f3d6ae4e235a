// Registry internals shared by the registry, port, property and blob code.
#ifndef DVS_STATE_STATE_INTERNAL_H
#define DVS_STATE_STATE_INTERNAL_H

#include <dvsstate.h>
#include <hostlibs.h>

#include <cstddef>

#include "common/debug_log.h"

// Switch-state messages, gated by dvs_debug.
// The level is tested here, so that a silent trace in a per-port loop
// costs a compare rather than a call.
#define STATE_TRACE(level, ...)                            \
   do {                                                    \
      if (dvs_debug >= (level)) {                          \
         ::dvs::DebugLog(dvs_debug, (level), __VA_ARGS__); \
      }                                                    \
   } while (0)

namespace dvs::state {

// The slot table; null is a free slot.  Guarded by the "dvsstate" lock.
extern DVSwitch *globalSwsArray[DVS_MAX_SWITCHES];
// Port records of all switches together (kept by the port code).
extern uint32_t uwNumActivePortsOnHost;

// Removes the switch with this id and all its ports; the caller holds the
// lock.
ReturnStatus SwitchRemoveLocked(const char *id);

// Removes the first port of this id and type from the switch.
ReturnStatus PortRemove(DVSwitch *dvs, const char *portId, uint32_t type);

// Removes every port of a switch that is being freed, leaving its port
// index out of date.
void RemoveAllPorts(DVSwitch *dvs);

// The text form of a 16-byte switch UUID by which switches are registered:
// "xx xx xx xx xx xx xx xx-xx xx xx xx xx xx xx xx" (47 characters).
constexpr size_t kUuidTextLen = 47;
void FormatSwitchUuid(const uint8_t *uuid, char *buf, size_t size);

// Lock assertions.  In builds with lock checking (DVS_LOCK_RANK_CHECK) the
// internal entry points that run under the "dvsstate" lock held by their
// caller check that the calling thread holds it, and abort naming
// themselves when it does not.  Other builds compile them to nothing.
#ifdef DVS_LOCK_RANK_CHECK
void CheckStateLockHeld(const char *where);
#define DVS_ASSERT_STATE_LOCKED() ::dvs::state::CheckStateLockHeld(__func__)
#else
#define DVS_ASSERT_STATE_LOCKED() ((void)0)
#endif

// Holds the "dvsstate" lock from construction to the end of the scope.
class StateLockGuard {
  public:
   StateLockGuard() : lock_(DVSwitchHandleLock()) {}
   ~StateLockGuard() { DVSwitchHandleUnlock(lock_); }
   StateLockGuard(const StateLockGuard &) = delete;
   StateLockGuard &operator=(const StateLockGuard &) = delete;

  private:
   KRecLock *lock_;
};

// The walk behind the global, host and port-data ForEach calls: calls fn
// for each entry from the head until it returns true.  Returns the status
// of the step that found no further entry (STATUS_NOT_FOUND at the end of
// the list), or the callback's true (1) when it stopped the walk.
ReturnStatus PropListWalk(DVSDataHandle list, DVSPropForEachFn fn, void *ctx);

}  // namespace dvs::state

#endif  // DVS_STATE_STATE_INTERNAL_H
