// The cost of replication: saving the 32-switch sample host (2048 ports,
// every structured property) into the configuration store and building its
// host blob back, over the SQLite file (argument 0) and over a
// single-member etcd cluster on loopback that the bench starts (argument
// 1).  Compare the two rows of each benchmark for the ratio.
#include <benchmark/benchmark.h>
#include <configstore.h>
#include <dvsconfigstore.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>

#include "etcd_cluster.h"
#include "sample_host.h"

namespace {

void Must(bool ok, const char *what) {
   if (!ok) {
      std::fprintf(stderr, "replicated store bench: %s failed\n", what);
      std::abort();
   }
}

const dvsctl::Bytes &Host() {
   static const dvsctl::Bytes blob = dvsctl::BuildSampleHost({32, 2048, 7});
   return blob;
}

// Points the store at the backend of `arg`; the cluster and the file live
// until the process ends.
void UseBackend(int64_t arg) {
   static std::unique_ptr<configstore_test::EtcdCluster> cluster;
   static std::string dir;
   if (dir.empty()) {
      char tmpl[] = "/tmp/dvs-replicated-bench-XXXXXX";
      Must(mkdtemp(tmpl) != nullptr, "mkdtemp");
      dir = tmpl;
      std::atexit([] {
         cluster.reset();
         std::error_code ec;
         std::filesystem::remove_all(dir, ec);
      });
   }
   setenv(configstore::kPathEnv, (dir + "/store.db").c_str(), 1);
   setenv(configstore::kHostEnv, "bench-host", 1);
   if (arg == 0) {
      unsetenv(configstore::kUrlEnv);
      return;
   }
   if (!cluster) {
      cluster = std::make_unique<configstore_test::EtcdCluster>();
      Must(cluster->Start(1), "starting etcd");
   }
   setenv(configstore::kUrlEnv, ("etcd://" + cluster->Endpoint(0) + "/bench").c_str(), 1);
}

void BM_SaveHost32(benchmark::State &state) {
   UseBackend(state.range(0));
   dvsconfigstore_debug = -1;
   const dvsctl::Bytes &blob = Host();
   for (auto _ : state) {
      Must(DVSState_SaveBufToConfigStore(blob.data(), static_cast<uint32_t>(blob.size())) == 0,
           "save");
   }
   state.SetLabel(state.range(0) == 0 ? "sqlite" : "etcd");
   state.counters["blob_bytes"] = static_cast<double>(blob.size());
}
BENCHMARK(BM_SaveHost32)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->MinTime(1)->UseRealTime();

void BM_LoadHost32(benchmark::State &state) {
   UseBackend(state.range(0));
   dvsconfigstore_debug = -1;
   const dvsctl::Bytes &blob = Host();
   Must(DVSState_SaveBufToConfigStore(blob.data(), static_cast<uint32_t>(blob.size())) == 0,
        "save");
   for (auto _ : state) {
      void *buf = nullptr;
      uint32_t len = 0;
      Must(DVSState_LoadFromConfigStoreAsBuf(&buf, &len, false) == 0 && buf != nullptr, "load");
      std::free(buf);
   }
   state.SetLabel(state.range(0) == 0 ? "sqlite" : "etcd");
}
BENCHMARK(BM_LoadHost32)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->MinTime(1)->UseRealTime();

}  // namespace
