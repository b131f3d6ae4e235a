// Connections that destroyed stores leave open for the process's next
// store: used again only while their files are their own, never by a
// forked child, and closed at exit as DestroyStore used to close them.
// Which connections are open is read from /proc/self/fd.
#include "configstore.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace configstore;
namespace fs = std::filesystem;

// Descriptors of this process open on `path` (an unlinked file shows as
// "PATH (deleted)" and is not counted).
int OpenDescriptors(const std::string &path) {
   int n = 0;
   for (const auto &entry : fs::directory_iterator("/proc/self/fd")) {
      std::error_code ec;
      if (fs::read_symlink(entry.path(), ec) == path) {
         ++n;
      }
   }
   return n;
}

// Writes value under `key` of one object, in a store of its own.
int32_t Write(const char *key, const char *value) {
   Store *s = nullptr;
   int32_t rc = GetStore(0, &s);
   if (rc != kSuccess) {
      return rc;
   }
   Object *o = nullptr;
   rc = BeginTransaction(s);
   if (rc == kSuccess) {
      rc = Get(s, "g", "o", "c", "one", &o);
      if (rc == kNotFound) {
         rc = CreateObject("g", "o", "c", "one", "{}", &o);
      }
   }
   if (rc == kSuccess) {
      rc = SetValueStr(o, key, value);
   }
   if (rc == kSuccess) {
      rc = Set(s, o, kSourceExternal);
   }
   rc = rc == kSuccess ? CommitTransaction(s) : rc;
   DestroyConfigStoreObject(o);
   DestroyStore(s);
   return rc;
}

// The value under `key`, "" when absent, or "error N".
std::string Read(const char *key) {
   Store *s = nullptr;
   int32_t rc = GetStore(0, &s);
   if (rc != kSuccess) {
      return "error " + std::to_string(rc);
   }
   Object *o = nullptr;
   char *value = nullptr;
   rc = Get(s, "g", "o", "c", "one", &o);
   if (rc == kSuccess) {
      rc = GetValueStr(o, key, &value);
   }
   std::string out = rc == kSuccess ? value : rc == kNotFound ? "" : "error " + std::to_string(rc);
   std::free(value);
   DestroyConfigStoreObject(o);
   DestroyStore(s);
   return out;
}

// Runs body (true for success) in a child process and waits for it.
template <typename Body>
bool InChild(Body body) {
   const pid_t child = fork();
   if (child == 0) {
      _exit(body() ? 0 : 1);  // leaves its files as a crash would
   }
   int status = 0;
   return child > 0 && waitpid(child, &status, 0) == child && WIFEXITED(status) &&
          WEXITSTATUS(status) == 0;
}

// Reads the database at path as another process would: with a journal
// of its own when the old one is gone.
bool ReadElsewhere(const std::string &path) {
   return InChild([&] {
      sqlite3 *db = nullptr;
      return sqlite3_open(path.c_str(), &db) == SQLITE_OK &&
             sqlite3_exec(db, "SELECT count(*) FROM objects", nullptr, nullptr, nullptr) ==
                SQLITE_OK;
   });
}

class IdleStoreTest : public testing::Test {
  protected:
   void SetUp() override {
      std::string tmpl = (fs::temp_directory_path() / "cs-idle-XXXXXX").string();
      ASSERT_NE(mkdtemp(tmpl.data()), nullptr);
      dir_ = tmpl;
      path_ = dir_ + "/store.db";
      setenv(kPathEnv, path_.c_str(), 1);
   }
   void TearDown() override {
      CloseIdleStores();
      fs::remove_all(dir_);
   }

   std::string dir_, path_;
};

