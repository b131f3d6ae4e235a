// The state file: sizes and padding, the returned buffer, the failure
// statuses and their log lines, the fallback from direct I/O, and a writer
// killed at random moments.

// The stand-ins for open, pread and pwrite below need the plain declarations.
#undef _FORTIFY_SOURCE
#include <dvsfile.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/support/temp_dir.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdarg>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <set>
#include <string>
#include <vector>

#include "tests/kill_loop_support.h"

namespace {

// Some file systems refuse a direct open; some devices accept it but refuse
// transfers aligned to less than their sector.  The library's open, pread
// and pwrite resolve to the definitions below (the executable comes first
// in symbol lookup), which pass through unless a test plays one of those.
enum class Refuse { kNothing, kDirectOpen, kDirectTransfer };
Refuse g_refuse = Refuse::kNothing;
int g_directOpens = 0;

bool RefuseTransfer(int fd) {
   return g_refuse == Refuse::kDirectTransfer && (fcntl(fd, F_GETFL) & O_DIRECT) != 0;
}

}  // namespace

extern "C" __attribute__((visibility("default"))) int open(const char *path, int flags, ...) {
   va_list ap;
   va_start(ap, flags);
   const mode_t mode = __OPEN_NEEDS_MODE(flags) ? va_arg(ap, mode_t) : 0;
   va_end(ap);
   if ((flags & O_DIRECT) != 0 && (++g_directOpens, g_refuse == Refuse::kDirectOpen))
      return errno = EINVAL, -1;
   return static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, flags, mode));
}
extern "C" __attribute__((visibility("default"))) ssize_t pread(int fd, void *b, size_t n,
                                                                off_t o) {
   return RefuseTransfer(fd) ? (errno = EINVAL, -1) : syscall(SYS_pread64, fd, b, n, o);
}
extern "C" __attribute__((visibility("default"))) ssize_t pwrite(int fd, const void *b, size_t n,
                                                                 off_t o) {
   return RefuseTransfer(fd) ? (errno = EINVAL, -1) : syscall(SYS_pwrite64, fd, b, n, o);
}

namespace {

using Bytes = std::vector<uint8_t>;

// `len` bytes that differ from those of any other `seed`.
Bytes Payload(uint32_t len, uint8_t seed) {
   Bytes p(len);
   for (uint32_t i = 0; i < len; ++i)
      p[i] = static_cast<uint8_t>(seed * 31 + i * 7 + (i >> 8));
   return p;
}

uint32_t Padded(size_t len) {
   return static_cast<uint32_t>((len + 511) / 512 * 512);
}

// A whole-file read, released as callers must: free(pointer - offset).
struct ReadResult {
   ReturnStatus status;
   uint8_t *data = nullptr;
   uint32_t len = 0, offset = 0;

