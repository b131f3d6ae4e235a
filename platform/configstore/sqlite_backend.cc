// sqlite_backend.cc -- the store's documents in a local SQLite file.
//
// One connection per store (WAL journal, synchronous=FULL, 5 s busy
// timeout), kept open for the process's next store when the store goes
// (idle_backends.h); statements are prepared once per connection and
// reused.
// Transactions are SQLite's own (BEGIN IMMEDIATE).
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "backend.h"
#include "configstore.h"
#include "document.h"
#include "host_name.h"
#include "sqlite_sql.h"

namespace configstore {
namespace detail {
namespace {

constexpr int kBusyTimeoutMs = 5000;

int32_t FromSqlite(int rc) {
   switch (rc & 0xff) {
      case SQLITE_OK:
      case SQLITE_DONE:
      case SQLITE_ROW:
         return kSuccess;
      case SQLITE_BUSY:
      case SQLITE_LOCKED:
         return kBusy;
      case SQLITE_CORRUPT:
      case SQLITE_NOTADB:
         return kCorrupt;
      case SQLITE_NOMEM:
         return kNoMemory;
      default:
         return kDatabaseError;
   }
}

using StatementCache = std::unordered_map<const char *, sqlite3_stmt *>;

// A cached statement, reset and unbound when the scope ends.
class Statement {
  public:
   Statement() = default;
   Statement(const Statement &) = delete;
   Statement &operator=(const Statement &) = delete;
   ~Statement() {
      if (stmt_ != nullptr) {
         sqlite3_reset(stmt_);
         sqlite3_clear_bindings(stmt_);
      }
   }

   int32_t Prepare(sqlite3 *db, StatementCache &cache, const char *sql) {
      auto it = cache.find(sql);
      if (it != cache.end()) {
         stmt_ = it->second;
         return kSuccess;
      }
      sqlite3_stmt *stmt = nullptr;
      int rc = sqlite3_prepare_v3(db, sql, -1, SQLITE_PREPARE_PERSISTENT, &stmt, nullptr);
      if (rc != SQLITE_OK) {
         sqlite3_finalize(stmt);
         return FromSqlite(rc);
      }
      // A statement that cannot be cached is finalized here: one left over
      // would keep the connection from ever closing.
      try {
         cache.emplace(sql, stmt);
      } catch (...) {
         sqlite3_finalize(stmt);
         throw;
      }
      stmt_ = stmt;
      return kSuccess;
   }

   int32_t Bind(int index, const std::string &text) {
      return FromSqlite(sqlite3_bind_text(stmt_, index, text.data(), static_cast<int>(text.size()),
                                          SQLITE_TRANSIENT));
   }

   // Binds without a copy: the text must outlive this statement (declare it
   // before the Statement, so the bindings are cleared first).
   int32_t BindNoCopy(int index, const std::string &text) {
      return FromSqlite(sqlite3_bind_text(stmt_, index, text.data(), static_cast<int>(text.size()),
                                          SQLITE_STATIC));
   }

   // Binds texts to ?1, ?2, ... in order.
   int32_t BindAll(std::initializer_list<const std::string *> texts) {
      int index = 1;
      for (const std::string *t : texts) {
         const int32_t rc = Bind(index++, *t);
         if (rc != kSuccess) {
            return rc;
         }
      }
      return kSuccess;
   }

   // SQLITE_ROW, SQLITE_DONE or an error code.
   int Step() { return sqlite3_step(stmt_); }

   std::string Text(int column) {
      const unsigned char *p = sqlite3_column_text(stmt_, column);
      int n = sqlite3_column_bytes(stmt_, column);
      return p == nullptr ? std::string() : std::string(reinterpret_cast<const char *>(p), n);
   }

   // A document's text, with the slack that lets it be parsed in place.
   std::string Document(int column) {
      const unsigned char *p = sqlite3_column_text(stmt_, column);
      const size_t n = static_cast<size_t>(sqlite3_column_bytes(stmt_, column));
      std::string out;
      if (p != nullptr) {
         out.reserve(n + kDocumentSlack);
         out.assign(reinterpret_cast<const char *>(p), n);
      }
      return out;
   }

