// Scratch memory for short-lived property lists (see scratch_list_memory.h).
#include "data/scratch_list_memory.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "data/list_memory_blocks.h"

namespace dvs::data {

namespace {

// Room for the lists of one port with a few kilobytes of values each; a
// list that needs more takes its large entries apart.
constexpr size_t kBlockSize = 64 * 1024;

thread_local ScratchListMemory *tCurrent = nullptr;

}  // namespace

ScratchListMemory::ScratchListMemory() : outer_(tCurrent) {
   tCurrent = this;
}

ScratchListMemory::~ScratchListMemory() {
   Reset();
   std::free(block_);
   tCurrent = outer_;
}

void ScratchListMemory::Reset() {
   used_ = 0;
   apart_.FreeAll();
}

void *ScratchListMemory::Take(size_t size) {
   if (size <= kBlockSize / 4) {
      if (block_ == nullptr) {
         block_ = static_cast<char *>(std::malloc(kBlockSize));
      }
      const size_t need = AlignedForList(size);
      if (block_ != nullptr && need <= kBlockSize - used_) {
         void *p = block_ + used_;
         used_ += need;
         return p;
      }
   }
   // Large, or the block is full: this one goes apart.
   return apart_.Add(size);
}

void *ScratchListMemory::Alloc(size_t size) {
   return tCurrent != nullptr ? tCurrent->Take(size) : nullptr;
}

void ScratchListMemory::Free(void *) {}

}  // namespace dvs::data
