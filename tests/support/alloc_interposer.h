// Allocation-failure injection for the tests that replace the process
// allocator (malloc, calloc, realloc and free; see alloc_interposer.cc).
// While armed on a thread, the n-th allocation that thread makes fails and
// every block it allocates is remembered until it is freed, so that a run
// can be checked for leaks block by block.  Linked only into executables
// built without the sanitizers, which bring an allocator of their own.
#ifndef TESTS_SUPPORT_ALLOC_INTERPOSER_H
#define TESTS_SUPPORT_ALLOC_INTERPOSER_H

#include <gtest/gtest.h>

namespace allocfail {

// Arms this thread: its n-th allocation from now on fails (n >= 1).
void Arm(long n);
void Disarm();
// Whether the last armed run reached its failing allocation.
bool Injected();
// Allocations made during the last armed run, the failed one included.
long Calls();
// Blocks allocated while armed and not freed since.
long Live();

// op() with the n-th allocation failing; the result of op.
template <class Op>
auto FailingAt(long n, Op op) {
   Arm(n);
   auto result = op();
   Disarm();
   return result;
}

// run(n) for n = 1, 2, ... until a run no longer reaches its n-th
// allocation (run arms through FailingAt).  Returns how many runs had a
// failure injected; a run that still fails after `limit` allocations fails
// the test.
template <class Run>
int ForEachFailure(Run run, int limit = 20000) {
   for (int n = 1; n <= limit; ++n) {
      run(n);
      if (!Injected())
         return n - 1;
   }
   ADD_FAILURE() << "still reaching an injected failure after " << limit << " allocations";
   return limit;
}

}  // namespace allocfail

#endif