  private:
   sqlite3_stmt *stmt_ = nullptr;
};

int32_t Exec(sqlite3 *db, const char *sql) {
   return FromSqlite(sqlite3_exec(db, sql, nullptr, nullptr, nullptr));
}

int32_t QueryInt(sqlite3 *db, const char *sql, int64_t *out) {
   sqlite3_stmt *stmt = nullptr;
   int rc = sqlite3_prepare_v2(db, sql, -1, &stmt, nullptr);
   if (rc == SQLITE_OK) {
      rc = sqlite3_step(stmt);
      if (rc == SQLITE_ROW) {
         *out = sqlite3_column_int64(stmt, 0);
         rc = SQLITE_OK;
      }
   }
   sqlite3_finalize(stmt);
   return FromSqlite(rc);
}

// mkdir -p of the folder holding `path`.
bool MakeParentDirs(const std::string &path) {
   std::string::size_type slash = path.find_last_of('/');
   if (slash == std::string::npos || slash == 0) {
      return true;
   }
   std::string dir = path.substr(0, slash);
   for (std::string::size_type pos = 1; pos <= dir.size(); ++pos) {
      if (pos == dir.size() || dir[pos] == '/') {
         std::string part = dir.substr(0, pos);
         if (::mkdir(part.c_str(), 0755) != 0 && errno != EEXIST) {
            return false;
         }
      }
   }
   struct stat st;
   return ::stat(dir.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// Checks that the database is a store of our version, creating the schema
// in an empty database.
int32_t PrepareSchema(sqlite3 *db) {
   int64_t version = 0;
   int32_t rc = QueryInt(db, sql::kUserVersion, &version);
   if (rc != kSuccess) {
      return rc;
   }
   if (version == 0) {
      rc = Exec(db, sql::kBegin);
      if (rc != kSuccess) {
         return rc;
      }
      // Another process may have created it meanwhile.
      rc = QueryInt(db, sql::kUserVersion, &version);
      int64_t tables = 0;
      if (rc == kSuccess && version == 0) {
         rc = QueryInt(db, sql::kCountOwnTables, &tables);
         if (rc == kSuccess && tables != 0) {
            rc = kCorrupt;  // a database, but not a store
         }
         if (rc == kSuccess) {
            rc = Exec(db, sql::kCreateSchema);
         }
      }
      if (rc == kSuccess) {
         rc = Exec(db, sql::kCommit);
      }
      if (rc != kSuccess) {
         Exec(db, sql::kRollback);
         return rc;
      }
   }
   if (version != 0 && version != sql::kSchemaVersion) {
      return kCorrupt;
   }
   int64_t found = 0;
   rc = QueryInt(db, sql::kCountStoreTables, &found);
   if (rc != kSuccess) {
      return rc;
   }
   return found == 2 ? kSuccess : kCorrupt;
}

// What a database's files look like from outside, enough to tell that
// something other than SQLite removed, replaced or rewrote them.  SQLite
// grows and shrinks the journal and its index as it works, so only their
// identity counts; the database file changes only when a checkpoint (ours
// or another connection's) or someone else writes it.
class DatabaseFiles {
  public:
   // The names of a database's files.
   struct Names {
      std::string db, wal, shm;
      explicit Names(const std::string &path) : db(path), wal(path + "-wal"), shm(path + "-shm") {}
   };

   // False when a file is missing.
   bool Look(const Names &files) noexcept {
      return Stat(files.db.c_str(), &db_) && Stat(files.wal.c_str(), &wal_) &&
             Stat(files.shm.c_str(), &shm_);
   }

   bool operator==(const DatabaseFiles &o) const noexcept {
      return Same(db_, o.db_) && db_.st_size == o.db_.st_size && Same(db_.st_mtim, o.db_.st_mtim) &&
             Same(db_.st_ctim, o.db_.st_ctim) && Same(wal_, o.wal_) && Same(shm_, o.shm_);
   }

  private:
   static bool Stat(const char *path, struct stat *st) noexcept { return ::stat(path, st) == 0; }
   static bool Same(const struct stat &a, const struct stat &b) noexcept {
      return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
   }
   static bool Same(const timespec &a, const timespec &b) noexcept {
      return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
   }

   struct stat db_ {};
   struct stat wal_ {};
   struct stat shm_ {};
};

using Clock = std::chrono::steady_clock;

// Runs one step of opening a store again while it fails with kBusy and the
// deadline has not passed.  SQLite waits in the busy handler for most
// locks, but answers SQLITE_BUSY at once where waiting could deadlock: a
// journal mode change, or a connection that holds a read lock and asks
// for the write lock, while another process is creating the same store.
// Those steps are safe to repeat from the start.
template <typename Step>
int32_t RetryWhileBusy(Clock::time_point deadline, Step &&step) {
   for (int attempt = 0;; ++attempt) {
      const int32_t rc = step();
      if (rc != kBusy || Clock::now() >= deadline) {
         return rc;
      }
      sqlite3_sleep(std::min(1 << std::min(attempt, 4), 10));  // 1, 2, 4, 8, 10 ms
   }
}

// Switches the database to WAL (a no-op once any connection has).  A reply
// other than "wal" means the mode could not be changed yet: busy.
int32_t UseWal(sqlite3 *db) {
   sqlite3_stmt *stmt = nullptr;
   int rc = sqlite3_prepare_v2(db, sql::kUseWal, -1, &stmt, nullptr);
   bool wal = false;
   if (rc == SQLITE_OK) {
      rc = sqlite3_step(stmt);
      if (rc == SQLITE_ROW) {
         const unsigned char *mode = sqlite3_column_text(stmt, 0);
         wal = mode != nullptr && sqlite3_stricmp(reinterpret_cast<const char *>(mode), "wal") == 0;
         rc = SQLITE_OK;
      }
   }
   sqlite3_finalize(stmt);
   const int32_t result = FromSqlite(rc);
   return result == kSuccess && !wal ? kBusy : result;
}

class SqliteBackend final : public Backend {
  public:
   explicit SqliteBackend(std::string path) : path_(std::move(path)) {}
   ~SqliteBackend() override {
      for (auto &entry : statements_) {
         sqlite3_finalize(entry.second);
      }
      // Closing rolls back a transaction still open.
      sqlite3_close_v2(db_);
   }

   // Opens the connection and readies the store.  Every step is safe
   // against other processes opening, creating or switching the same file
   // at the same moment: each waits behind the others within the busy
   // timeout.
   int32_t Open() {
      if (!MakeParentDirs(path_)) {
         return kDatabaseError;
      }
      const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(kBusyTimeoutMs);
      int32_t rc = FromSqlite(sqlite3_open_v2(
         path_.c_str(), &db_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX,
         nullptr));
      if (rc == kSuccess) {
         // Before any statement: every lock below waits for other connections.
         sqlite3_busy_timeout(db_, kBusyTimeoutMs);
         sqlite3_extended_result_codes(db_, 0);
         rc = RetryWhileBusy(deadline, [&] { return UseWal(db_); });
      }
      if (rc == kSuccess) {
         rc = Exec(db_, sql::kSynchronousFull);
      }
      if (rc == kSuccess) {
         rc = RetryWhileBusy(deadline, [&] { return PrepareSchema(db_); });
      }
      return rc;
   }

   int32_t Begin() override {
      const int32_t rc = Exec(db_, sql::kBegin);
      in_txn_ = rc == kSuccess;
      return rc;
   }

   int32_t Commit() override {
      in_txn_ = false;
      if (sqlite3_get_autocommit(db_)) {
         return kDatabaseError;  // SQLite already rolled it back after an error
      }
      int32_t rc = Exec(db_, sql::kCommit);
      if (rc != kSuccess && !sqlite3_get_autocommit(db_)) {
         Exec(db_, sql::kRollback);
      }
      return rc;
   }

   int32_t Cancel() override {
      in_txn_ = false;
      return sqlite3_get_autocommit(db_) ? kSuccess : Exec(db_, sql::kRollback);
   }

   int32_t Read(const ObjectName &name, const char *source, std::string *doc) override {
      const std::string src = source;
      Statement stmt;
      int32_t rc = Prepare(stmt, sql::kSelectOne);
      if (rc != kSuccess || (rc = stmt.BindAll({&name.group, &name.object, &name.component,
                                                &name.instance, &src})) != kSuccess) {
         return rc;
      }
      const int step = stmt.Step();
      if (step == SQLITE_DONE) {
         return kNotFound;
      }
      if (step != SQLITE_ROW) {
         return FromSqlite(step);
      }
      *doc = stmt.Document(0);
      return kSuccess;
   }

   int32_t Write(const ObjectName &name, const char *source, const std::string &doc) override {
      const std::string src = source;
      Statement stmt;
      int32_t rc = Prepare(stmt, sql::kUpsert);
      if (rc != kSuccess ||
          (rc = stmt.BindAll({&name.group, &name.object, &name.component, &name.instance, &src})) !=
             kSuccess ||
          (rc = stmt.BindNoCopy(6, doc)) != kSuccess) {
         return rc;
      }
      return FromSqlite(stmt.Step());
   }

   int32_t Remove(const ObjectName &name) override {
      Statement stmt;
      int32_t rc = Prepare(stmt, sql::kDeleteRows);
      if (rc != kSuccess || (rc = stmt.BindAll({&name.group, &name.object, &name.component,
                                                &name.instance})) != kSuccess) {
         return rc;
      }
      const int step = stmt.Step();
      if (step != SQLITE_DONE) {
         return FromSqlite(step);
      }
      return sqlite3_changes(db_) > 0 ? kSuccess : kNotFound;
   }

   int32_t List(const ObjectName &name, const char *source, const DocumentSink &take) override {
      const std::string src = source;
      const bool one = !name.instance.empty();
      Statement stmt;
      int32_t rc = Prepare(stmt, one ? sql::kSelectInstance : sql::kSelectAll);
      if (rc != kSuccess ||
          (rc = stmt.BindAll({&name.group, &name.object, &name.component, &src})) != kSuccess ||
          (one && (rc = stmt.Bind(5, name.instance)) != kSuccess)) {
         return rc;
      }
      int step;
      while ((step = stmt.Step()) == SQLITE_ROW) {
         take(StoredDocument{stmt.Text(0), stmt.Document(1)});
      }
      return step == SQLITE_DONE ? kSuccess : FromSqlite(step);
   }

   std::string_view Place() const override { return path_; }

   bool Park() noexcept override {
      if (in_txn_ || !sqlite3_get_autocommit(db_)) {
         return false;
      }
      for (sqlite3_stmt *stmt = sqlite3_next_stmt(db_, nullptr); stmt != nullptr;
           stmt = sqlite3_next_stmt(db_, stmt)) {
         if (sqlite3_stmt_busy(stmt)) {
            return false;
         }
      }
      // Everything committed goes into the database file now, as closing
      // did: the file by itself stays a complete copy between stores.
      sqlite3_wal_checkpoint_v2(db_, nullptr, SQLITE_CHECKPOINT_PASSIVE, nullptr, nullptr);
      return parked_.Look(files_);
   }

   bool StillServes() const noexcept override {
      DatabaseFiles now;
      return now.Look(files_) && now == parked_;
   }

   // SQLite's own close checkpoints the journal into the database file
   // and deletes the journal, by name; on files that are no longer this
   // connection's, both would damage someone else's database.
   void Disown() noexcept override {
      sqlite3_db_config(db_, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
   }

   // A file holds the objects of the host it is on; its last save is the
   // file's (or its journal's) modification time.
   int32_t Hosts(std::vector<HostSummary> *out) override {
      HostSummary host;
      host.name = LocalHostName();
      for (const std::string &file : {path_, path_ + "-wal"}) {
         struct stat st;
         if (::stat(file.c_str(), &st) == 0) {
            host.saved_at = std::max<int64_t>(host.saved_at, st.st_mtime);
         }
      }
      out->push_back(std::move(host));
      return kSuccess;
   }

  private:
   // After an error SQLite may have rolled the open transaction back;
   // nothing more may run then, or it would be written outside it.
   int32_t Prepare(Statement &stmt, const char *sql) {
      if (in_txn_ && sqlite3_get_autocommit(db_)) {
         return kDatabaseError;
      }
      return stmt.Prepare(db_, statements_, sql);
   }

   std::string path_;
   DatabaseFiles::Names files_{path_};
   DatabaseFiles parked_;  // as they were when the store using this went
   bool in_txn_ = false;
   sqlite3 *db_ = nullptr;
   StatementCache statements_;
};

}  // namespace

int32_t OpenSqliteBackend(const std::string &path, std::unique_ptr<Backend> *out) {
   auto backend = std::make_unique<SqliteBackend>(path);
   const int32_t rc = backend->Open();
   if (rc == kSuccess) {
      *out = std::move(backend);
   }
   return rc;
}

}  // namespace detail
}  // namespace configstore
