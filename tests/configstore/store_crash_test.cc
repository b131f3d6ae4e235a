// The configuration store under crashes and contention, with realistic
// hosts (dvsctl's sample builder, hundreds of ports): a process saving
// hosts in turn, killed at random moments, and two processes saving
// different hosts into one new store at once.  After every kill the
// database passes SQLite's own integrity check and loads back as exactly
// the host of the last committed save (compared with dvsctl's classifying
// comparison: nothing but documented conversions may differ).  With two
// writers every save commits whole, the store ends with the last one
// committed, and a writer gives up with kBusy only after the busy timeout.
#include <configstore.h>
#include <dvsconfigstore.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sqlite3.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "error.h"
#include "sample_host.h"
#include "state_diff.h"
#include "tests/kill_loop_support.h"

namespace dvsctl {
namespace {

constexpr double kBusyTimeoutMs = 5000;  // the store client's

struct Host {
   Bytes blob;
   HostState state;
};

Host MakeHost(uint32_t switches, uint32_t ports, uint32_t seed) {
   Host h{BuildSampleHost({switches, ports, seed}), {}};
   h.state = ReadHostState(h.blob, "sample host " + std::to_string(seed));
   return h;
}

int32_t Save(const Host &h) {
   return DVSState_SaveBufToConfigStore(h.blob.data(), static_cast<uint32_t>(h.blob.size()));
}

// SQLite's own verdict on the database: "ok" or its complaints.
std::string IntegrityCheck(const std::string &path) {
   sqlite3 *db = nullptr;
   sqlite3_stmt *st = nullptr;
   std::string verdict = "cannot open or check " + path;
   if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr) == SQLITE_OK &&
       sqlite3_prepare_v2(db, "PRAGMA integrity_check", -1, &st, nullptr) == SQLITE_OK) {
      verdict.clear();
      while (sqlite3_step(st) == SQLITE_ROW) {
         verdict += (verdict.empty() ? "" : "\n");
         verdict += reinterpret_cast<const char *>(sqlite3_column_text(st, 0));
      }
   }
   sqlite3_finalize(st);
   sqlite3_close(db);
   return verdict;
}

// The index of the host that the store holds whole, or -1 with the reason
// (the closest host's unexpected differences) in `why`.
int StoredHost(const std::vector<const Host *> &hosts, std::string *why) {
   void *buf = nullptr;
   uint32_t len = 0;
   const int32_t rc = DVSState_LoadFromConfigStoreAsBuf(&buf, &len, false);
   if (rc != 0) {
      *why = "the load failed with " + std::to_string(rc);
      return -1;
   }
   const Bytes blob(static_cast<uint8_t *>(buf), static_cast<uint8_t *>(buf) + len);
   std::free(buf);
   try {
      const HostState loaded = ReadHostState(blob, "the loaded host");
      size_t fewest = SIZE_MAX;
      for (size_t i = 0; i < hosts.size(); ++i) {
         const DiffReport report = DiffHosts(hosts[i]->state, loaded);
         if (report.summary.unexpected == 0) {
            return static_cast<int>(i);
         }
         if (report.summary.unexpected < fewest) {
            fewest = report.summary.unexpected;
            *why = "closest: host " + std::to_string(i) + "\n" +
                   RenderDiffText(report, true).substr(0, 3000);
         }
      }
   } catch (const Error &e) {
      *why = e.what();
   }
   return -1;
}

class StoreCrashTest : public testing::Test {
  protected:
   static void SetUpTestSuite() {
      dvsconfigstore_debug = 0;  // failures only
      // Saved in turn by the killed process: neighbours differ in switches
      // (ids and count) and ports.
      for (uint32_t i = 0; i < 3; ++i) {
         turns_.push_back(MakeHost(4 + i, 240 + 60 * i, 11 + i));
      }
      // Two variants of each of two concurrent writers' hosts.
      for (uint32_t i = 0; i < 4; ++i) {
         writers_.push_back(MakeHost(3 + i % 2, 150, 21 + i));
      }
   }
   void SetUp() override {
      char dir[] = "/tmp/dvs-store-crash-XXXXXX";
      ASSERT_NE(mkdtemp(dir), nullptr);
      dir_ = dir;
      Use("store.db");
   }
   void TearDown() override { std::filesystem::remove_all(dir_); }

