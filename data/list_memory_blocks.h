// What scratch and arena list memory have in common: blocks aligned as the
// C library's own allocations are (so that a list cannot tell where its
// entries came from), taken from the C library one at a time and all given
// back together.
#ifndef DVS_DATA_LIST_MEMORY_BLOCKS_H
#define DVS_DATA_LIST_MEMORY_BLOCKS_H

#include <cstddef>

namespace dvs::data {

constexpr size_t kListMemoryAlignment = alignof(std::max_align_t);

// size rounded up to the alignment; callers keep size well below SIZE_MAX.
constexpr size_t AlignedForList(size_t size) {
   return (size + kListMemoryAlignment - 1) & ~(kListMemoryAlignment - 1);
}

// Blocks of any size, kept on a chain until FreeAll or the end.
class BlockChain {
  public:
   BlockChain() = default;
   ~BlockChain() { FreeAll(); }
   BlockChain(const BlockChain &) = delete;
   BlockChain &operator=(const BlockChain &) = delete;

   // A new aligned block of `size` bytes, or null when memory runs short.
   void *Add(size_t size);
   void FreeAll();

  private:
   struct Block;
   Block *newest_ = nullptr;
};

}  // namespace dvs::data

#endif  // DVS_DATA_LIST_MEMORY_BLOCKS_H
