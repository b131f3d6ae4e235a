// Memory for property lists that are built together and all freed together,
// such as the registry a store save rebuilds from its buffer, walks once and
// clears.  Their entries are carved one after the other out of large chunks;
// freeing an entry does nothing, and the end of the scope gives the chunks
// back at once instead of one call to the C library per entry.
//
// A list takes this memory through ArenaListMemory::Alloc and ::Free as its
// allocation functions, which serve the ArenaListMemory that the calling
// thread has open.  Every list made from it must be freed before the scope
// ends.
#ifndef DVS_DATA_ARENA_LIST_MEMORY_H
#define DVS_DATA_ARENA_LIST_MEMORY_H

#include <cstddef>

#include "data/list_memory_blocks.h"

namespace dvs::data {

class ArenaListMemory {
  public:
   // Opens this as the calling thread's arena until it goes.
   ArenaListMemory();
   ~ArenaListMemory();
   ArenaListMemory(const ArenaListMemory &) = delete;
   ArenaListMemory &operator=(const ArenaListMemory &) = delete;

   // A list's allocation functions.  Alloc gives null when memory runs
   // short or the thread has no arena open.
   static void *Alloc(size_t size);
   static void Free(void *block);

  private:
   void *Take(size_t size);

   BlockChain chunks_;        // every chunk taken
   char *next_ = nullptr;     // free room of the chunk being carved
   size_t room_ = 0;
   ArenaListMemory *outer_;  // the arena this one stands in for
};

}  // namespace dvs::data

#endif  // DVS_DATA_ARENA_LIST_MEMORY_H
