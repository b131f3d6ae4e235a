// A whole host through the configuration store at 64, 512 and 4096 ports,
// saved with DVSState_SaveBufToConfigStore and loaded with
// DVSState_LoadFromConfigStoreAsBuf.  Two hosts of 32 switches: the one the
// targets are set for (BM_PropHost*: 20 properties a port, most of them
// kept as opaque data) and the sample host (BM_Host*: four classes; uplinks
// with resource pools and LACP, VM ports with teaming, VLAN, shaping,
// security, mirror sessions, filters and opaque data), whose every port
// goes through the structured converters.  Beside each, the floor SQLite
// alone sets for the same documents: every row inserted in one transaction
// with the store's durability (WAL, synchronous FULL), and every row
// selected.
#include <benchmark/benchmark.h>
#include <sqlite3.h>

#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "store_host_support.h"

namespace {

using namespace store_bench;

void SetPortCounters(benchmark::State &state, double docBytes) {
   state.counters["ports"] = static_cast<double>(state.range(0));
   state.counters["doc_bytes"] = docBytes;
}

// The (key, document) rows of a store's database.
std::vector<std::pair<std::string, std::string>> StoredRows(const std::string &path) {
   std::vector<std::pair<std::string, std::string>> rows;
   sqlite3 *db = nullptr;
   sqlite3_stmt *stmt = nullptr;
   Must(sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK, "open");
   Must(sqlite3_prepare_v2(db, "SELECT instance, doc FROM objects ORDER BY seq", -1, &stmt,
                           nullptr) == SQLITE_OK,
        "prepare");
   while (sqlite3_step(stmt) == SQLITE_ROW) {
      rows.emplace_back(reinterpret_cast<const char *>(sqlite3_column_text(stmt, 0)),
                        reinterpret_cast<const char *>(sqlite3_column_text(stmt, 1)));
   }
   sqlite3_finalize(stmt);
   sqlite3_close(db);
   return rows;
}

double Bytes(const std::vector<std::pair<std::string, std::string>> &rows) {
   double n = 0;
   for (const auto &row : rows) {
      n += static_cast<double>(row.second.size());
   }
   return n;
}

// A bare table holding the same rows, kept as the store keeps its file.
class BareDb {
  public:
   explicit BareDb(const std::string &path) {
      Must(sqlite3_open(path.c_str(), &db_) == SQLITE_OK, "bare open");
      Exec("PRAGMA journal_mode=WAL");
      Exec("PRAGMA synchronous=FULL");
      Exec("CREATE TABLE t(k TEXT PRIMARY KEY, doc TEXT NOT NULL)");
   }
   ~BareDb() { sqlite3_close(db_); }
   BareDb(const BareDb &) = delete;
   BareDb &operator=(const BareDb &) = delete;

   void Exec(const char *sql) {
      Must(sqlite3_exec(db_, sql, nullptr, nullptr, nullptr) == SQLITE_OK, sql);
   }
   sqlite3_stmt *Prepare(const char *sql) {
      sqlite3_stmt *stmt = nullptr;
      Must(sqlite3_prepare_v2(db_, sql, -1, &stmt, nullptr) == SQLITE_OK, sql);
      return stmt;
   }

   // Every row in one transaction.
   void InsertAll(sqlite3_stmt *insert,
                  const std::vector<std::pair<std::string, std::string>> &rows) {
      Exec("BEGIN IMMEDIATE");
      for (const auto &row : rows) {
         sqlite3_bind_text(insert, 1, row.first.data(), static_cast<int>(row.first.size()),
                           SQLITE_STATIC);
         sqlite3_bind_text(insert, 2, row.second.data(), static_cast<int>(row.second.size()),
                           SQLITE_STATIC);
         Must(sqlite3_step(insert) == SQLITE_DONE, "bare insert");
         sqlite3_reset(insert);
      }
      Exec("COMMIT");
   }

