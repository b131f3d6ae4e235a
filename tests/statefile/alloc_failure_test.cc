// Allocation failure in the state file's writer and reader, n-th
// allocation for n = 1, 2, ...: every failed write leaves the file holding
// the complete old state, every failed read hands out nothing, and no run
// leaks a block.  Replaces the process allocator (plain build only).
#include <dvsfile.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "alloc_interposer.h"

namespace {

using allocfail::FailingAt;

std::string Contents(const std::string &path) {
   std::ifstream in(path, std::ios::binary);
   return std::string(std::istreambuf_iterator<char>(in), {});
}

std::string Payload(size_t n, char fill) {
   std::string s(n, fill);
   for (size_t i = 0; i < n; i += 97)
      s[i] = char(i);
   return s;
}

class StateFileAllocFailureTest : public testing::Test {
  protected:
   void SetUp() override {
      char tmpl[] = "/tmp/dvsfile-alloc-XXXXXX";
      ASSERT_NE(mkdtemp(tmpl), nullptr);
      dir_ = tmpl;
      path_ = dir_ + "/state.db";
   }
   void TearDown() override { std::filesystem::remove_all(dir_); }
   std::string dir_, path_;
};

TEST_F(StateFileAllocFailureTest, FailedWritesKeepTheOldStateAndFailedReadsHandOutNothing) {
   const std::string oldState = Payload(700, 'o'), newState = Payload(1300, 'n');
   for (int32_t useTmp : {1, 0}) {
      std::string written;
      const int failures = allocfail::ForEachFailure([&](int n) {
         ASSERT_EQ(DVSFile_WriteClassical(path_.c_str(), oldState.data(), oldState.size(), 1),
                   STATUS_OK);
         const std::string before = Contents(path_);
         const ReturnStatus st = FailingAt(n, [&] {
            return DVSFile_WriteClassical(path_.c_str(), newState.data(), newState.size(), useTmp);
         });
         EXPECT_EQ(allocfail::Live(), 0) << n;
         written = Contents(path_);
         if (!allocfail::Injected()) {
            EXPECT_EQ(st, STATUS_OK);
            return;
         }
         EXPECT_EQ(st, STATUS_NO_MEMORY) << n;
         EXPECT_EQ(written, before) << "allocation " << n << " failed, useTmp " << useTmp;
      });
      EXPECT_GE(failures, useTmp ? 2 : 1);
      ASSERT_EQ(written.size(), 1536u);
      EXPECT_EQ(written.substr(0, newState.size()), newState);
   }

   void *buf = reinterpret_cast<void *>(this);
   uint32_t len = 0, offset = 0;
   EXPECT_GE(allocfail::ForEachFailure([&](int n) {
                const ReturnStatus st =
                   FailingAt(n, [&] { return DVSFile_Read(path_.c_str(), &buf, &len, &offset); });
                if (!allocfail::Injected()) {
                   ASSERT_EQ(st, STATUS_OK);
                   EXPECT_EQ(std::string(static_cast<char *>(buf), newState.size()), newState);
                   return free(static_cast<char *>(buf) - offset);
                }
                EXPECT_EQ(st, STATUS_NO_MEMORY);
                EXPECT_EQ(buf, nullptr);
                EXPECT_EQ(allocfail::Live(), 0) << n;
             }),
             1);
}

}  // namespace
