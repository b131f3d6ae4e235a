// sqlite_sql.h -- every SQL statement of the SQLite backend, in one place.
// Statements run more than once are prepared once per connection and
// reused (SqliteBackend keys its cache by the address of their text).
#ifndef CONFIGSTORE_SQLITE_SQL_H
#define CONFIGSTORE_SQLITE_SQL_H

namespace configstore {
namespace detail {
namespace sql {

constexpr int kSchemaVersion = 1;

// Created inside BEGIN IMMEDIATE by the first connection to an empty file;
// IF NOT EXISTS and OR IGNORE keep it harmless should it ever run twice.
inline constexpr const char *kCreateSchema =
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

inline constexpr const char *kUserVersion = "PRAGMA user_version";
inline constexpr const char *kCountOwnTables =
   "SELECT count(*) FROM sqlite_master WHERE name NOT LIKE 'sqlite\\_%' ESCAPE '\\'";
inline constexpr const char *kCountStoreTables =
   "SELECT count(*) FROM sqlite_master WHERE type = 'table' AND name IN ('meta', 'objects')";
inline constexpr const char *kUseWal = "PRAGMA journal_mode = WAL";
inline constexpr const char *kSynchronousFull = "PRAGMA synchronous = FULL";
inline constexpr const char *kBegin = "BEGIN IMMEDIATE";
inline constexpr const char *kCommit = "COMMIT";
inline constexpr const char *kRollback = "ROLLBACK";

inline constexpr const char *kSelectOne =
   "SELECT doc FROM objects WHERE grp = ?1 AND obj = ?2 AND comp = ?3 AND instance = ?4 "
   "AND source = ?5";
inline constexpr const char *kSelectAll =
   "SELECT instance, doc FROM objects WHERE grp = ?1 AND obj = ?2 AND comp = ?3 "
   "AND source = ?4 ORDER BY seq";
inline constexpr const char *kSelectInstance =
   "SELECT instance, doc FROM objects WHERE grp = ?1 AND obj = ?2 AND comp = ?3 "
   "AND source = ?4 AND instance = ?5 ORDER BY seq";
inline constexpr const char *kUpsert =
   "INSERT INTO objects(grp, obj, comp, instance, source, doc) VALUES(?1, ?2, ?3, ?4, ?5, ?6) "
   "ON CONFLICT(grp, obj, comp, instance, source) DO UPDATE SET doc = excluded.doc";
inline constexpr const char *kDeleteRows =
   "DELETE FROM objects WHERE grp = ?1 AND obj = ?2 AND comp = ?3 AND instance = ?4";

}  // namespace sql
}  // namespace detail
}  // namespace configstore

#endif  // CONFIGSTORE_SQLITE_SQL_H