   explicit ReadResult(const std::string &path) {
      void *buf = &len;  // must come back NULL on failure
      status = DVSFile_Read(path.c_str(), &buf, &len, &offset);
      data = static_cast<uint8_t *>(buf);
   }
   ~ReadResult() {
      if (status == STATUS_OK)
         std::free(data - offset);
      else
         EXPECT_EQ(data, nullptr) << "a failed read handed out a pointer";
   }
   bool Holds(const Bytes &p) const {
      return status == STATUS_OK && len == Padded(p.size()) && std::equal(p.begin(), p.end(), data);
   }
};

ReturnStatus Write(const std::string &path, const Bytes &p, int32_t useTmp = 1) {
   return DVSFile_WriteClassical(path.c_str(), p.data(), p.size(), useTmp);
}

template <class F>
std::string Logged(F f) {
   testing::internal::CaptureStderr();
   f();
   return testing::internal::GetCapturedStderr();
}

off_t FileSize(const std::string &path) {
   struct stat st;
   return stat(path.c_str(), &st) == 0 ? st.st_size : -1;
}

size_t OpenDescriptors() {
   return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

class StateFileTest : public testing::Test {
  protected:
   void SetUp() override {
      ASSERT_FALSE(dir_.empty());
      path_ = dir_ + "/dvsdata.db";
      setenv("HOSTLIBS_LOG_STDERR", "1", 1);
   }
   void TearDown() override { g_refuse = Refuse::kNothing; }

   testsupport::TempDir tmp_{"statefile-test"};
   const std::string dir_ = tmp_.path();
   std::string path_;
};

TEST_F(StateFileTest, SizesPaddingAndAlignment) {
   // 1536 bytes first: the shorter files after it keep nothing of it.
   for (uint32_t n : {1500u, 1u, 511u, 512u, 513u}) {
      const Bytes p = Payload(n, static_cast<uint8_t>(n));
      ASSERT_EQ(Write(path_, p), STATUS_OK) << n;
      EXPECT_EQ(FileSize(path_), static_cast<off_t>(Padded(n))) << n;
      EXPECT_EQ(FileSize(path_ + ".tmp"), -1) << n;  // renamed, not copied
      ReadResult r(path_);
      ASSERT_TRUE(r.Holds(p)) << n;
      EXPECT_EQ(reinterpret_cast<uintptr_t>(r.data) % 512, 0u) << n;
      EXPECT_LT(r.offset, 512u) << n;
      EXPECT_EQ(std::count(r.data + n, r.data + r.len, 0), r.len - n) << n;  // zeroed filler
   }
   const Bytes p = Payload(700, 7);  // straight to the path
   ASSERT_EQ(Write(path_, p, 0), STATUS_OK);
   EXPECT_TRUE(ReadResult(path_).Holds(p));
   EXPECT_EQ(FileSize(path_ + ".tmp"), -1);
   // An empty payload writes nothing after the 1-byte truncation, and
   // readers refuse the 1-byte file.
   ASSERT_EQ(DVSFile_Write(path_.c_str(), nullptr, 0), STATUS_OK);
   EXPECT_EQ(FileSize(path_), 1);
   EXPECT_EQ(Logged([&] { EXPECT_EQ(ReadResult(path_).status, STATUS_IO_ERROR); }),
             "failed to verify dvsfile " + path_ + " with length 1\n");
}

TEST_F(StateFileTest, ReadFailures) {
   const size_t fds = OpenDescriptors();
   void *buf;
   uint32_t len, off;
   EXPECT_EQ(DVSFile_Read(nullptr, &buf, &len, &off), STATUS_BAD_PARAM);
   EXPECT_EQ(DVSFile_ReadClassical(path_.c_str(), &buf, &len, nullptr), STATUS_BAD_PARAM);
   EXPECT_EQ(Logged([&] { EXPECT_EQ(ReadResult(path_).status, STATUS_NOT_FOUND); }),
             "failed to open dvsfile " + path_ + " for read, error: No such file or directory\n");

   const auto sized = [&](off_t size) {
      EXPECT_EQ(truncate(path_.c_str(), size), 0);
      return ReadResult(path_).status;
   };
   ASSERT_EQ(close(creat(path_.c_str(), 0600)), 0);
   EXPECT_EQ(Logged([&] { EXPECT_EQ(sized(0), STATUS_EMPTY); }), "");
   EXPECT_EQ(Logged([&] { EXPECT_EQ(sized(100), STATUS_IO_ERROR); }),
             "failed to verify dvsfile " + path_ + " with length 100\n");
   // Sizes past 31 bits are refused, not wrapped (4 GiB + 512 would read as
   // 512 bytes).  Sparse files: nothing is allocated on disk.
   EXPECT_EQ(Logged([&] { EXPECT_EQ(sized((off_t{1} << 32) + 512), STATUS_IO_ERROR); }),
             "failed to verify dvsfile " + path_ + " with length 4294967808\n");
   Logged([&] { EXPECT_EQ(sized(off_t{1} << 31), STATUS_IO_ERROR); });
   EXPECT_EQ(OpenDescriptors(), fds);
}

TEST_F(StateFileTest, WriteFailuresKeepTheTemporaryFile) {
   const size_t fds = OpenDescriptors();
   const Bytes p = Payload(600, 1);
   EXPECT_EQ(DVSFile_Write(nullptr, p.data(), 1), STATUS_BAD_PARAM);
   EXPECT_EQ(DVSFile_Write(path_.c_str(), nullptr, 1), STATUS_BAD_PARAM);
   // Padded sizes past INT32_MAX are refused before the payload is read.
   EXPECT_EQ(DVSFile_Write(path_.c_str(), p.data(), 0x7ffffe01u), STATUS_BAD_PARAM);
   EXPECT_EQ(DVSFile_WriteClassical(path_.c_str(), p.data(), UINT32_MAX, 0), STATUS_BAD_PARAM);
   EXPECT_EQ(FileSize(path_ + ".tmp"), -1);

   const std::string orphan = dir_ + "/none/dvsdata.db";
   EXPECT_EQ(
      Logged([&] { EXPECT_EQ(Write(orphan, p), STATUS_IO_ERROR); }),
      "failed to open dvsfile " + orphan + ".tmp for write, error: No such file or directory\n");
   EXPECT_EQ(Logged([&] { EXPECT_EQ(Write("/dev/null", p, 0), STATUS_IO_ERROR); }),
             "failed to truncate dvsfile /dev/null, error: Invalid argument\n");

   // The rename fails onto a non-empty directory; the whole temporary file stays.
   ASSERT_EQ(mkdir(path_.c_str(), 0700), 0);
   ASSERT_EQ(mkdir((path_ + "/sub").c_str(), 0700), 0);
   EXPECT_EQ(Logged([&] { EXPECT_EQ(Write(path_, p), STATUS_WRITE_ERROR); }),
             "failed to rename dvsfile " + path_ + ".tmp, error: Is a directory\n");
   EXPECT_TRUE(ReadResult(path_ + ".tmp").Holds(p));

   // A file size limit cuts the write short; continuing it gives the reason.
   const std::string limited = dir_ + "/limited.db";
   struct rlimit saved;
   ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &saved), 0);
   const struct rlimit small = {1024, saved.rlim_max};
   const auto oldHandler = signal(SIGXFSZ, SIG_IGN);
   ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
   const std::string text =
      Logged([&] { EXPECT_EQ(Write(limited, Payload(2000, 2)), STATUS_WRITE_ERROR); });
   setrlimit(RLIMIT_FSIZE, &saved);
   signal(SIGXFSZ, oldHandler);
   EXPECT_EQ(text, "failed to write dvsfile " + limited + ".tmp, error: File too large\n");
   EXPECT_EQ(FileSize(limited + ".tmp"), 1024);
   EXPECT_EQ(FileSize(limited), -1);
   EXPECT_EQ(OpenDescriptors(), fds);
}