TEST_F(IdleStoreTest, DestroyedStoreLeavesItsConnectionToTheNext) {
   ASSERT_EQ(Write("a", "1"), kSuccess);
   EXPECT_EQ(OpenDescriptors(path_), 1) << "the connection stays open, idle";

   Store *s = nullptr;
   ASSERT_EQ(GetStore(0, &s), kSuccess);
   EXPECT_EQ(OpenDescriptors(path_), 1) << "the next store takes it instead of opening one";
   DestroyStore(s);

   // Six at once, more than are kept idle.  (SQLite holds the files of
   // a closed connection open while another connection of the process
   // uses them, so the count shows the closed ones only at the end.)
   std::vector<Store *> many(6);
   for (Store *&m : many) {
      ASSERT_EQ(GetStore(0, &m), kSuccess);
   }
   EXPECT_EQ(OpenDescriptors(path_), 6);
   for (Store *m : many) {
      DestroyStore(m);
   }

   // Between stores the file alone holds every commit: a copy of it
   // without the journal beside it reads as the store does.
   ASSERT_EQ(Write("b", "2"), kSuccess);
   fs::copy_file(path_, dir_ + "/copy.db");
   setenv(kPathEnv, (dir_ + "/copy.db").c_str(), 1);
   EXPECT_EQ(Read("b"), "2");
   setenv(kPathEnv, path_.c_str(), 1);

   // Closing them all leaves the files as a last close always has, and
   // shows that none was lost on the way.
   CloseIdleStores();
   EXPECT_EQ(OpenDescriptors(path_), 0);
   EXPECT_FALSE(fs::exists(path_ + "-wal"));
   EXPECT_EQ(Read("a"), "1");
}

TEST_F(IdleStoreTest, FileRestoredOrReplacedUnderAnIdleConnectionIsReadAsItNowIs) {
   ASSERT_EQ(Write("a", "1"), kSuccess);
   fs::copy_file(path_, dir_ + "/kept.db");

   // A reader elsewhere keeps the next commit in the journal only: the
   // idle connection then holds pages that the file lacks.
   sqlite3 *reader = nullptr;
   ASSERT_EQ(sqlite3_open(path_.c_str(), &reader), SQLITE_OK);
   ASSERT_EQ(sqlite3_exec(reader, "BEGIN; SELECT count(*) FROM objects;", nullptr, nullptr, nullptr),
             SQLITE_OK);
   ASSERT_EQ(Write("a", "2"), kSuccess);
   sqlite3_exec(reader, "COMMIT", nullptr, nullptr, nullptr);
   sqlite3_close(reader);

   // The kept copy written back over the file in place, its journal gone,
   // as a restore by hand does it.  Neither the idle connection's view nor
   // its journal may come back.
   fs::remove(path_ + "-wal");
   fs::remove(path_ + "-shm");
   fs::copy_file(dir_ + "/kept.db", path_, fs::copy_options::overwrite_existing);
   // Another process reads the restored file first, making its journal
   // files anew under the same names.
   ASSERT_TRUE(ReadElsewhere(path_));
   ASSERT_TRUE(fs::exists(path_ + "-wal"));
   EXPECT_EQ(Read("a"), "1");
   EXPECT_EQ(Read("a"), "1") << "after the retired connection is gone";

   // Another store's file renamed over this one, and read elsewhere first.
   ASSERT_EQ(Write("a", "3"), kSuccess);
   const std::string other = dir_ + "/other.db";
   ASSERT_TRUE(InChild([&] {
      setenv(kPathEnv, other.c_str(), 1);
      const bool written = Write("a", "5") == kSuccess;
      CloseIdleStores();
      return written;
   }));
   fs::rename(other, path_);
   fs::remove(path_ + "-wal");
   fs::remove(path_ + "-shm");
   ASSERT_TRUE(ReadElsewhere(path_));
   EXPECT_EQ(Read("a"), "5");
}

