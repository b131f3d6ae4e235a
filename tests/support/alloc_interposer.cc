// Replaces the process allocator with the C library's own entry points
// wrapped in a failure counter.  The C library sends its internal
// allocations (strdup, stdio, vasprintf) through these as well, and the
// C++ runtime's operator new calls malloc, so every allocation of the code
// under test is counted.
#include "alloc_interposer.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>

extern "C" {
void *__libc_malloc(size_t);
void *__libc_calloc(size_t, size_t);
void *__libc_realloc(void *, size_t);
void __libc_free(void *);
}

namespace {

// Armed per thread: only the armed thread's allocations fail and are
// tracked, but a tracked block is untracked by whichever thread frees it
// (a thread the code under test starts may free a block its caller
// allocated), so the table is guarded by a spin lock.
thread_local bool t_armed = false, t_injected = false;
thread_local long t_calls = 0, t_failAt = 0;

// Blocks allocated while armed: an open-addressing set of addresses with
// linear probing and backward-shift removal, so that an empty set is an
// all-null table.
constexpr size_t kSlotBits = 18, kSlots = size_t{1} << kSlotBits, kMask = kSlots - 1;
void *g_slots[kSlots];
std::atomic<long> g_live{0};
bool g_overflow = false;
std::atomic_flag g_lock = ATOMIC_FLAG_INIT;

class TableLock {
  public:
   TableLock() {
      while (g_lock.test_and_set(std::memory_order_acquire)) {
      }
   }
   ~TableLock() { g_lock.clear(std::memory_order_release); }
   TableLock(const TableLock &) = delete;
   TableLock &operator=(const TableLock &) = delete;
};

size_t Home(const void *p) {
   return (reinterpret_cast<uintptr_t>(p) * 0x9E3779B97F4A7C15ull) >> (64 - kSlotBits);
}

void Track(void *p) {
   TableLock lock;
   if (g_live >= long{kSlots / 2}) {
      g_overflow = true;
      return;
   }
   size_t i = Home(p);
   while (g_slots[i] != nullptr)
      i = (i + 1) & kMask;
   g_slots[i] = p;
   ++g_live;
}

bool Untrack(void *p) {
   if (g_live.load(std::memory_order_relaxed) == 0)
      return false;
   TableLock lock;
   size_t i = Home(p);
   while (g_slots[i] != p) {
      if (g_slots[i] == nullptr)
         return false;
      i = (i + 1) & kMask;
   }
   g_slots[i] = nullptr;
   --g_live;
   for (size_t j = (i + 1) & kMask; g_slots[j] != nullptr; j = (j + 1) & kMask) {
      const size_t home = Home(g_slots[j]);
      // Stays put when its home lies cyclically in (i, j].
      if (i <= j ? (i < home && home <= j) : (i < home || home <= j))
         continue;
      g_slots[i] = g_slots[j];
      g_slots[j] = nullptr;
      i = j;
   }
   return true;
}

// A breakpoint here shows where the failing allocation was asked for.
__attribute__((noinline)) bool Inject() {
   asm volatile("");
   return t_injected = true;
}

bool FailThisOne() {
   return t_armed && ++t_calls == t_failAt && Inject();
}

void *Tracked(void *p) {
   if (t_armed && p != nullptr)
      Track(p);
   return p;
}

}  // namespace

extern "C" void *malloc(size_t n) noexcept {
   return FailThisOne() ? nullptr : Tracked(__libc_malloc(n));
}
extern "C" void *calloc(size_t n, size_t size) noexcept {
   return FailThisOne() ? nullptr : Tracked(__libc_calloc(n, size));
}
extern "C" void *realloc(void *old, size_t n) noexcept {
   if (old == nullptr)
      return malloc(n);
   if (n != 0 && FailThisOne())
      return nullptr;  // the old block stays as it was
   void *p = __libc_realloc(old, n);
   // A block that moves keeps being counted only if it was before.
   if (p != old || n == 0) {
      const bool was = Untrack(old);
      if (was && p != nullptr)
         Track(p);
   }
   return p;
}
extern "C" void free(void *p) noexcept {
   if (p != nullptr)
      Untrack(p);
   __libc_free(p);
}

namespace allocfail {

void Arm(long n) {
   {
      TableLock lock;
      if (g_live != 0)
         std::memset(g_slots, 0, sizeof g_slots);
      g_live = 0, g_overflow = false;
   }
   t_calls = 0, t_failAt = n, t_injected = false, t_armed = true;
}
void Disarm() {
   t_armed = false;
}
bool Injected() {
   return t_injected;
}
long Calls() {
   return t_calls;
}
long Live() {
   EXPECT_FALSE(g_overflow) << "too many live blocks to track";
   return g_live;
}

}  // namespace allocfail