   void Use(const std::string &name) {
      path_ = dir_ + "/" + name;
      setenv(configstore::kPathEnv, path_.c_str(), 1);
   }
   static std::vector<const Host *> All(const std::vector<Host> &hosts) {
      std::vector<const Host *> all;
      for (const Host &h : hosts) {
         all.push_back(&h);
      }
      return all;
   }

   static inline std::vector<Host> turns_, writers_;
   std::string dir_, path_;
};

TEST_F(StoreCrashTest, KilledSaveLeavesTheLastCommittedHost) {
   const std::vector<const Host *> hosts = All(turns_);
   for (size_t i = 0; i < hosts.size(); ++i) {  // the comparison tells them apart
      ASSERT_GT(DiffHosts(hosts[i]->state, hosts[(i + 1) % 3]->state).summary.unexpected, 0u);
   }
   // Timed as the loop's saves run: over another host.
   ASSERT_EQ(Save(*hosts[2]), 0);
   const double before = killloop::MonotonicMs();
   ASSERT_EQ(Save(*hosts[0]), 0);
   const double saveMs = killloop::MonotonicMs() - before;
   std::string why;
   ASSERT_EQ(StoredHost(hosts, &why), 0) << why;

   killloop::Random random;
   const int rounds = killloop::Rounds(12, 200);
   const auto started = std::chrono::steady_clock::now();
   const auto deadline = killloop::Deadline(std::chrono::seconds(60));
   // `unreported`: kills that came after a commit but before its save
   // returned (the save still closes the store after committing).
   int stored = 0, round = 0, commits = 0, unreported = 0;
   for (; round < rounds && std::chrono::steady_clock::now() < deadline; ++round) {
      int report[2];
      ASSERT_EQ(pipe(report), 0);
      const pid_t child = fork();
      ASSERT_GE(child, 0);
      if (child == 0) {
         // Saves the hosts in turn, reporting each committed save.
         close(report[0]);
         for (int i = stored + 1;; ++i) {
            const uint8_t index = static_cast<uint8_t>(i % 3);
            if (Save(*hosts[index]) != 0 || write(report[1], &index, 1) != 1) {
               _exit(1);
            }
         }
      }
      close(report[1]);
      // Kills land anywhere in the first three saves.
      usleep(random.Micros(3000 * saveMs));
      ASSERT_TRUE(killloop::KillAndReap(child)) << "the saving process failed in round " << round;
      int last = stored;
      uint8_t reported[256];
      for (ssize_t n; (n = read(report[0], reported, sizeof reported)) > 0; commits += n) {
         last = reported[n - 1];
      }
      close(report[0]);

      ASSERT_EQ(IntegrityCheck(path_), "ok") << "round " << round;
      // The last reported save, or the one after it when the kill came
      // between its commit and its report.
      stored = StoredHost(hosts, &why);
      ASSERT_TRUE(stored == last || stored == (last + 1) % 3)
         << "round " << round << ": the store holds host " << stored << " after host " << last
         << " was reported committed\n"
         << why;
      unreported += stored != last;
   }
   killloop::Report("store save", std::to_string(round) + " kills, " + std::to_string(commits) +
                                     " saves reported, " + std::to_string(unreported) +
                                     " committed but not reported, " + std::to_string(saveMs) +
                                     " ms per save, " + std::to_string(killloop::Seconds(started)) +
                                     " s");
   EXPECT_GE(round, std::min(rounds, 5));
}

// One save as its process reports it.
struct SaveRecord {
   int32_t rc;
   int32_t host;
   double startMs, endMs;
};

