// The block chain shared by scratch and arena list memory (see
// list_memory_blocks.h).
#include "data/list_memory_blocks.h"

#include <cstdint>
#include <cstdlib>

namespace dvs::data {

struct BlockChain::Block {
   Block *next;
   alignas(kListMemoryAlignment) unsigned char bytes[1];
};

void *BlockChain::Add(size_t size) {
   if (size > SIZE_MAX - offsetof(Block, bytes)) {
      return nullptr;
   }
   auto *block = static_cast<Block *>(std::malloc(offsetof(Block, bytes) + size));
   if (block == nullptr) {
      return nullptr;
   }
   block->next = newest_;
   newest_ = block;
   return block->bytes;
}

void BlockChain::FreeAll() {
   while (newest_ != nullptr) {
      Block *next = newest_->next;
      std::free(newest_);
      newest_ = next;
   }
}

}  // namespace dvs::data
