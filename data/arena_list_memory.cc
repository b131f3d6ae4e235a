// Chunked memory for property lists freed all at once (see
// arena_list_memory.h).
#include "data/arena_list_memory.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "data/list_memory_blocks.h"

namespace dvs::data {

namespace {

// Large enough that a chunk holds a dozen port lists; below the size for
// which the C library maps fresh memory on every request, so that the
// chunks of one save come from its heap and the next save reuses them.
constexpr size_t kChunkSize = 64 * 1024;

thread_local ArenaListMemory *tCurrent = nullptr;

}  // namespace

ArenaListMemory::ArenaListMemory() : outer_(tCurrent) {
   tCurrent = this;
}

ArenaListMemory::~ArenaListMemory() {
   chunks_.FreeAll();
   tCurrent = outer_;
}

void *ArenaListMemory::Take(size_t size) {
   if (size > SIZE_MAX - kChunkSize) {
      return nullptr;
   }
   const size_t need = AlignedForList(size);
   if (need <= room_) {
      void *p = next_;
      next_ += need;
      room_ -= need;
      return p;
   }
   // An entry of more than a quarter chunk gets a chunk of its own, so that
   // the room left in the current one stays for the next small entries.
   const bool apart = need > kChunkSize / 4;
   const size_t bytes = apart ? need : kChunkSize;
   auto *chunk = static_cast<char *>(chunks_.Add(bytes));
   if (chunk == nullptr) {
      return nullptr;
   }
   if (!apart) {
      next_ = chunk + need;
      room_ = kChunkSize - need;
   }
   return chunk;
}

void *ArenaListMemory::Alloc(size_t size) {
   return tCurrent != nullptr ? tCurrent->Take(size) : nullptr;
}

void ArenaListMemory::Free(void *) {}

}  // namespace dvs::data