TEST_F(StoreCrashTest, ConcurrentSavesCommitWholeAndNoneIsLost) {
   const std::vector<const Host *> hosts = All(writers_);
   constexpr int kSaves = 3;  // per writer and round; writer w saves hosts 2w, 2w+1, 2w
   const int rounds = killloop::Rounds(4, 50);
   const auto started = std::chrono::steady_clock::now();
   const auto deadline = killloop::Deadline(std::chrono::seconds(60));
   int round = 0, busy = 0, watched = 0;
   double longestMs = 0;
   for (; round < rounds && std::chrono::steady_clock::now() < deadline; ++round) {
      SCOPED_TRACE("round " + std::to_string(round));
      Use("round" + std::to_string(round) + ".db");  // created by both writers at once
      int go[2], report[2][2];
      ASSERT_EQ(pipe(go), 0);
      pid_t writers[2];
      for (int w = 0; w < 2; ++w) {
         ASSERT_EQ(pipe(report[w]), 0);
         writers[w] = fork();
         ASSERT_GE(writers[w], 0);
         if (writers[w] == 0) {
            char byte;
            if (read(go[0], &byte, 1) != 1) {
               _exit(1);
            }
            for (int i = 0; i < kSaves; ++i) {
               SaveRecord r{0, 2 * w + i % 2, killloop::MonotonicMs(), 0};
               r.rc = Save(*hosts[r.host]);
               r.endMs = killloop::MonotonicMs();
               if (write(report[w][1], &r, sizeof r) != sizeof r) {
                  _exit(1);
               }
            }
            _exit(0);
         }
         close(report[w][1]);
      }
      close(go[0]);
      ASSERT_EQ(write(go[1], "gg", 2), 2);
      close(go[1]);

      // Reads the reports as they come; after each commit the store must
      // hold one whole host.
      std::vector<SaveRecord> done[2];
      bool committed = false;
      pollfd fds[2] = {{report[0][0], POLLIN, 0}, {report[1][0], POLLIN, 0}};
      const double roundEnd = killloop::MonotonicMs() + 4 * kBusyTimeoutMs * kSaves;
      while ((fds[0].fd >= 0 || fds[1].fd >= 0) && killloop::MonotonicMs() < roundEnd) {
         if (poll(fds, 2, 100) <= 0) {
            continue;
         }
         for (int w = 0; w < 2; ++w) {
            SaveRecord r;
            if (fds[w].revents != 0 && read(fds[w].fd, &r, sizeof r) == sizeof r) {
               done[w].push_back(r);
               committed |= r.rc == 0;
            } else if (fds[w].revents != 0) {
               close(fds[w].fd);
               fds[w].fd = -1;
            }
         }
         std::string why;
         if (committed) {
            ++watched;
            EXPECT_NE(StoredHost(hosts, &why), -1) << why;
         }
      }
      for (int w = 0; w < 2; ++w) {
         const bool hung = fds[w].fd >= 0;
         if (hung) {
            close(fds[w].fd);
            kill(writers[w], SIGKILL);
         }
         int status = 0;
         waitpid(writers[w], &status, 0);
         EXPECT_TRUE(!hung && WIFEXITED(status) && WEXITSTATUS(status) == 0)
            << "writer " << w << (hung ? " hung" : " failed");
      }

      // Every save committed, or waited out the busy timeout first; the
      // store holds the last save that committed.
      const SaveRecord *last[2] = {nullptr, nullptr};
      for (int w = 0; w < 2; ++w) {
         EXPECT_EQ(done[w].size(), static_cast<size_t>(kSaves)) << "writer " << w;
         for (const SaveRecord &r : done[w]) {
            const double ms = r.endMs - r.startMs;
            longestMs = std::max(longestMs, ms);
            busy += r.rc == configstore::kBusy;
            EXPECT_TRUE(r.rc == 0 || (r.rc == configstore::kBusy && ms >= kBusyTimeoutMs - 10))
               << "writer " << w << ": status " << r.rc << " after " << ms << " ms";
            last[w] = r.rc == 0 ? &r : last[w];
         }
      }
      ASSERT_EQ(IntegrityCheck(path_), "ok");
      std::string why;
      const int stored = StoredHost(hosts, &why);
      // A save that began after the other writer's last one returned
      // certainly committed after it.
      const auto may = [&](int w) {
         const SaveRecord *other = last[1 - w];
         return last[w] != nullptr && stored == last[w]->host &&
                (other == nullptr || other->startMs <= last[w]->endMs);
      };
      EXPECT_TRUE(may(0) || may(1)) << "the store holds host " << stored << "\n" << why;
   }
   killloop::Report("concurrent store saves",
                    std::to_string(round) + " rounds, " + std::to_string(busy) +
                       " kBusy, longest save " + std::to_string(longestMs) + " ms, " +
                       std::to_string(watched) + " stores checked between commits, " +
                       std::to_string(killloop::Seconds(started)) + " s");
   EXPECT_GE(round, std::min(rounds, 2));
}

}  // namespace
}  // namespace dvsctl
