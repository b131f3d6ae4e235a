// The configuration store with a switch-sized object: one object of 1000
// "ports" instances, each with five values and a nested "policy"
// sub-object.  Writing it in a transaction, reading it back value by value
// and listing 32 of them, next to a bare SQLite table that takes the same
// JSON text in the same journal mode, so the store's own cost shows.
//
// Each benchmark works on a fresh database in a temporary directory
// (CONFIGSTORE_PATH is set before GetStore) that is removed afterwards.
#include <benchmark/benchmark.h>
#include <configstore.h>
#include <sqlite3.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>

#include <nlohmann/json.hpp>

namespace cs = configstore;

namespace {

constexpr const char *kGroup = "switches";
constexpr const char *kObject = "network_tds";
constexpr const char *kComponent = "node";
constexpr int kPorts = 1000;
constexpr int kListed = 32;
// The store's own journal settings, for the bare table.
constexpr const char *kSynchronous = "PRAGMA synchronous=FULL";

void Must(int32_t code, const char *what) {
   if (code != cs::kSuccess) {
      std::fprintf(stderr, "configstore bench: %s: configstore code %d\n", what, code);
      std::abort();
   }
}

void MustSql(int rc, sqlite3 *db, const char *what) {
   if (rc != SQLITE_OK && rc != SQLITE_DONE && rc != SQLITE_ROW) {
      std::fprintf(stderr, "configstore bench: %s: %s\n", what, sqlite3_errmsg(db));
      std::abort();
   }
}

// A temporary directory, removed with everything in it.
class TempDir {
  public:
   TempDir() {
      std::string pattern = (std::filesystem::temp_directory_path() / "csbench.XXXXXX").string();
      if (mkdtemp(pattern.data()) == nullptr) {
         std::perror("configstore bench: mkdtemp");
         std::abort();
      }
      path_ = pattern;
   }
   ~TempDir() {
      std::error_code ec;
      std::filesystem::remove_all(path_, ec);
   }
   TempDir(const TempDir &) = delete;
   TempDir &operator=(const TempDir &) = delete;

   std::string File(const char *name) const { return (path_ / name).string(); }

  private:
   std::filesystem::path path_;
};

// A store connection on a database of its own.
class BenchStore {
  public:
   BenchStore() : path_(dir_.File("configstore.db")) {
      setenv(cs::kPathEnv, path_.c_str(), 1);
      Must(cs::GetStore(0, &store_), "GetStore");
   }
   ~BenchStore() { cs::DestroyStore(store_); }
   BenchStore(const BenchStore &) = delete;
   BenchStore &operator=(const BenchStore &) = delete;

   cs::Store *get() const { return store_; }

