// tree_arena.cc -- the memory of one object tree (see document.h).
#include <algorithm>
#include <cstdint>
#include <new>

#include "document.h"

namespace configstore {
namespace detail {

namespace {

// A tree of a few values fits the first block; a switch with thousands of
// ports takes a dozen.
constexpr size_t kFirstBlock = 1024;
constexpr size_t kLargestBlock = 256 * 1024;

}  // namespace

struct TreeArena::Block {
   Block *prev;
   size_t size;  // bytes after the header
   size_t used;
   unsigned char *Bytes() { return reinterpret_cast<unsigned char *>(this) + kHeader; }
   const unsigned char *Bytes() const {
      return reinterpret_cast<const unsigned char *>(this) + kHeader;
   }
   static constexpr size_t kHeader = (sizeof(Block *) + 2 * sizeof(size_t) +
                                      alignof(std::max_align_t) - 1) /
                                     alignof(std::max_align_t) * alignof(std::max_align_t);
};

TreeArena::~TreeArena() {
   while (current_ != nullptr) {
      Block *prev = current_->prev;
      ::operator delete(current_);
      current_ = prev;
   }
}

void *TreeArena::do_allocate(size_t bytes, size_t align) {
   if (current_ != nullptr) {
      const uintptr_t start = reinterpret_cast<uintptr_t>(current_->Bytes());
      // Alignments are powers of two.
      const uintptr_t at = (start + current_->used + align - 1) & ~(uintptr_t{align} - 1);
      if (at - start <= current_->size && bytes <= current_->size - (at - start)) {
         current_->used = at - start + bytes;
         return reinterpret_cast<void *>(at);
      }
   }
   // A new block, large enough for this request at any alignment.
   if (bytes > SIZE_MAX / 2 - Block::kHeader - align) {
      throw std::bad_alloc();
   }
   nextSize_ = nextSize_ == 0 ? kFirstBlock : std::min(nextSize_ * 2, kLargestBlock);
   const size_t size = std::max(nextSize_, bytes + align);
   auto *block = static_cast<Block *>(::operator new(Block::kHeader + size));
   block->prev = current_;
   block->size = size;
   block->used = 0;
   current_ = block;
   return do_allocate(bytes, align);
}

void TreeArena::Touch() const {
   // Newest block first, so that the oldest, where a walk of the tree
   // starts, are the last brought in and the likeliest still there.
   constexpr size_t kLine = 64;
   for (const Block *b = current_; b != nullptr; b = b->prev) {
      const unsigned char *bytes = b->Bytes();
      for (size_t i = 0; i < b->used; i += kLine) {
         __builtin_prefetch(bytes + i);
      }
   }
}

size_t TreeArena::Blocks() const {
   size_t n = 0;
   for (const Block *b = current_; b != nullptr; b = b->prev) {
      ++n;
   }
   return n;
}

size_t TreeArena::Used() const {
   size_t used = 0;
   for (const Block *b = current_; b != nullptr; b = b->prev) {
      used += b->used;
   }
   return used;
}

}  // namespace detail
}  // namespace configstore
