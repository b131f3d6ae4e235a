// Allocation failure in the switch-state calls, which use the process
// allocator.  This executable replaces malloc and friends (so it is not
// built with the sanitizers): the n-th allocation of the call under test
// fails, for n = 1, 2, ... until the call runs through.
#include <algorithm>

#include "state_test_support.h"

extern "C" {
void *__libc_malloc(size_t);
void *__libc_calloc(size_t, size_t);
void *__libc_realloc(void *, size_t);
void __libc_free(void *);
}

namespace {

// Per thread, and armed only around the call under test.
thread_local bool t_armed = false, t_injected = false;
thread_local long t_calls = 0, t_failAt = 0, t_live = 0;

bool FailThisOne() {
   return t_armed && ++t_calls == t_failAt && (t_injected = true);
}

}  // namespace

extern "C" void *malloc(size_t n) noexcept {
   void *p = FailThisOne() ? nullptr : __libc_malloc(n);
   return t_live += t_armed && p, p;
}
extern "C" void *calloc(size_t n, size_t size) noexcept {
   void *p = FailThisOne() ? nullptr : __libc_calloc(n, size);
   return t_live += t_armed && p, p;
}
extern "C" void *realloc(void *old, size_t n) noexcept {
   void *p = FailThisOne() ? nullptr : __libc_realloc(old, n);
   return t_live += t_armed && p && !old, p;
}
extern "C" void free(void *p) noexcept {
   t_live -= t_armed && p;
   __libc_free(p);
}

using namespace statetest;

namespace {

class StateAllocFailureTest : public StateTest {};

// Every injected failure must give STATUS_NO_MEMORY (or `other`), leave
// the registry as it was (compared through its host blob) and leave no
// block behind.  Returns how many failures were injected.
template <class Op>
int EachFailure(Op op, ReturnStatus other = STATUS_NO_MEMORY) {
   int n = 1;
   for (;; ++n) {
      const std::string before = HostBlob();
      t_calls = 0, t_failAt = n, t_injected = false, t_live = 0, t_armed = true;
      const ReturnStatus st = op();
      t_armed = false;
      if (!t_injected || n > 500) {
         EXPECT_EQ(st, STATUS_OK) << "ran through";
         return n - 1;
      }
      EXPECT_TRUE(st == STATUS_NO_MEMORY || st == other) << n << ": 0x" << std::hex << st;
      EXPECT_EQ(t_live, 0) << "blocks leaked when allocation " << n << " failed";
      EXPECT_EQ(HostBlob(), before) << "registry changed when allocation " << n << " failed";
   }
}

TEST_F(StateAllocFailureTest, FailedCallsLeaveTheRegistryAsItWas) {
   ASSERT_EQ(DVSState_SwitchAdd("base", "myclass", 10, 7), STATUS_OK);
   ASSERT_EQ(DVSState_PortAdd("base", "p0", NewList({{"k", "v"}})), STATUS_OK);
   ASSERT_EQ(DVSState_GlobalPropSet("base", "g", "1", 1, 0), STATUS_OK);
   EXPECT_GE(EachFailure([] { return DVSState_SwitchAdd("new", "myclass", 3, 100); }), 4);
   const std::string shadow = Blob({{"a", "1"}, {"b", "22"}});
   EXPECT_GE(EachFailure(
                [&] { return DVSState_PortAddShadow("base", "sh", shadow.data(), shadow.size()); }),
             3);
   EXPECT_EQ(DVSState_SwitchFind("base")->numPorts, 2u);
   // The host writer reports any failure inside a switch as STATUS_EXISTS.
   void *b = nullptr;
   uint32_t len = 0;
   EXPECT_GE(
      EachFailure([&] { return DVSState_ConfigSerialize(&(b = nullptr), &len); }, STATUS_EXISTS),
      4);
   const std::string blob(static_cast<char *>(b), b ? len : 0);
   free(b);
   EXPECT_EQ(blob, HostBlob());
   // A failed read empties the registry, so read into an empty one.
   ASSERT_EQ(DVSState_ConfigReset(), STATUS_OK);
   EXPECT_GE(EachFailure([&] { return DVSState_ConfigDeserialize(blob.data(), blob.size()); }), 8);
   EXPECT_EQ(HostBlob(), blob);
}

}  // namespace