   // Size of the largest document the store keeps, read from its database.
   double StoredDocBytes() const {
      sqlite3 *db = nullptr;
      sqlite3_stmt *stmt = nullptr;
      double bytes = 0;
      if (sqlite3_open_v2(path_.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK &&
          sqlite3_prepare_v2(db, "SELECT max(length(doc)) FROM objects", -1, &stmt, nullptr) ==
             SQLITE_OK &&
          sqlite3_step(stmt) == SQLITE_ROW) {
         bytes = sqlite3_column_double(stmt, 0);
      }
      sqlite3_finalize(stmt);
      sqlite3_close(db);
      return bytes;
   }

  private:
   TempDir dir_;
   std::string path_;
   cs::Store *store_ = nullptr;
};

struct ObjectDeleter {
   void operator()(cs::Object *obj) const noexcept { cs::DestroyConfigStoreObject(obj); }
};
using ObjectPtr = std::unique_ptr<cs::Object, ObjectDeleter>;

std::string PortName(int i) {
   return "port-" + std::to_string(i);
}

// The switch object in memory, built through the value setters.
ObjectPtr BuildSwitchObject(const std::string &id) {
   cs::Object *raw = nullptr;
   Must(cs::CreateObject(kGroup, kObject, kComponent, id.c_str(), "{}", &raw), "CreateObject");
   ObjectPtr obj(raw);
   Must(cs::SetValueStr(raw, "name", ("bench-" + id).c_str()), "SetValueStr");
   Must(cs::SetValueInt(raw, "mtu", 9000), "SetValueInt");
   for (int i = 0; i < kPorts; ++i) {
      cs::Object *port = nullptr;
      Must(cs::CreateSubObject(raw, "ports", std::to_string(i).c_str(), &port), "CreateSubObject");
      Must(cs::SetValueStr(port, "name", PortName(i).c_str()), "SetValueStr");
      Must(cs::SetValueInt(port, "vlan", i % 4094 + 1), "SetValueInt");
      Must(cs::SetValueBool(port, "enabled", i % 7 != 0), "SetValueBool");
      Must(cs::SetValueUint32(port, "mtu", 1500), "SetValueUint32");
      Must(cs::SetValueLong(port, "rx_bytes", int64_t{1} << 40 | i), "SetValueLong");
      cs::Object *policy = nullptr;
      Must(cs::CreateSubObject(port, "policy", "", &policy), "CreateSubObject");
      Must(cs::SetValueStr(policy, "mode", i % 2 ? "trunk" : "access"), "SetValueStr");
   }
   return obj;
}

// The same content as one JSON tree of the shape CreateObject takes.
nlohmann::json SwitchTree(const std::string &id) {
   nlohmann::json ports = nlohmann::json::array();
   for (int i = 0; i < kPorts; ++i) {
      ports.push_back({{"key", std::to_string(i)},
                       {"name", PortName(i)},
                       {"vlan", i % 4094 + 1},
                       {"enabled", i % 7 != 0},
                       {"mtu", 1500},
                       {"rx_bytes", int64_t{1} << 40 | i},
                       {"policy", {{"mode", i % 2 ? "trunk" : "access"}}}});
   }
   return {{"name", "bench-" + id}, {"mtu", 9000}, {"ports", std::move(ports)}};
}

std::string SwitchJson(const std::string &id) {
   return SwitchTree(id).dump();
}

void WriteObject(cs::Store *store, cs::Object *obj) {
   Must(cs::BeginTransaction(store), "BeginTransaction");
   Must(cs::Set(store, obj, cs::kSourceExternal), "Set");
   Must(cs::CommitTransaction(store), "CommitTransaction");
}

void BM_StoreSetSwitchObject(benchmark::State &state) {
   BenchStore store;
   const ObjectPtr obj = BuildSwitchObject("sw-0");
   for (auto _ : state) {
      WriteObject(store.get(), obj.get());
   }
   state.SetItemsProcessed(state.iterations());
   state.counters["doc_bytes"] = store.StoredDocBytes();
   state.counters["ports/s"] = benchmark::Counter(static_cast<double>(state.iterations()) * kPorts,
                                                  benchmark::Counter::kIsRate);
}
BENCHMARK(BM_StoreSetSwitchObject)->Unit(benchmark::kMillisecond)->MinTime(0.5)->UseRealTime();

// Building the object in memory, which a writer pays before Set.
void BM_StoreBuildSwitchObject(benchmark::State &state) {
   for (auto _ : state) {
      benchmark::DoNotOptimize(BuildSwitchObject("sw-0"));
   }
   state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_StoreBuildSwitchObject)->Unit(benchmark::kMillisecond)->MinTime(0.3)->UseRealTime();

// Reads one port's values and its policy; returns a checksum so nothing is
// optimized away.
int64_t ReadPort(cs::Object *port) {
   int64_t sum = 0;
   char *text = nullptr;
   Must(cs::GetValueStr(port, "name", &text), "GetValueStr name");
   sum += static_cast<int64_t>(std::strlen(text));
   std::free(text);
   int32_t vlan = 0;
   Must(cs::GetValueInt(port, "vlan", &vlan), "GetValueInt vlan");
   bool enabled = false;
   Must(cs::GetValueBool(port, "enabled", &enabled), "GetValueBool enabled");
   uint32_t mtu = 0;
   Must(cs::GetValueUint32(port, "mtu", &mtu), "GetValueUint32 mtu");
   int64_t rx = 0;
   Must(cs::GetValueLong(port, "rx_bytes", &rx), "GetValueLong rx_bytes");
   cs::Object *policy = nullptr;
   Must(cs::GetSubObject(port, "policy", "", &policy), "GetSubObject policy");
   Must(cs::GetValueStr(policy, "mode", &text), "GetValueStr mode");
   sum += static_cast<int64_t>(std::strlen(text));
   std::free(text);
   return sum + vlan + enabled + mtu + rx;
}

void BM_StoreGetSwitchObject(benchmark::State &state) {
   BenchStore store;
   WriteObject(store.get(), BuildSwitchObject("sw-0").get());
   cs::FilterSpec *filter = nullptr;
   Must(cs::CreateFilterSpecObject("ports", "", "", "", &filter), "CreateFilterSpecObject");
   for (auto _ : state) {
      cs::Object *raw = nullptr;
      Must(cs::Get(store.get(), kGroup, kObject, kComponent, "sw-0", &raw), "Get");
      ObjectPtr obj(raw);
      cs::Object **ports = nullptr;
      uint32_t count = 0;
      Must(cs::GetSubObjectInstances(raw, filter, &ports, &count), "GetSubObjectInstances");
      if (count != kPorts) {
         std::fprintf(stderr, "configstore bench: %u ports read back\n", count);
         std::abort();
      }
      int64_t sum = 0;
      for (uint32_t i = 0; i < count; ++i) {
         sum += ReadPort(ports[i]);
      }
      // The instances belong to the root object; only the array is ours.
      std::free(ports);
      benchmark::DoNotOptimize(sum);
   }
   cs::DestroyFilterSpecObject(filter);
   state.SetItemsProcessed(state.iterations());
   state.counters["ports/s"] = benchmark::Counter(static_cast<double>(state.iterations()) * kPorts,
                                                  benchmark::Counter::kIsRate);
}
BENCHMARK(BM_StoreGetSwitchObject)->Unit(benchmark::kMillisecond)->MinTime(0.5)->UseRealTime();

void BM_StoreListSwitchObjects(benchmark::State &state) {
   BenchStore store;
   {
      for (int i = 0; i < kListed; ++i) {
         WriteObject(store.get(), BuildSwitchObject("sw-" + std::to_string(i)).get());
      }
   }
   cs::FilterSpec *filter = nullptr;
   Must(cs::CreateFilterSpecObject(kGroup, kObject, kComponent, "", &filter),
        "CreateFilterSpecObject");
   for (auto _ : state) {
      cs::Object **objs = nullptr;
      uint32_t count = 0;
      Must(cs::GetInstances(store.get(), filter, &objs, &count), "GetInstances");
      if (count != kListed) {
         std::fprintf(stderr, "configstore bench: %u objects listed\n", count);
         std::abort();
      }
      for (uint32_t i = 0; i < count; ++i) {
         cs::DestroyConfigStoreObject(objs[i]);
      }
      std::free(objs);
   }
   cs::DestroyFilterSpecObject(filter);
   state.SetItemsProcessed(state.iterations() * kListed);
}
BENCHMARK(BM_StoreListSwitchObjects)->Unit(benchmark::kMillisecond)->MinTime(0.5)->UseRealTime();

// A bare table in WAL mode, as the store keeps its database.
class BareTable {
  public:
   BareTable() {
      const std::string path = dir_.File("bare.db");
      MustSql(sqlite3_open(path.c_str(), &db_), db_, "sqlite3_open");
      Exec("PRAGMA journal_mode=WAL");
      Exec(kSynchronous);
      Exec("CREATE TABLE t(k TEXT PRIMARY KEY, doc TEXT)");
   }
   ~BareTable() { sqlite3_close(db_); }
   BareTable(const BareTable &) = delete;
   BareTable &operator=(const BareTable &) = delete;

