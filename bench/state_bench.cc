// The host configuration blob: writing the whole registry and restoring it,
// for a host of several switches with ports carrying a few properties.
#include <benchmark/benchmark.h>
#include <dvsstate.h>

#include "memory_reference.h"
#include "property_host.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

void Must(ReturnStatus status) {
   if (status != STATUS_OK) {
      std::fprintf(stderr, "state bench setup failed: 0x%x\n", status);
      std::abort();
   }
}

void BuildRegistry(int switches, int portsPerSwitch) {
   for (int s = 0; s < switches; ++s) {
      const std::string sw = "bench-sw" + std::to_string(s);
      Must(DVSState_SwitchAdd(sw.c_str(), "etherswitch", 0, 100));
      Must(DVSState_GlobalPropSet(sw.c_str(), "com.ostrel.common.alias", sw.c_str(),
                                  static_cast<uint32_t>(sw.size() + 1), 0x20));
      for (int p = 0; p < portsPerSwitch; ++p) {
         DVSDataHandle data = nullptr;
         Must(DVSData_Alloc(&data, malloc, free));
         const uint32_t vlan = static_cast<uint32_t>(p);
         Must(DVSData_Append(data, "com.ostrel.common.port.alias", "vm-port", 8, 0x20));
         Must(DVSData_Append(data, "com.ostrel.etherswitch.vlan", &vlan, sizeof vlan, 0x20));
         Must(DVSState_PortAdd(sw.c_str(), std::to_string(p).c_str(), data));
      }
   }
}

void BM_ConfigSerialize(benchmark::State &state) {
   BuildRegistry(static_cast<int>(state.range(0)), static_cast<int>(state.range(1)));
   uint32_t total = 0;
   for (auto _ : state) {
      void *blob = nullptr;
      uint32_t len = 0;
      Must(DVSState_ConfigSerialize(&blob, &len));
      total = len;
      free(blob);
   }
   state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(total));
   state.counters["blob_bytes"] = total;
   Must(DVSState_ConfigReset());
}
BENCHMARK(BM_ConfigSerialize)->Args({4, 64})->Args({16, 256});

void BM_ConfigDeserialize(benchmark::State &state) {
   BuildRegistry(static_cast<int>(state.range(0)), static_cast<int>(state.range(1)));
   void *blob = nullptr;
   uint32_t len = 0;
   Must(DVSState_ConfigSerialize(&blob, &len));
   Must(DVSState_ConfigReset());
   for (auto _ : state) {
      Must(DVSState_ConfigDeserialize(blob, len));
      state.PauseTiming();
      Must(DVSState_ConfigReset());
      state.ResumeTiming();
   }
   state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(len));
   free(blob);
}
BENCHMARK(BM_ConfigDeserialize)->Args({4, 64})->Args({16, 256});

// Host blobs at the host's port limit, each row beside a memcpy of the
// blob's bytes (the host of property_host.h).
namespace hostlimit {

void BuildPorts(int switches, int portsPerSwitch, int props) {
   Must(dvsbench::BuildPropertyHost(switches, portsPerSwitch, props) ? STATUS_OK : STATUS_FAILURE);
}

// Writes the host blob and reads it back into an empty registry.
void BM_HostBlobRoundTrip(benchmark::State &state) {
   Must(DVSState_ConfigReset());
   BuildPorts(static_cast<int>(state.range(0)), static_cast<int>(state.range(1)),
              static_cast<int>(state.range(2)));
   void *probe = nullptr;
   uint32_t len = 0;
   Must(DVSState_ConfigSerialize(&probe, &len));
   free(probe);
   dvsbench::MemoryReference ref(len);
   double bestWrite = 1e9, bestRead = 1e9;
   for (auto _ : state) {
      ref.TimeCopy();
      void *blob = nullptr;
      auto t0 = dvsbench::MemoryReference::Clock::now();
      Must(DVSState_ConfigSerialize(&blob, &len));
      const double write = dvsbench::MemoryReference::Seconds(t0);
      Must(DVSState_ConfigReset());
      t0 = dvsbench::MemoryReference::Clock::now();
      Must(DVSState_ConfigDeserialize(blob, len));
      const double read = dvsbench::MemoryReference::Seconds(t0);
      free(blob);
      bestWrite = std::min(bestWrite, write);
      bestRead = std::min(bestRead, read);
      ref.RecordOperation(state, write + read);
   }
   ref.Report(state);
   state.counters["write_ms"] = bestWrite * 1e3;
   state.counters["read_ms"] = bestRead * 1e3;
   Must(DVSState_ConfigReset());
}
BENCHMARK(BM_HostBlobRoundTrip)
   ->Args({32, 128, 20})
   ->Args({1, 64, 20})
   ->Args({1, 512, 20})
   ->Args({1, 4096, 20})
   ->Unit(benchmark::kMillisecond)
   ->UseManualTime();

// Reads a host blob into an empty registry.
void BM_HostBlobRead(benchmark::State &state) {
   Must(DVSState_ConfigReset());
   BuildPorts(static_cast<int>(state.range(0)), static_cast<int>(state.range(1)),
              static_cast<int>(state.range(2)));
   void *blob = nullptr;
   uint32_t len = 0;
   Must(DVSState_ConfigSerialize(&blob, &len));
   dvsbench::MemoryReference ref(len);
   for (auto _ : state) {
      Must(DVSState_ConfigReset());
      ref.TimeCopy();
      ref.TimeOperation(state, [&] { Must(DVSState_ConfigDeserialize(blob, len)); });
   }
   ref.Report(state);
   free(blob);
   Must(DVSState_ConfigReset());
}
BENCHMARK(BM_HostBlobRead)
   ->Args({1, 64, 2})
   ->Args({1, 512, 2})
   ->Args({1, 4096, 2})
   ->Unit(benchmark::kMillisecond)
   ->UseManualTime();

}  // namespace hostlimit

}  // namespace