TEST_F(IdleStoreTest, StoreDestroyedInATransactionIsRolledBackAndClosed) {
   ASSERT_EQ(Write("a", "1"), kSuccess);
   CloseIdleStores();

   Store *s = nullptr;
   Object *o = nullptr;
   ASSERT_EQ(GetStore(0, &s), kSuccess);
   ASSERT_EQ(BeginTransaction(s), kSuccess);
   ASSERT_EQ(Get(s, "g", "o", "c", "one", &o), kSuccess);
   ASSERT_EQ(SetValueStr(o, "a", "uncommitted"), kSuccess);
   ASSERT_EQ(Set(s, o, kSourceExternal), kSuccess);
   DestroyConfigStoreObject(o);
   DestroyStore(s);
   EXPECT_EQ(OpenDescriptors(path_), 0) << "not kept: it was inside a transaction";

   EXPECT_EQ(Read("a"), "1");
   ASSERT_EQ(GetStore(0, &s), kSuccess);
   EXPECT_EQ(BeginTransaction(s), kSuccess);
   EXPECT_EQ(CancelTransaction(s), kSuccess);
   DestroyStore(s);
}

TEST_F(IdleStoreTest, ThreadsShareTheIdleConnections) {
   ASSERT_EQ(Write("seed", "0"), kSuccess);
   // Each thread writes its own value and reads it back, over and over,
   // on connections the others keep handing back.
   constexpr int kThreads = 4, kRounds = 40;
   std::vector<int> wrong(kThreads, 0);
   std::vector<std::thread> threads;
   for (int t = 0; t < kThreads; ++t) {
      threads.emplace_back([t, &wrong] {
         const std::string key = "t" + std::to_string(t);
         for (int round = 0; round < kRounds; ++round) {
            const std::string value = std::to_string(round);
            int32_t rc;
            do {
               rc = Write(key.c_str(), value.c_str());
            } while (rc == kBusy);
            if (rc != kSuccess || Read(key.c_str()) != value) {
               ++wrong[t];
            }
         }
      });
   }
   for (std::thread &thread : threads) {
      thread.join();
   }
   for (int t = 0; t < kThreads; ++t) {
      EXPECT_EQ(wrong[t], 0) << "thread " << t;
      EXPECT_EQ(Read(("t" + std::to_string(t)).c_str()), std::to_string(kRounds - 1));
   }
   CloseIdleStores();
   EXPECT_EQ(OpenDescriptors(path_), 0);
}

TEST_F(IdleStoreTest, ForkedChildOpensItsOwnAndExitClosesIt) {
   ASSERT_EQ(Write("a", "parent"), kSuccess);
   ASSERT_EQ(OpenDescriptors(path_), 1);

   const pid_t child = fork();
   ASSERT_GE(child, 0);
   if (child == 0) {
      // The parent's idle connection is inherited, but not ours to use.
      Store *s = nullptr;
      int code = GetStore(0, &s) == kSuccess ? 0 : 10;
      if (code == 0 && OpenDescriptors(path_) != 2) {
         code = 11;
      }
      DestroyStore(s);
      if (code == 0 && Write("b", "child") != kSuccess) {
         code = 12;
      }
      std::exit(code);  // closes the child's own idle connection
   }
   int status = 0;
   ASSERT_EQ(waitpid(child, &status, 0), child);
   ASSERT_TRUE(WIFEXITED(status));
   EXPECT_EQ(WEXITSTATUS(status), 0) << "10: no store, 11: the parent's connection reused";

   EXPECT_EQ(Read("b"), "child");
   EXPECT_EQ(Read("a"), "parent");
   EXPECT_EQ(OpenDescriptors(path_), 1);

   // A process that exits leaves the files as a last close does.
   const std::string other = dir_ + "/other.db";
   const pid_t writer = fork();
   ASSERT_GE(writer, 0);
   if (writer == 0) {
      setenv(kPathEnv, other.c_str(), 1);
      std::exit(Write("c", "written") == kSuccess ? 0 : 1);
   }
   ASSERT_EQ(waitpid(writer, &status, 0), writer);
   EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
   EXPECT_TRUE(fs::exists(other));
   EXPECT_FALSE(fs::exists(other + "-wal"));
}

}  // namespace