TEST_F(StateFileTest, DirectIoFirstWithCachedFallback) {
   const Bytes p = Payload(1300, 3);
   g_directOpens = 0;
   ASSERT_EQ(Write(path_, p), STATUS_OK);
   ASSERT_TRUE(ReadResult(path_).Holds(p));
   EXPECT_EQ(g_directOpens, 2);  // both asked for direct I/O first

   for (Refuse refuse : {Refuse::kDirectOpen, Refuse::kDirectTransfer}) {
      g_refuse = refuse;
      const Bytes q = Payload(900, static_cast<uint8_t>(refuse));
      EXPECT_EQ(Logged([&] {
                   EXPECT_EQ(Write(path_, q), STATUS_OK);
                   EXPECT_TRUE(ReadResult(path_).Holds(q));
                }),
                "");
   }
}

// A writer killed at any moment leaves the file holding one complete
// payload, never a mixture or a truncated one, and never no file.
TEST_F(StateFileTest, KilledWriterLeavesOneWholePayload) {
   // Of different sizes, so that a shorter file over a longer one shows too;
   // the largest is as big as a host with a few thousand ports, so that
   // many kills land inside a write.
   const Bytes payloads[] = {Payload(300, 1), Payload(41000, 2), Payload(260000, 3)};
   ASSERT_EQ(Write(path_, payloads[0]), STATUS_OK);
   killloop::Random random;
   const int rounds = killloop::Rounds(150, 1000);
   const auto started = std::chrono::steady_clock::now();
   const auto deadline = killloop::Deadline(std::chrono::seconds(40));
   std::set<int> seen;
   int round = 0, midReplacement = 0;

   for (; round < rounds && std::chrono::steady_clock::now() < deadline; ++round) {
      const pid_t child = fork();
      ASSERT_GE(child, 0);
      if (child == 0) {
         for (int i = round;; ++i)
            if (Write(path_, payloads[i % 3]) != STATUS_OK)
               _exit(1);
      }
      usleep(random.Micros(3000));
      ASSERT_TRUE(killloop::KillAndReap(child)) << "the writer failed in round " << round;
      midReplacement += FileSize(path_ + ".tmp") >= 0;

      ReadResult r(path_);
      int found = -1;
      for (int i = 0; i < 3; ++i)
         found = r.Holds(payloads[i]) ? i : found;
      ASSERT_NE(found, -1) << "round " << round << ": status " << r.status << ", " << r.len
                           << " bytes";
      seen.insert(found);
   }
   killloop::Report("state file", std::to_string(round) + " kills (" +
                                     std::to_string(midReplacement) + " inside a replacement) in " +
                                     std::to_string(killloop::Seconds(started)) + " s");
   EXPECT_GE(round, std::min(rounds, 20));
   // The kills did land among replacements.  A slow (sanitized) writer may
   // rarely finish the largest payload within the short default loop, so
   // two distinct payloads are what every run must show.
   EXPECT_GE(seen.size(), 2u);
   EXPECT_GT(midReplacement, 0);
}

}  // namespace
