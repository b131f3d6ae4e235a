// Scratch memory for short-lived property lists (see scratch_list_memory.h).
#include "data/scratch_list_memory.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "data/list_memory_alignment.h"

namespace dvs::data {

namespace {

// Room for the lists of one port with a few kilobytes of values each; a
// list that needs more takes its large entries apart.
constexpr size_t kBlockSize = 64 * 1024;

thread_local ScratchListMemory *tCurrent = nullptr;

}  // namespace

struct ScratchListMemory::Large {
   Large *next;
   alignas(kListMemoryAlignment) unsigned char bytes[1];
};

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
   while (large_ != nullptr) {
      Large *next = large_->next;
      std::free(large_);
      large_ = next;
   }
}

void *ScratchListMemory::TakeApart(size_t size) {
   if (size > SIZE_MAX - offsetof(Large, bytes)) {
      return nullptr;
   }
   auto *large = static_cast<Large *>(std::malloc(offsetof(Large, bytes) + size));
   if (large == nullptr) {
      return nullptr;
   }
   large->next = large_;
   large_ = large;
   return large->bytes;
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
   return TakeApart(size);
}

void *ScratchListMemory::Alloc(size_t size) {
   return tCurrent != nullptr ? tCurrent->Take(size) : nullptr;
}

void ScratchListMemory::Free(void *) {}

}  // namespace dvs::data
