// configstore.cc -- the configuration-store client over SQLite.
//
// Each Store is one SQLite connection (WAL journal, synchronous=FULL,
// 5 s busy timeout).  Each Object handle is either a top-level object,
// which owns its tree and every sub-object handle handed out for it, or a
// sub-object handle, which refers to its node weakly.  Every exported
// function catches everything: no exception leaves the library.
#include "configstore.h"

#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <new>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include <nlohmann/json.hpp>

#include "document.h"

namespace configstore {

using detail::Kind;
using detail::Node;
using detail::NodePtr;
using detail::Value;

struct Store {
   sqlite3 *db = nullptr;
   bool inTransaction = false;
   // Prepared statements, keyed by the address of their SQL text.
   std::unordered_map<const char *, sqlite3_stmt *> statements;
};

struct Object {
   Object *root = nullptr;    // this, for a top-level object
   std::weak_ptr<Node> node;  // the node this handle stands for

   // Top-level objects only.
   NodePtr top;
   std::string group, object, component, instance;
   std::vector<std::unique_ptr<Object>> arena;  // sub-object handles
   std::unordered_map<const Node *, Object *> handleOf;
};

struct FilterSpec {
   std::string a, b, c, d;
};

namespace {

// ---- helpers ----------------------------------------------------------------

constexpr int kBusyTimeoutMs = 5000;
constexpr int kSchemaVersion = 1;

template <typename F>
int32_t Guard(F &&body) noexcept {
   try {
      return body();
   } catch (const std::bad_alloc &) {
      return kNoMemory;
   } catch (const nlohmann::json::exception &) {
      return kBadJson;
   } catch (const detail::DocumentError &) {
      return kBadJson;
   } catch (...) {
      return kDatabaseError;
   }
}

bool Empty(const char *s) {
   return s == nullptr || *s == '\0';
}

std::string OrEmpty(const char *s) {
   return s == nullptr ? std::string() : std::string(s);
}

char *DupString(const std::string &s) {
   char *out = static_cast<char *>(std::malloc(s.size() + 1));
   if (out == nullptr) {
      throw std::bad_alloc();
   }
   std::memcpy(out, s.data(), s.size());
   out[s.size()] = '\0';
   return out;
}

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

