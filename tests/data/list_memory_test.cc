// Lists built in scratch and arena memory: the same blobs as lists on the
// process allocator, entries of any size; no memory without an open scope;
// and every block failing in turn gives a clean NO_MEMORY with nothing left
// behind once the list is freed and the scope closed.  Scratch memory
// serves list after list from the same block; an arena carves its small
// entries from one chunk around the large ones it keeps apart.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <type_traits>
#include <vector>

#include "data/arena_list_memory.h"
#include "data/scratch_list_memory.h"
#include "tests/support/prop_lists.h"
#ifdef DVS_TEST_ALLOC_FAILURE
#include "tests/support/alloc_interposer.h"
#endif

namespace {

using dvs::data::ArenaListMemory;
using dvs::data::ScratchListMemory;
using testsupport::Props;

// Short values, one larger than a quarter of the block, and enough of them
// that the block fills and the rest goes apart.
Props PortProps(int port, int count) {
   Props props;
   for (int i = 0; i < count; i++) {
      const size_t len = i == 3 ? 20000u + static_cast<size_t>(port) : static_cast<size_t>(i % 7 + port % 3);
      props.emplace_back("prop-" + std::to_string(i), std::string(len, static_cast<char>('a' + (port + i) % 26)));
   }
   return props;
}

// props built into a list in Memory, the first one then replaced.
template <typename Memory>
ReturnStatus Build(const Props &props, DVSDataHandle *out) {
   DVSDataHandle list = nullptr;
   ReturnStatus status = DVSData_Alloc(&list, Memory::Alloc, Memory::Free);
   for (size_t i = 0; status == STATUS_OK && i < props.size(); i++) {
      const auto &[name, value] = props[i];
      status = DVSData_Append(list, name.c_str(), value.data(), uint32_t(value.size()), 0x10);
   }
   // A repeated name replaces its entry: the old one is "freed" in place.
   if (status == STATUS_OK && !props.empty()) {
      status = DVSData_Update(list, props[0].first.c_str(), "new", 3, 0x10);
   }
   *out = list;
   return status;
}

// A list serialized into a buffer of the test's own; the list is freed.
std::string BlobOf(DVSDataHandle list) {
   uint32_t len = DVSData_SerializedSize(list, 6);
   std::string out(len, '\0');
   void *blob = out.data();
   EXPECT_EQ(DVSData_Serialize(list, &blob, &len, 6), STATUS_OK);
   DVSData_Free(list);
   return out;
}

// props built in Memory and written out; empty when the build failed.
template <typename Memory = ScratchListMemory>
std::string BuiltBlob(const Props &props, ReturnStatus *status) {
   DVSDataHandle list = nullptr;
   *status = Build<Memory>(props, &list);
   if (*status != STATUS_OK) {
      DVSData_Free(list);
      return "";
   }
   return BlobOf(list);
}

std::string Expected(Props props) {
   props.erase(props.begin());
   props.emplace_back(PortProps(0, 1)[0].first, "new");
   return testsupport::Serialize(props, 0x10, 6);
}

template <typename Memory>
class ListMemoryTest : public ::testing::Test {};
using Memories = ::testing::Types<ScratchListMemory, ArenaListMemory>;
TYPED_TEST_SUITE(ListMemoryTest, Memories);

TYPED_TEST(ListMemoryTest, ListsOfAnySizeGiveTheHeapsBlobs) {
   ReturnStatus st = STATUS_OK;
   EXPECT_EQ(TypeParam::Alloc(16), nullptr) << "no scope open";
   {
      TypeParam memory;
      // Lists kept together, as a registry keeps its ports, then written.
      std::vector<DVSDataHandle> lists;
      for (int port = 0; port < 60 && st == STATUS_OK; port++) {
         lists.push_back(nullptr);
         st = Build<TypeParam>(PortProps(port, 5 + port * 11), &lists.back());
      }
      ASSERT_EQ(st, STATUS_OK);
      for (size_t port = 0; port < lists.size(); port++) {
         EXPECT_EQ(BlobOf(lists[port]), Expected(PortProps(int(port), 5 + int(port) * 11)))
            << port;
      }
   }
   EXPECT_EQ(TypeParam::Alloc(16), nullptr) << "the scope is closed";
   EXPECT_TRUE(BuiltBlob<TypeParam>(PortProps(1, 3), &st).empty());
   EXPECT_EQ(st, STATUS_NO_MEMORY);
}

TEST(ArenaListMemoryTest, SmallEntriesAroundLargeOnesShareAChunk) {
   ArenaListMemory arena;
   auto *first = static_cast<char *>(ArenaListMemory::Alloc(40));
   ASSERT_NE(first, nullptr);
   EXPECT_EQ(reinterpret_cast<uintptr_t>(first) % alignof(std::max_align_t), 0u);
   // A large entry goes apart; the next small one follows the first.
   auto *large = static_cast<char *>(ArenaListMemory::Alloc(200000));
   ASSERT_NE(large, nullptr);
   std::memset(large, 0x5a, 200000);
   auto *second = static_cast<char *>(ArenaListMemory::Alloc(1));
   EXPECT_EQ(second, first + 48);
   {
      // An inner arena stands in for the outer one until it goes.
      ArenaListMemory inner;
      auto *innerFirst = static_cast<char *>(ArenaListMemory::Alloc(8));
      ASSERT_NE(innerFirst, nullptr);
      EXPECT_TRUE(innerFirst < first || innerFirst >= first + 48 + 16);
   }
   EXPECT_EQ(ArenaListMemory::Alloc(8), second + 16);
   EXPECT_EQ(ArenaListMemory::Alloc(SIZE_MAX - 8), nullptr);
}

TEST(ScratchListMemoryTest, ListAfterListInTheSameMemory) {
   ReturnStatus st = STATUS_OK;
   EXPECT_EQ(ScratchListMemory::Alloc(16), nullptr) << "no scope open";
   {
      ScratchListMemory scratch;
      const void *first = ScratchListMemory::Alloc(40);
      ASSERT_NE(first, nullptr);
      EXPECT_EQ(reinterpret_cast<uintptr_t>(first) % alignof(std::max_align_t), 0u);
      for (int port = 0; port < 40; port++) {
         const Props props = PortProps(port, 5 + port * 7);
         ASSERT_EQ(BuiltBlob(props, &st), Expected(props)) << port;
         ASSERT_EQ(st, STATUS_OK);
         scratch.Reset();
         EXPECT_EQ(ScratchListMemory::Alloc(40), first) << "the next list starts where the first did";
         scratch.Reset();
      }
      {
         // An inner scope stands in for the outer one until it goes.
         ScratchListMemory inner;
         EXPECT_NE(ScratchListMemory::Alloc(40), first);
      }
      EXPECT_EQ(ScratchListMemory::Alloc(40), first);
   }
   EXPECT_EQ(ScratchListMemory::Alloc(16), nullptr) << "the scope is closed";
   EXPECT_TRUE(BuiltBlob(PortProps(1, 3), &st).empty());
   EXPECT_EQ(st, STATUS_NO_MEMORY);
}

#ifdef DVS_TEST_ALLOC_FAILURE
TYPED_TEST(ListMemoryTest, RunningOutOfMemoryLeavesNothingBehind) {
   // Enough entries to fill a scratch block, so that the rest go apart,
   // and to take an arena more than one chunk.
   const Props props = PortProps(2, 1500);
   const std::string want = Expected(props);
   const int failures = allocfail::ForEachFailure([&](long n) {
      std::string got;
      ReturnStatus st = STATUS_OK;
      {
         TypeParam memory;
         DVSDataHandle list = nullptr;
         st = allocfail::FailingAt(n, [&] { return Build<TypeParam>(props, &list); });
         if (st == STATUS_OK) {
            got = BlobOf(list);
         } else {
            DVSData_Free(list);
         }
      }
      if (!allocfail::Injected()) {
         EXPECT_EQ(st, STATUS_OK);
         EXPECT_EQ(got, want);
         return;
      }
      // A scratch block failing leaves the entries to go apart: that can
      // still succeed.
      if (st == STATUS_OK) {
         EXPECT_EQ(got, want) << "failure at " << n;
      } else {
         EXPECT_EQ(st, STATUS_NO_MEMORY) << "failure at " << n;
      }
      EXPECT_EQ(allocfail::Live(), 0) << "failure at " << n;
   });
   // An arena asks the C library for a chunk at a time, scratch memory
   // for each entry that goes apart.
   EXPECT_GT(failures, (std::is_same_v<TypeParam, ArenaListMemory> ? 2 : 100));
}
#endif

}  // namespace