  private:
   sqlite3 *db_ = nullptr;
};

constexpr const char *kBareUpsert = "INSERT OR REPLACE INTO t(k, doc) VALUES(?, ?)";

using HostBuilder = std::string (*)(int64_t ports);

void StoreSave(benchmark::State &state, HostBuilder host) {
   const std::string blob = host(state.range(0));
   StoreDir dir;
   Save(blob);  // later saves replace existing objects, as on a running host
   for (auto _ : state) {
      Save(blob);
   }
   SetPortCounters(state, Bytes(StoredRows(dir.File("store.db"))));
}

// The documents a store save of a host writes, as rows.
std::vector<std::pair<std::string, std::string>> SavedRows(const StoreDir &dir, HostBuilder host,
                                                           int64_t ports) {
   Save(host(ports));
   return StoredRows(dir.File("store.db"));
}

void BareInsert(benchmark::State &state, HostBuilder host) {
   StoreDir dir;
   const auto rows = SavedRows(dir, host, state.range(0));
   BareDb bare(dir.File("bare.db"));
   sqlite3_stmt *insert = bare.Prepare(kBareUpsert);
   bare.InsertAll(insert, rows);
   for (auto _ : state) {
      bare.InsertAll(insert, rows);
   }
   sqlite3_finalize(insert);
   SetPortCounters(state, Bytes(rows));
}

void StoreLoad(benchmark::State &state, HostBuilder host) {
   StoreDir dir;
   Save(host(state.range(0)));
   uint32_t len = 0;
   for (auto _ : state) {
      void *buf = nullptr;
      Must(DVSState_LoadFromConfigStoreAsBuf(&buf, &len, false) == 0, "load");
      std::free(buf);
   }
   SetPortCounters(state, Bytes(StoredRows(dir.File("store.db"))));
   state.counters["blob_bytes"] = len;
}

void BareSelect(benchmark::State &state, HostBuilder host) {
   StoreDir dir;
   const auto rows = SavedRows(dir, host, state.range(0));
   BareDb bare(dir.File("bare.db"));
   sqlite3_stmt *insert = bare.Prepare(kBareUpsert);
   bare.InsertAll(insert, rows);
   sqlite3_finalize(insert);
   sqlite3_stmt *select = bare.Prepare("SELECT k, doc FROM t");
   for (auto _ : state) {
      size_t sum = 0;
      while (sqlite3_step(select) == SQLITE_ROW) {
         sum += static_cast<size_t>(sqlite3_column_bytes(select, 1));
         benchmark::DoNotOptimize(sqlite3_column_text(select, 1));
      }
      sqlite3_reset(select);
      benchmark::DoNotOptimize(sum);
   }
   sqlite3_finalize(select);
   SetPortCounters(state, Bytes(rows));
}

void BM_PropHostStoreSave(benchmark::State &state) {
   StoreSave(state, PropertyHost);
}
void BM_PropHostBareInsert(benchmark::State &state) {
   BareInsert(state, PropertyHost);
}
void BM_PropHostStoreLoad(benchmark::State &state) {
   StoreLoad(state, PropertyHost);
}
void BM_PropHostBareSelect(benchmark::State &state) {
   BareSelect(state, PropertyHost);
}
void BM_HostStoreSave(benchmark::State &state) {
   StoreSave(state, SampleHost);
}
void BM_HostBareInsert(benchmark::State &state) {
   BareInsert(state, SampleHost);
}
void BM_HostStoreLoad(benchmark::State &state) {
   StoreLoad(state, SampleHost);
}
void BM_HostBareSelect(benchmark::State &state) {
   BareSelect(state, SampleHost);
}

// CPU time is the whole process's: a large read parses on two threads.
#define HOST_SIZES(b)                                                                 \
   BENCHMARK(b)->Arg(64)->Arg(512)->Arg(4096)->Unit(benchmark::kMillisecond)->UseRealTime() \
      ->MeasureProcessCPUTime()
HOST_SIZES(BM_PropHostStoreSave);
HOST_SIZES(BM_PropHostBareInsert);
HOST_SIZES(BM_PropHostStoreLoad);
HOST_SIZES(BM_PropHostBareSelect);
HOST_SIZES(BM_HostStoreSave);
HOST_SIZES(BM_HostBareInsert);
HOST_SIZES(BM_HostStoreLoad);
HOST_SIZES(BM_HostBareSelect);

}  // namespace