   void Exec(const char *sql) {
      MustSql(sqlite3_exec(db_, sql, nullptr, nullptr, nullptr), db_, sql);
   }
   sqlite3_stmt *Prepare(const char *sql) {
      sqlite3_stmt *stmt = nullptr;
      MustSql(sqlite3_prepare_v2(db_, sql, -1, &stmt, nullptr), db_, sql);
      return stmt;
   }
   sqlite3 *db() const { return db_; }

  private:
   TempDir dir_;
   sqlite3 *db_ = nullptr;
};

void BareInsert(BareTable &table, sqlite3_stmt *insert, const std::string &key,
                const std::string &doc) {
   table.Exec("BEGIN");
   sqlite3_bind_text(insert, 1, key.data(), static_cast<int>(key.size()), SQLITE_STATIC);
   sqlite3_bind_text(insert, 2, doc.data(), static_cast<int>(doc.size()), SQLITE_STATIC);
   MustSql(sqlite3_step(insert), table.db(), "INSERT");
   sqlite3_reset(insert);
   table.Exec("COMMIT");
}

void BM_BareSqliteInsertSameJson(benchmark::State &state) {
   BareTable table;
   const std::string doc = SwitchJson("sw-0");
   sqlite3_stmt *insert = table.Prepare("INSERT OR REPLACE INTO t(k, doc) VALUES(?, ?)");
   for (auto _ : state) {
      BareInsert(table, insert, "sw-0", doc);
   }
   sqlite3_finalize(insert);
   state.SetItemsProcessed(state.iterations());
   state.counters["doc_bytes"] = static_cast<double>(doc.size());
}
BENCHMARK(BM_BareSqliteInsertSameJson)->Unit(benchmark::kMillisecond)->MinTime(0.5)->UseRealTime();

// The same, with the JSON text produced from a tree on every write, as a
// store that keeps documents must do.
void BM_BareSqliteDumpAndInsertSameJson(benchmark::State &state) {
   BareTable table;
   const nlohmann::json tree = SwitchTree("sw-0");
   sqlite3_stmt *insert = table.Prepare("INSERT OR REPLACE INTO t(k, doc) VALUES(?, ?)");
   for (auto _ : state) {
      BareInsert(table, insert, "sw-0", tree.dump());
   }
   sqlite3_finalize(insert);
   state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_BareSqliteDumpAndInsertSameJson)
   ->Unit(benchmark::kMillisecond)
   ->MinTime(0.5)
   ->UseRealTime();

// Reading the document back and parsing it: the floor under a Get.
void BM_BareSqliteReadSameJson(benchmark::State &state) {
   BareTable table;
   sqlite3_stmt *insert = table.Prepare("INSERT OR REPLACE INTO t(k, doc) VALUES(?, ?)");
   BareInsert(table, insert, "sw-0", SwitchJson("sw-0"));
   sqlite3_finalize(insert);
   sqlite3_stmt *select = table.Prepare("SELECT doc FROM t WHERE k = 'sw-0'");
   for (auto _ : state) {
      if (sqlite3_step(select) != SQLITE_ROW) {
         std::fprintf(stderr, "configstore bench: bare document missing\n");
         std::abort();
      }
      const auto *text = reinterpret_cast<const char *>(sqlite3_column_text(select, 0));
      const nlohmann::json doc =
         nlohmann::json::parse(text, text + sqlite3_column_bytes(select, 0));
      benchmark::DoNotOptimize(doc["ports"].size());
      sqlite3_reset(select);
   }
   sqlite3_finalize(select);
   state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_BareSqliteReadSameJson)->Unit(benchmark::kMillisecond)->MinTime(0.5)->UseRealTime();

}  // namespace
