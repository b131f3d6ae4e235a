// The module state a save or load leaves behind: the kind of the last
// switch converted, the time spent in store calls, the out-of-memory note
// of the load and the size of the last host blob.  Converters read none of
// it.
#include <atomic>
#include <cstring>
#include <ctime>

#include "configstore/configstore_internal.h"

namespace dvs::configstore {

uint32_t gSwitchClassKind = kClassKindOther;
bool gIsZltSwitch = false;
int64_t gConfigStoreTimeMs = 0;
bool gStoreOutOfMemory = false;

uint32_t SwitchClassKind(const char *className) {
   if (className == nullptr) {
      return kClassKindOther;
   }
   if (std::strcmp(className, "vswitch") == 0) {
      return kClassKindVswitch;
   }
   if (std::strcmp(className, "cswitch") == 0) {
      return kClassKindCswitch;
   }
   return kClassKindOther;
}

namespace {

// Where the next load's host blob starts: set by the last save or load.
std::atomic<uint32_t> gHostBlobSizeHint{0};

void SetHint(uint64_t size) {
   gHostBlobSizeHint.store(size > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(size),
                           std::memory_order_relaxed);
}

}  // namespace

uint32_t HostBlobSizeHint() {
   return gHostBlobSizeHint.load(std::memory_order_relaxed);
}

void NoteLoadedHostBlobSize(uint32_t len) {
   // The next load of the same switches gives the same bytes; the margin
   // covers the end marker the writer keeps room for.
   SetHint(uint64_t{len} + 64);
}

void NoteSavedHostBlobSize(uint32_t len) {
   // A load gives back a little more than was saved (the records the
   // load adds, such as the uplinks' resource pools).
   SetHint(uint64_t{len} + len / 16 + 64);
}

int64_t MonotonicMs() {
   // Read around every converter of a save: the coarse clock costs a
   // quarter of the fine one and ticks every few milliseconds, which the
   // accumulator, whole milliseconds summed over a run, does not need
   // finer (each interval rounds to whole ticks either way, so the sum
   // stays right on average).
   struct timespec ts;
#ifdef CLOCK_MONOTONIC_COARSE
   clock_gettime(CLOCK_MONOTONIC_COARSE, &ts);
#else
   clock_gettime(CLOCK_MONOTONIC, &ts);
#endif
   return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

}  // namespace dvs::configstore