   int32_t Prepare(Store *store, const char *sql) {
      // After an error SQLite may have rolled the open transaction back;
      // nothing more may run then, or it would be written outside it.
      if (store->inTransaction && sqlite3_get_autocommit(store->db)) {
         return kDatabaseError;
      }
      auto it = store->statements.find(sql);
      if (it != store->statements.end()) {
         stmt_ = it->second;
         return kSuccess;
      }
      sqlite3_stmt *stmt = nullptr;
      int rc = sqlite3_prepare_v3(store->db, sql, -1, SQLITE_PREPARE_PERSISTENT, &stmt, nullptr);
      if (rc != SQLITE_OK) {
         sqlite3_finalize(stmt);
         return FromSqlite(rc);
      }
      // A statement that cannot be cached is finalized here: one left over
      // would keep the connection from ever closing.
      try {
         store->statements.emplace(sql, stmt);
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

   // SQLITE_ROW, SQLITE_DONE or an error code.
   int Step() { return sqlite3_step(stmt_); }

   std::string Text(int column) {
      const unsigned char *p = sqlite3_column_text(stmt_, column);
      int n = sqlite3_column_bytes(stmt_, column);
      return p == nullptr ? std::string() : std::string(reinterpret_cast<const char *>(p), n);
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

// Created inside BEGIN IMMEDIATE by the first connection to an empty file;
// IF NOT EXISTS and OR IGNORE keep it harmless should it ever run twice.
const char *const kCreateSchema =
   "CREATE TABLE IF NOT EXISTS meta("
   " key TEXT PRIMARY KEY,"
   " value TEXT NOT NULL);"
   "CREATE TABLE IF NOT EXISTS objects("
   " seq INTEGER PRIMARY KEY AUTOINCREMENT,"
   " grp TEXT NOT NULL,"
   " obj TEXT NOT NULL,"
   " comp TEXT NOT NULL,"
   " instance TEXT NOT NULL DEFAULT '',"
   " source TEXT NOT NULL CHECK(source IN ('EXTERNAL', 'USER')),"
   " doc TEXT NOT NULL,"
   " UNIQUE(grp, obj, comp, instance, source));"
   "CREATE INDEX IF NOT EXISTS objects_by_kind ON objects(grp, obj, comp, source, seq);"
   "INSERT OR IGNORE INTO meta(key, value) VALUES('schema_version', '1');"
   "INSERT OR IGNORE INTO meta(key, value) VALUES('format', 'configstore');"
   "PRAGMA user_version = 1;";

// Checks that the database is a store of our version, creating the schema
// in an empty database.
int32_t PrepareSchema(sqlite3 *db) {
   int64_t version = 0;
   int32_t rc = QueryInt(db, "PRAGMA user_version", &version);
   if (rc != kSuccess) {
      return rc;
   }
   if (version == 0) {
      rc = Exec(db, "BEGIN IMMEDIATE");
      if (rc != kSuccess) {
         return rc;
      }
      // Another process may have created it meanwhile.
      rc = QueryInt(db, "PRAGMA user_version", &version);
      int64_t tables = 0;
      if (rc == kSuccess && version == 0) {
         rc = QueryInt(db,
                       "SELECT count(*) FROM sqlite_master WHERE name NOT LIKE 'sqlite\\_%' "
                       "ESCAPE '\\'",
                       &tables);
         if (rc == kSuccess && tables != 0) {
            rc = kCorrupt;  // a database, but not a store
         }
         if (rc == kSuccess) {
            rc = Exec(db, kCreateSchema);
         }
      }
      if (rc == kSuccess) {
         rc = Exec(db, "COMMIT");
      }
      if (rc != kSuccess) {
         Exec(db, "ROLLBACK");
         return rc;
      }
   }
   if (version != 0 && version != kSchemaVersion) {
      return kCorrupt;
   }
   int64_t found = 0;
   rc = QueryInt(db,
                 "SELECT count(*) FROM sqlite_master WHERE type = 'table' AND "
                 "name IN ('meta', 'objects')",
                 &found);
   if (rc != kSuccess) {
      return rc;
   }
   return found == 2 ? kSuccess : kCorrupt;
}

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
   int rc = sqlite3_prepare_v2(db, "PRAGMA journal_mode = WAL", -1, &stmt, nullptr);
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

// Opens the connection and readies the store.  Every step is safe against
// other processes opening, creating or switching the same file at the same
// moment: each waits behind the others within the busy timeout.
int32_t OpenStore(Store **out) {
   const char *env = std::getenv(kPathEnv);
   std::string path = Empty(env) ? std::string(kDefaultPath) : std::string(env);
   if (!MakeParentDirs(path)) {
      return kDatabaseError;
   }
   const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(kBusyTimeoutMs);
   auto store = std::make_unique<Store>();
   int rc =
      sqlite3_open_v2(path.c_str(), &store->db,
                      SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX, nullptr);
   int32_t result = FromSqlite(rc);
   if (result == kSuccess) {
      // Before any statement: every lock below waits for other connections.
      sqlite3_busy_timeout(store->db, kBusyTimeoutMs);
      sqlite3_extended_result_codes(store->db, 0);
      result = RetryWhileBusy(deadline, [&] { return UseWal(store->db); });
   }
   if (result == kSuccess) {
      result = Exec(store->db, "PRAGMA synchronous = FULL");
   }
   if (result == kSuccess) {
      result = RetryWhileBusy(deadline, [&] { return PrepareSchema(store->db); });
   }
   if (result != kSuccess) {
      sqlite3_close_v2(store->db);
      return result;
   }
   *out = store.release();
   return kSuccess;
}

// ---- object handles -------------------------------------------------------------

bool IsRoot(const Object *obj) {
   return obj->root == obj;
}

std::unique_ptr<Object> NewRoot(NodePtr node, std::string group, std::string object,
                                std::string component, std::string instance) {
   auto obj = std::make_unique<Object>();
   obj->root = obj.get();
   obj->top = std::move(node);
   obj->node = obj->top;
   obj->group = std::move(group);
   obj->object = std::move(object);
   obj->component = std::move(component);
   obj->instance = std::move(instance);
   return obj;
}

// The handle of `node` in the tree of `root`, reused when one exists.
Object *HandleFor(Object *root, const NodePtr &node) {
   auto it = root->handleOf.find(node.get());
   if (it != root->handleOf.end() && it->second->node.lock() == node) {
      return it->second;
   }
   auto handle = std::make_unique<Object>();
   handle->root = root;
   handle->node = node;
   Object *raw = handle.get();
   root->arena.push_back(std::move(handle));
   root->handleOf[node.get()] = raw;
   return raw;
}

// The live node of a handle, or null once it has been deleted.
NodePtr Live(Object *obj) {
   return obj == nullptr ? nullptr : obj->node.lock();
}

Object **NewObjectArray(size_t count) {
   auto **array = static_cast<Object **>(std::calloc(count == 0 ? 1 : count, sizeof(Object *)));
   if (array == nullptr) {
      throw std::bad_alloc();
   }
   return array;
}

// ---- values -----------------------------------------------------------------------

// Finds `key` in `obj`; an instance answers "key" with its id unless a
// value "key" was set.  `scratch` holds that synthesized value.
int32_t Lookup(Object *obj, const char *key, Value &scratch, const Value **out) {
   if (obj == nullptr || Empty(key)) {
      return kBadParam;
   }
   NodePtr node = Live(obj);
   if (!node) {
      return kNotFound;
   }
   if (const Value *v = node->FindValue(key)) {
      scratch = *v;
      *out = &scratch;
      return kSuccess;
   }
   if (!IsRoot(obj) && !node->id.empty() && std::strcmp(key, "key") == 0) {
      scratch = Value{};
      scratch.kind = Kind::kString;
      scratch.str = node->id;
      *out = &scratch;
      return kSuccess;
   }
   return kNotFound;
}

// Finds key in obj as a value whose kind `accepts` takes; a value of
// another kind is a type mismatch.
template <typename Accepts>
int32_t LookupKind(Object *obj, const char *key, Value &scratch, const Value **v, Accepts accepts) {
   const int32_t rc = Lookup(obj, key, scratch, v);
   if (rc == kSuccess && !accepts(**v)) {
      return kTypeMismatch;
   }
   return rc;
}

int32_t GetInteger(Object *obj, const char *key, int64_t lo, int64_t hi, int64_t *out) {
   if (out == nullptr) {
      return kBadParam;
   }
   Value scratch;
   const Value *v = nullptr;
   const int32_t rc = LookupKind(obj, key, scratch, &v, [&](const Value &x) {
      return x.kind == Kind::kInt && x.num >= lo && x.num <= hi;
   });
   if (rc != kSuccess) {
      return rc;
   }
   *out = v->num;
   return kSuccess;
}

// Reads an integer value as T: one whose value lies outside T's range is a
// type mismatch, like a value of another kind.
template <typename T>
int32_t GetIntegerAs(Object *obj, const char *key, T *value) {
   int64_t v = 0;
   const int32_t rc = GetInteger(obj, key, std::numeric_limits<T>::min(),
                                 std::numeric_limits<T>::max(), value != nullptr ? &v : nullptr);
   if (rc == kSuccess) {
      *value = static_cast<T>(v);
   }
   return rc;
}

template <typename Fill>
int32_t PutValue(Object *obj, const char *key, Fill &&fill) {
   if (obj == nullptr || Empty(key)) {
      return kBadParam;
   }
   NodePtr node = Live(obj);
   if (!node) {
      return kNotFound;
   }
   Value v;
   fill(v);
   node->PutValue(key) = std::move(v);
   return kSuccess;
}

int32_t SetInteger(Object *obj, const char *key, int64_t value) {
   return PutValue(obj, key, [&](Value &v) {
      v.kind = Kind::kInt;
      v.num = value;
   });
}

// ---- database rows ------------------------------------------------------------------

bool ValidSource(const char *source) {
   return source != nullptr &&
          (std::strcmp(source, kSourceExternal) == 0 || std::strcmp(source, kSourceUser) == 0);
}

const char *const kSelectOne =
   "SELECT doc FROM objects WHERE grp = ?1 AND obj = ?2 AND comp = ?3 AND instance = ?4 "
   "AND source = ?5";
const char *const kSelectAll =
   "SELECT instance, doc FROM objects WHERE grp = ?1 AND obj = ?2 AND comp = ?3 "
   "AND source = ?4 ORDER BY seq";
const char *const kSelectInstance =
   "SELECT instance, doc FROM objects WHERE grp = ?1 AND obj = ?2 AND comp = ?3 "
   "AND source = ?4 AND instance = ?5 ORDER BY seq";
const char *const kUpsert =
   "INSERT INTO objects(grp, obj, comp, instance, source, doc) VALUES(?1, ?2, ?3, ?4, ?5, ?6) "
   "ON CONFLICT(grp, obj, comp, instance, source) DO UPDATE SET doc = excluded.doc";
const char *const kDeleteRows =
   "DELETE FROM objects WHERE grp = ?1 AND obj = ?2 AND comp = ?3 AND instance = ?4";

// Reads the objects of one kind (and one instance when `instance` is not
// empty) for `source`, in creation order, as new top-level handles.
int32_t ReadInstances(Store *store, const std::string &group, const std::string &object,
                      const std::string &component, const std::string &instance, const char *source,
                      Object ***objects, uint32_t *count) {
   Statement stmt;
   int32_t rc = stmt.Prepare(store, instance.empty() ? kSelectAll : kSelectInstance);
   if (rc != kSuccess) {
      return rc;
   }
   if ((rc = stmt.Bind(1, group)) != kSuccess || (rc = stmt.Bind(2, object)) != kSuccess ||
       (rc = stmt.Bind(3, component)) != kSuccess || (rc = stmt.Bind(4, source)) != kSuccess ||
       (!instance.empty() && (rc = stmt.Bind(5, instance)) != kSuccess)) {
      return rc;
   }
   std::vector<std::unique_ptr<Object>> found;
   int step;
   while ((step = stmt.Step()) == SQLITE_ROW) {
      NodePtr node = detail::ParseDocument(stmt.Text(1));
      found.push_back(NewRoot(std::move(node), group, object, component, stmt.Text(0)));
   }
   if (step != SQLITE_DONE) {
      return FromSqlite(step);
   }
   Object **array = NewObjectArray(found.size());
   for (size_t i = 0; i < found.size(); ++i) {
      array[i] = found[i].release();
   }
   *objects = array;
   *count = static_cast<uint32_t>(found.size());
   return kSuccess;
}

int32_t SubObjectArray(Object *parent, const std::vector<NodePtr> &nodes, Object ***objects,
                       uint32_t *count) {
   Object **array = NewObjectArray(nodes.size());
   try {
      for (size_t i = 0; i < nodes.size(); ++i) {
         array[i] = HandleFor(parent->root, nodes[i]);
      }
   } catch (...) {
      std::free(array);
      throw;
   }
   *objects = array;
   *count = static_cast<uint32_t>(nodes.size());
   return kSuccess;
}

}  // namespace

// ---- stores and transactions --------------------------------------------------------

int32_t GetStore(int32_t flags, Store **store) {
   (void)flags;  // reserved
   return Guard([&]() -> int32_t {
      if (store == nullptr) {
         return kBadParam;
      }
      *store = nullptr;
      return OpenStore(store);
   });
}

int32_t BeginTransaction(Store *store) {
   return Guard([&]() -> int32_t {
      if (store == nullptr) {
         return kBadParam;
      }
      if (store->inTransaction) {
         return kInTransaction;
      }
      int32_t rc = Exec(store->db, "BEGIN IMMEDIATE");
      if (rc == kSuccess) {
         store->inTransaction = true;
      }
      return rc;
   });
}

int32_t CommitTransaction(Store *store) {
   return Guard([&]() -> int32_t {
      if (store == nullptr) {
         return kBadParam;
      }
      if (!store->inTransaction) {
         return kNoTransaction;
      }
      store->inTransaction = false;
      if (sqlite3_get_autocommit(store->db)) {
         return kDatabaseError;  // SQLite already rolled it back after an error
      }
      int32_t rc = Exec(store->db, "COMMIT");
      if (rc != kSuccess && !sqlite3_get_autocommit(store->db)) {
         Exec(store->db, "ROLLBACK");
      }
      return rc;
   });
}

int32_t CancelTransaction(Store *store) {
   return Guard([&]() -> int32_t {
      if (store == nullptr) {
         return kBadParam;
      }
      if (!store->inTransaction) {
         return kNoTransaction;
      }
      store->inTransaction = false;
      if (sqlite3_get_autocommit(store->db)) {
         return kSuccess;
      }
      return Exec(store->db, "ROLLBACK");
   });
}

void DestroyStore(Store *store) {
   if (store == nullptr) {
      return;
   }
   for (auto &entry : store->statements) {
      sqlite3_finalize(entry.second);
   }
   // Closing rolls back a transaction still open.
   sqlite3_close_v2(store->db);
   delete store;
}

// ---- top-level objects -----------------------------------------------------------------

int32_t Get(Store *store, const char *group, const char *object, const char *component,
            const char *instanceId, Object **out) {
   return Guard([&]() -> int32_t {
      if (store == nullptr || out == nullptr || Empty(group) || Empty(object) || Empty(component)) {
         return kBadParam;
      }
      *out = nullptr;
      Statement stmt;
      int32_t rc = stmt.Prepare(store, kSelectOne);
      std::string instance = OrEmpty(instanceId);
      if (rc != kSuccess || (rc = stmt.Bind(1, group)) != kSuccess ||
          (rc = stmt.Bind(2, object)) != kSuccess || (rc = stmt.Bind(3, component)) != kSuccess ||
          (rc = stmt.Bind(4, instance)) != kSuccess ||
          (rc = stmt.Bind(5, kSourceExternal)) != kSuccess) {
         return rc;
      }
      int step = stmt.Step();
      if (step == SQLITE_DONE) {
         return kNotFound;
      }
      if (step != SQLITE_ROW) {
         return FromSqlite(step);
      }
      NodePtr node = detail::ParseDocument(stmt.Text(0));
      *out = NewRoot(std::move(node), group, object, component, instance).release();
      return kSuccess;
   });
}

int32_t CreateObject(const char *group, const char *object, const char *component,
                     const char *instanceId, const char *json, Object **out) {
   return Guard([&]() -> int32_t {
      if (out == nullptr || Empty(group) || Empty(object) || Empty(component) || json == nullptr) {
         return kBadParam;
      }
      *out = nullptr;
      NodePtr node = detail::ParsePlainObject(json);
      *out = NewRoot(std::move(node), group, object, component, OrEmpty(instanceId)).release();
      return kSuccess;
   });
}

int32_t Set(Store *store, Object *obj, const char *source) {
   return Guard([&]() -> int32_t {
      if (store == nullptr || obj == nullptr || !IsRoot(obj) || !ValidSource(source)) {
         return kBadParam;
      }
      std::string doc = detail::SerializeDocument(*obj->top);
      Statement stmt;
      int32_t rc = stmt.Prepare(store, kUpsert);
      if (rc != kSuccess || (rc = stmt.Bind(1, obj->group)) != kSuccess ||
          (rc = stmt.Bind(2, obj->object)) != kSuccess ||
          (rc = stmt.Bind(3, obj->component)) != kSuccess ||
          (rc = stmt.Bind(4, obj->instance)) != kSuccess ||
          (rc = stmt.Bind(5, source)) != kSuccess || (rc = stmt.BindNoCopy(6, doc)) != kSuccess) {
         return rc;
      }
      return FromSqlite(stmt.Step());
   });
}

int32_t Delete(Store *store, const char *group, const char *object, const char *component,
               const char *instanceId) {
   return Guard([&]() -> int32_t {
      if (store == nullptr || Empty(group) || Empty(object) || Empty(component)) {
         return kBadParam;
      }
      Statement stmt;
      int32_t rc = stmt.Prepare(store, kDeleteRows);
      if (rc != kSuccess || (rc = stmt.Bind(1, group)) != kSuccess ||
          (rc = stmt.Bind(2, object)) != kSuccess || (rc = stmt.Bind(3, component)) != kSuccess ||
          (rc = stmt.Bind(4, OrEmpty(instanceId))) != kSuccess) {
         return rc;
      }
      int step = stmt.Step();
      if (step != SQLITE_DONE) {
         return FromSqlite(step);
      }
      return sqlite3_changes(store->db) > 0 ? kSuccess : kNotFound;
   });
}

void DestroyConfigStoreObject(Object *obj) {
   // A sub-object handle belongs to its top-level object and goes with it.
   if (obj != nullptr && IsRoot(obj)) {
      delete obj;
   }
}

// ---- filters and instance lists -------------------------------------------------------

int32_t CreateFilterSpecObject(const char *a, const char *b, const char *c, const char *d,
                               FilterSpec **out) {
   return Guard([&]() -> int32_t {
      if (out == nullptr || Empty(a)) {
         return kBadParam;
      }
      *out = nullptr;
      auto filter = std::make_unique<FilterSpec>();
      filter->a = a;
      filter->b = OrEmpty(b);
      filter->c = OrEmpty(c);
      filter->d = OrEmpty(d);
      *out = filter.release();
      return kSuccess;
   });
}

void DestroyFilterSpecObject(FilterSpec *filter) {
   delete filter;
}

int32_t GetInstances(Store *store, FilterSpec *filter, Object ***objects, uint32_t *count) {
   return Guard([&]() -> int32_t {
      if (store == nullptr || filter == nullptr || objects == nullptr || count == nullptr ||
          filter->a.empty() || filter->b.empty() || filter->c.empty()) {
         return kBadParam;
      }
      *objects = nullptr;
      *count = 0;
      return ReadInstances(store, filter->a, filter->b, filter->c, filter->d, kSourceExternal,
                           objects, count);
   });
}

int32_t GetDesiredUserConfigInstances(const char *group, const char *object, const char *component,
                                      Object ***objects, uint32_t *count) {
   return Guard([&]() -> int32_t {
      if (objects == nullptr || count == nullptr || Empty(group) || Empty(object) ||
          Empty(component)) {
         return kBadParam;
      }
      *objects = nullptr;
      *count = 0;
      Store *store = nullptr;
      int32_t rc = OpenStore(&store);
      if (rc != kSuccess) {
         return rc;
      }
      std::unique_ptr<Store, void (*)(Store *)> closer(store, DestroyStore);
      return ReadInstances(store, group, object, component, std::string(), kSourceUser, objects,
                           count);
   });
}

int32_t GetSubObjectInstances(Object *parent, FilterSpec *filter, Object ***objects,
                              uint32_t *count) {
   return Guard([&]() -> int32_t {
      if (parent == nullptr || filter == nullptr || objects == nullptr || count == nullptr ||
          filter->a.empty()) {
         return kBadParam;
      }
      *objects = nullptr;
      *count = 0;
      NodePtr node = Live(parent);
      if (!node) {
         return kNotFound;
      }
      std::vector<NodePtr> selected;
      if (filter->b.empty()) {
         if (detail::SubKey *sub = node->FindSub(filter->a)) {
            selected = sub->entries;
         }
      } else if (NodePtr child = node->FindChild(filter->a, filter->b)) {
         selected.push_back(std::move(child));
      }
      return SubObjectArray(parent, selected, objects, count);
   });
}

int32_t DeleteSubObjectInstances(Object *parent, FilterSpec *filter) {
   return Guard([&]() -> int32_t {
      if (parent == nullptr || filter == nullptr || filter->a.empty()) {
         return kBadParam;
      }
      NodePtr node = Live(parent);
      if (!node) {
         return kNotFound;
      }
      bool removed =
         filter->b.empty() ? node->RemoveSub(filter->a) : node->RemoveChild(filter->a, filter->b);
      return removed ? kSuccess : kNotFound;
   });
}

// ---- sub-objects ------------------------------------------------------------------------

int32_t GetSubObject(Object *parent, const char *key, const char *instanceId, Object **out) {
   return Guard([&]() -> int32_t {
      if (parent == nullptr || out == nullptr || Empty(key)) {
         return kBadParam;
      }
      *out = nullptr;
      NodePtr node = Live(parent);
      if (!node) {
         return kNotFound;
      }
      NodePtr child = node->FindChild(key, OrEmpty(instanceId));
      if (!child) {
         return kNotFound;
      }
      *out = HandleFor(parent->root, child);
      return kSuccess;
   });
}

int32_t CreateSubObject(Object *parent, const char *key, const char *instanceId, Object **out) {
   return Guard([&]() -> int32_t {
      if (parent == nullptr || out == nullptr || Empty(key)) {
         return kBadParam;
      }
      *out = nullptr;
      NodePtr node = Live(parent);
      if (!node) {
         return kNotFound;
      }
      NodePtr child = node->AddChild(key, OrEmpty(instanceId));
      *out = HandleFor(parent->root, child);
      return kSuccess;
   });
}

int32_t DeleteSubObject(Object *parent, const char *key, const char *instanceId) {
   return Guard([&]() -> int32_t {
      if (parent == nullptr || Empty(key)) {
         return kBadParam;
      }
      NodePtr node = Live(parent);
      if (!node) {
         return kNotFound;
      }
      return node->RemoveChild(key, OrEmpty(instanceId)) ? kSuccess : kNotFound;
   });
}

int32_t GenerateInstanceId(char **id) {
   return Guard([&]() -> int32_t {
      if (id == nullptr) {
         return kBadParam;
      }
      *id = nullptr;
      unsigned char bytes[16];
      bool filled = false;
      if (FILE *f = std::fopen("/dev/urandom", "rbe")) {
         filled = std::fread(bytes, 1, sizeof bytes, f) == sizeof bytes;
         std::fclose(f);
      }
      if (!filled) {
         std::random_device rd;
         for (auto &b : bytes) {
            b = static_cast<unsigned char>(rd());
         }
      }
      bytes[6] = static_cast<unsigned char>((bytes[6] & 0x0f) | 0x40);  // version 4
      bytes[8] = static_cast<unsigned char>((bytes[8] & 0x3f) | 0x80);  // RFC 4122 variant
      char text[37];
      std::snprintf(
         text, sizeof text, "%02x%02x%02x%02x-%02x%02x-%02x%02x-%02x%02x-%02x%02x%02x%02x%02x%02x",
         bytes[0], bytes[1], bytes[2], bytes[3], bytes[4], bytes[5], bytes[6], bytes[7], bytes[8],
         bytes[9], bytes[10], bytes[11], bytes[12], bytes[13], bytes[14], bytes[15]);
      *id = DupString(text);
      return kSuccess;
   });
}

// ---- values -----------------------------------------------------------------------------

int32_t GetValueStr(Object *obj, const char *key, char **value) {
   return Guard([&]() -> int32_t {
      if (value == nullptr) {
         return kBadParam;
      }
      Value scratch;
      const Value *v = nullptr;
      const int32_t rc =
         LookupKind(obj, key, scratch, &v, [](const Value &x) { return x.kind == Kind::kString; });
      if (rc != kSuccess) {
         return rc;
      }
      *value = DupString(v->str);
      return kSuccess;
   });
}

int32_t GetValueInt(Object *obj, const char *key, int32_t *value) {
   return Guard([&] { return GetIntegerAs(obj, key, value); });
}

int32_t GetValueUint32(Object *obj, const char *key, uint32_t *value) {
   return Guard([&] { return GetIntegerAs(obj, key, value); });
}

int32_t GetValueUint16(Object *obj, const char *key, uint16_t *value) {
   return Guard([&] { return GetIntegerAs(obj, key, value); });
}

int32_t GetValueLong(Object *obj, const char *key, int64_t *value) {
   return Guard([&] { return GetIntegerAs(obj, key, value); });
}

int32_t GetValueBool(Object *obj, const char *key, bool *value) {
   return Guard([&]() -> int32_t {
      if (value == nullptr) {
         return kBadParam;
      }
      Value scratch;
      const Value *v = nullptr;
      const int32_t rc =
         LookupKind(obj, key, scratch, &v, [](const Value &x) { return x.kind == Kind::kBool; });
      if (rc != kSuccess) {
         return rc;
      }
      *value = v->num != 0;
      return kSuccess;
   });
}

int32_t GetValueStringArray(Object *obj, const char *key, char ***values, uint32_t *count) {
   return Guard([&]() -> int32_t {
      if (values == nullptr || count == nullptr) {
         return kBadParam;
      }
      Value scratch;
      const Value *v = nullptr;
      const int32_t rc = LookupKind(obj, key, scratch, &v, [](const Value &x) {
         return x.kind == Kind::kStringList || x.kind == Kind::kEmptyList;
      });
      if (rc != kSuccess) {
         return rc;
      }
      size_t n = v->strs.size();
      // One spare slot keeps the array NULL-terminated as well.
      auto **array = static_cast<char **>(std::calloc(n + 1, sizeof(char *)));
      if (array == nullptr) {
         return kNoMemory;
      }
      for (size_t i = 0; i < n; ++i) {
         array[i] = strdup(v->strs[i].c_str());
         if (array[i] == nullptr) {
            DestroyStringArrayValue(array, static_cast<uint32_t>(i));
            return kNoMemory;
         }
      }
      *values = array;
      *count = static_cast<uint32_t>(n);
      return kSuccess;
   });
}

int32_t SetValueStr(Object *obj, const char *key, const char *value) {
   return Guard([&]() -> int32_t {
      if (value == nullptr) {
         return kBadParam;
      }
      return PutValue(obj, key, [&](Value &v) {
         v.kind = Kind::kString;
         v.str = value;
      });
   });
}

int32_t SetValueInt(Object *obj, const char *key, int32_t value) {
   return Guard([&]() -> int32_t { return SetInteger(obj, key, value); });
}

int32_t SetValueUint32(Object *obj, const char *key, uint32_t value) {
   return Guard([&]() -> int32_t { return SetInteger(obj, key, value); });
}

int32_t SetValueUint16(Object *obj, const char *key, uint16_t value) {
   return Guard([&]() -> int32_t { return SetInteger(obj, key, value); });
}

int32_t SetValueLong(Object *obj, const char *key, int64_t value) {
   return Guard([&]() -> int32_t { return SetInteger(obj, key, value); });
}

int32_t SetValueBool(Object *obj, const char *key, bool value) {
   return Guard([&]() -> int32_t {
      return PutValue(obj, key, [&](Value &v) {
         v.kind = Kind::kBool;
         v.num = value ? 1 : 0;
      });
   });
}

// A key set to an empty list holds nothing: the sub-objects under the same
// key (instances and singleton) go with everything below them, and every
// handle into them answers kNotFound from now on.
int32_t SetValueEmptyList(Object *obj, const char *key) {
   return Guard([&]() -> int32_t {
      if (obj == nullptr || Empty(key)) {
         return kBadParam;
      }
      NodePtr node = Live(obj);
      if (!node) {
         return kNotFound;
      }
      Value &v = node->PutValue(key);  // the only step that can fail
      v = Value{};
      v.kind = Kind::kEmptyList;
      node->RemoveSub(key);
      return kSuccess;
   });
}

namespace {

// Appends to the list under `key`, creating it when absent.  `want` is
// the kind of list the element belongs in.
template <typename Push>
int32_t Append(Object *obj, const char *key, Kind want, Push &&push) {
   if (obj == nullptr || Empty(key)) {
      return kBadParam;
   }
   NodePtr node = Live(obj);
   if (!node) {
      return kNotFound;
   }
   Value *v = node->FindValue(key);
   if (v == nullptr) {
      v = &node->PutValue(key);
      v->kind = Kind::kEmptyList;
   }
   if (v->kind == Kind::kEmptyList) {
      v->kind = want;
   } else if (v->kind != want) {
      return kTypeMismatch;
   }
   push(*v);
   return kSuccess;
}

}  // namespace

int32_t AppendValueString(Object *obj, const char *key, const char *value) {
   return Guard([&]() -> int32_t {
      if (value == nullptr) {
         return kBadParam;
      }
      return Append(obj, key, Kind::kStringList, [&](Value &v) { v.strs.emplace_back(value); });
   });
}

int32_t AppendValueInt(Object *obj, const char *key, int32_t value) {
   return Guard([&]() -> int32_t {
      return Append(obj, key, Kind::kIntList, [&](Value &v) { v.nums.push_back(value); });
   });
}

int32_t RemoveValue(Object *obj, const char *key) {
   return Guard([&]() -> int32_t {
      if (obj == nullptr || Empty(key)) {
         return kBadParam;
      }
      NodePtr node = Live(obj);
      if (!node) {
         return kNotFound;
      }
      return node->RemoveValue(key) ? kSuccess : kNotFound;
   });
}

void DestroyStringArrayValue(char **values, uint32_t count) {
   if (values == nullptr) {
      return;
   }
   for (uint32_t i = 0; i < count; ++i) {
      std::free(values[i]);
   }
   std::free(values);
}

}  // namespace configstore
