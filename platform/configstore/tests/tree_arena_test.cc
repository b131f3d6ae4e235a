// The memory of an object tree: allocations of any size and alignment,
// each usable to its last byte and apart from every other; blocks that
// grow, and a count of what was handed out that the sweep relies on.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <map>
#include <memory_resource>
#include <string>
#include <string_view>
#include <vector>

#include "document.h"

namespace {

using configstore::detail::TreeArena;

TEST(TreeArenaTest, AllocationsOfAnyShapeAreAlignedAndApart) {
   TreeArena arena;
   EXPECT_EQ(arena.Blocks(), 0u);
   std::map<uintptr_t, size_t> taken;  // start -> bytes
   size_t asked = 0;
   for (int round = 0; round < 40; round++) {
      for (size_t align : {1u, 2u, 8u, 16u, 64u, 4096u}) {
         for (size_t bytes : {0u, 1u, 24u, 100u, 4000u, 70000u, 300000u}) {
            void *p = arena.allocate(bytes, align);
            ASSERT_EQ(reinterpret_cast<uintptr_t>(p) % align, 0u) << bytes << "/" << align;
            std::memset(p, round, bytes);  // every byte is the caller's
            asked += bytes;
            if (bytes == 0) {
               continue;
            }
            const uintptr_t at = reinterpret_cast<uintptr_t>(p);
            auto next = taken.lower_bound(at);
            ASSERT_TRUE(next == taken.end() || next->first >= at + bytes) << "overlaps the next";
            ASSERT_TRUE(next == taken.begin() || std::prev(next)->first + std::prev(next)->second <= at)
               << "overlaps the one before";
            taken.emplace(at, bytes);
         }
      }
   }
   // Padding aside, what was handed out is what was asked; blocks double
   // up to a limit, so a few hundred of them hold all this.
   EXPECT_GE(arena.Used(), asked);
   EXPECT_LE(arena.Used(), asked + taken.size() * 4096);
   EXPECT_GT(arena.Blocks(), 10u);
   EXPECT_LT(arena.Blocks(), taken.size());
   arena.Touch();
}

TEST(TreeArenaTest, ContainersOnTopSmallAndLarge) {
   {
      TreeArena arena;
      std::pmr::string s("a few bytes that need a block of their own", &arena);
      EXPECT_EQ(arena.Blocks(), 1u) << "a small tree takes one small block";
      EXPECT_LT(arena.Used(), 128u);
   }
   TreeArena arena;
   std::pmr::vector<std::pmr::string> strings(&arena);
   for (int i = 0; i < 20000; i++) {
      strings.emplace_back(std::string(static_cast<size_t>(i % 300), static_cast<char>('a' + i % 26)));
   }
   for (int i = 0; i < 20000; i += 997) {
      EXPECT_EQ(std::string_view(strings[static_cast<size_t>(i)]),
                std::string(static_cast<size_t>(i % 300), static_cast<char>('a' + i % 26)));
   }
   EXPECT_GT(arena.Used(), 20000u * 150);
   arena.Touch();
}

}  // namespace
