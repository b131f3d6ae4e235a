// The block list under a tree's arena: blocks of any size and alignment,
// usable to their last byte, given back in any order with the list still
// telling exactly what is held; and a tree's arena on top of it.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <memory_resource>
#include <random>
#include <vector>

#include "document.h"

namespace {

using configstore::detail::BlockList;

struct Held {
   void *p;
   size_t bytes, align;
};

TEST(BlockListTest, BlocksOfAnyShapeGivenBackInAnyOrder) {
   BlockList blocks;
   std::vector<Held> held;
   size_t total = 0;
   std::mt19937 rng(3);
   for (size_t align : {1u, 8u, 16u, 64u, 4096u}) {
      for (size_t bytes : {1u, 24u, 100u, 4096u, 70000u}) {
         void *p = blocks.allocate(bytes, align);
         ASSERT_EQ(reinterpret_cast<uintptr_t>(p) % align, 0u) << bytes << "/" << align;
         std::memset(p, 0x5a, bytes);  // every byte is the caller's
         held.push_back({p, bytes, align});
         total += bytes;
      }
   }
   EXPECT_EQ(blocks.Blocks(), held.size());
   EXPECT_EQ(blocks.Bytes(), total);
   blocks.Touch();
   // First, last and middle ones, then the rest in a shuffled order.
   for (size_t pick : {size_t{0}, held.size() - 2, held.size() / 2}) {
      const Held h = held[pick];
      held.erase(held.begin() + static_cast<std::ptrdiff_t>(pick));
      blocks.deallocate(h.p, h.bytes, h.align);
      total -= h.bytes;
      EXPECT_EQ(blocks.Bytes(), total);
   }
   std::shuffle(held.begin(), held.end(), rng);
   while (!held.empty()) {
      blocks.deallocate(held.back().p, held.back().bytes, held.back().align);
      total -= held.back().bytes;
      held.pop_back();
      EXPECT_EQ(blocks.Blocks(), held.size());
      EXPECT_EQ(blocks.Bytes(), total);
      blocks.Touch();
   }
}

TEST(BlockListTest, ArenaOnTopHandsEverythingBack) {
   BlockList blocks;
   {
      std::pmr::monotonic_buffer_resource arena(&blocks);
      std::pmr::vector<std::pmr::string> strings(&arena);
      for (int i = 0; i < 20000; i++) {
         strings.emplace_back(std::string(static_cast<size_t>(i % 300), 'x'));
      }
      EXPECT_GT(blocks.Blocks(), 4u);
      EXPECT_GT(blocks.Bytes(), 20000u * 150);
      blocks.Touch();
   }
   EXPECT_EQ(blocks.Blocks(), 0u);
   EXPECT_EQ(blocks.Bytes(), 0u);
}

}  // namespace
