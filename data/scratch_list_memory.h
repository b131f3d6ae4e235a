// Memory for property lists that live only a moment: built, written out as
// a blob and freed, one after the other, many times in one call (the
// store load builds one per port).  Their entries come from a block that
// is used again for the next list instead of being handed to the C
// library and asked back for every entry.
//
// A list takes this memory through ScratchListMemory::Alloc and ::Free as
// its allocation functions, which serve the ScratchListMemory that the
// calling thread has open.  Free gives nothing back; Reset, once the list
// is freed, makes all of it available again, and the end of the scope
// releases everything, so nothing outlives the call that opened it.
#ifndef DVS_DATA_SCRATCH_LIST_MEMORY_H
#define DVS_DATA_SCRATCH_LIST_MEMORY_H

#include <cstddef>

#include "data/list_memory_blocks.h"

namespace dvs::data {

class ScratchListMemory {
  public:
   // Opens this as the calling thread's scratch memory until it goes.
   ScratchListMemory();
   ~ScratchListMemory();
   ScratchListMemory(const ScratchListMemory &) = delete;
   ScratchListMemory &operator=(const ScratchListMemory &) = delete;

   // Forgets every allocation made so far.  The lists they belong to must
   // be gone.
   void Reset();

   // A list's allocation functions.  Alloc gives null when memory runs
   // short or the thread has no scratch memory open.
   static void *Alloc(size_t size);
   static void Free(void *block);

  private:
   void *Take(size_t size);

   char *block_ = nullptr;
   size_t used_ = 0;
   BlockChain apart_;  // allocations too large for the block, or past its end
   ScratchListMemory *outer_;  // the scope this one stands in for
};

}  // namespace dvs::data

#endif  // DVS_DATA_SCRATCH_LIST_MEMORY_H
