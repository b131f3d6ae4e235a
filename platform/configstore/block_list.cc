// block_list.cc -- the upstream of a tree's arena, which remembers its
// blocks so that the tree can be brought into the cache in one sweep.
#include <algorithm>
#include <cstdint>
#include <new>

#include "document.h"

namespace configstore {
namespace detail {

namespace {

// The header sits right before the block; the room taken for it keeps
// the block at the alignment asked for.
size_t HeadRoom(size_t headerSize, size_t align) {
   return (headerSize + align - 1) / align * align;
}

}  // namespace

void *BlockList::do_allocate(size_t bytes, size_t align) {
   align = std::max(align, alignof(Header));
   const size_t head = HeadRoom(sizeof(Header), align);
   if (bytes > SIZE_MAX - head) {
      throw std::bad_alloc();
   }
   auto *raw = static_cast<unsigned char *>(
      std::pmr::new_delete_resource()->allocate(head + bytes, align));
   unsigned char *block = raw + head;
   auto *h = new (block - sizeof(Header)) Header{first_, nullptr, bytes};
   if (first_ != nullptr) {
      first_->prev = h;
   }
   first_ = h;
   return block;
}

void BlockList::do_deallocate(void *p, size_t bytes, size_t align) {
   align = std::max(align, alignof(Header));
   const size_t head = HeadRoom(sizeof(Header), align);
   auto *block = static_cast<unsigned char *>(p);
   auto *h = reinterpret_cast<Header *>(block - sizeof(Header));
   (h->prev != nullptr ? h->prev->next : first_) = h->next;
   if (h->next != nullptr) {
      h->next->prev = h->prev;
   }
   std::pmr::new_delete_resource()->deallocate(block - head, head + bytes, align);
}

void BlockList::Touch() const {
   // Newest block first, so that the oldest, where the walk of the tree
   // starts, are the last brought in and the likeliest still there.
   constexpr size_t kLine = 64;
   for (const Header *h = first_; h != nullptr; h = h->next) {
      const auto *bytes = reinterpret_cast<const unsigned char *>(h + 1);
      for (size_t i = 0; i < h->bytes; i += kLine) {
         __builtin_prefetch(bytes + i);
      }
   }
}

size_t BlockList::Blocks() const {
   size_t n = 0;
   for (const Header *h = first_; h != nullptr; h = h->next) {
      ++n;
   }
   return n;
}

size_t BlockList::Bytes() const {
   size_t bytes = 0;
   for (const Header *h = first_; h != nullptr; h = h->next) {
      bytes += h->bytes;
   }
   return bytes;
}

}  // namespace detail
}  // namespace configstore
