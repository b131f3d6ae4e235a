// The steps a whole-host store save and load are made of, each timed on
// its own through the public calls, on the same sample host as the store
// rows (store_host_bench.cc) and at the same sizes:
//
//   BM_StepRegistryRebuild    a save of a switch id the host does not have:
//                             the registry rebuilt from the host buffer and
//                             cleared as a save does around its work, with
//                             an empty transaction on the open store
//   BM_StepReadSwitches       open, read the switch objects into trees,
//                             destroy them, close: what a load reads
//   BM_StepReadPortsChecked   the same with the ports only checked, as a
//                             save reads back what it replaces
//   BM_StepWriteSwitches      open, write every switch object in one
//                             transaction, commit, close
//
// A save is the rebuild, the checked read, the converters and the write;
// a load is the read, the converters and the host blob.  What the steps
// leave of BM_HostStoreSave and BM_HostStoreLoad is the converters' share.
#include <benchmark/benchmark.h>
#include <configstore.h>
#include <dvsconfigstore.h>
#include <dvsstate.h>

#include <cstdlib>
#include <string>

#include "store_host_support.h"

namespace {

namespace cs = ::configstore;

using namespace store_bench;

// A store of its own holding the sample host at `ports` ports, saved by the
// library; the host buffer stays at hand.
class SavedHost {
  public:
   explicit SavedHost(int64_t ports) : blob_(SampleHost(ports)) { Save(blob_); }

   const std::string &Blob() const { return blob_; }

  private:
   StoreDir dir_;
   std::string blob_;
};

// The switch objects of the store, read with or without the ports built.
class SwitchObjects {
  public:
   SwitchObjects(cs::Store *store, bool portsChecked) {
      cs::FilterSpec *filter = nullptr;
      Must(cs::CreateFilterSpecObject("switches", "network_tds", "node", "", &filter) ==
              cs::kSuccess,
           "filter");
      const int32_t rc =
         portsChecked
            ? cs::GetInstancesWithout(store, filter, UNUSED_NON_SINGLETON_PROPS, &objects_, &count_)
            : cs::GetInstances(store, filter, &objects_, &count_);
      cs::DestroyFilterSpecObject(filter);
      Must(rc == cs::kSuccess && count_ == kHostSwitches, "read the switch objects");
   }
   ~SwitchObjects() {
      for (uint32_t i = 0; i < count_; i++) {
         cs::DestroyConfigStoreObject(objects_[i]);
      }
      std::free(objects_);
   }
   SwitchObjects(const SwitchObjects &) = delete;
   SwitchObjects &operator=(const SwitchObjects &) = delete;

   cs::Object *operator[](uint32_t i) const { return objects_[i]; }
   uint32_t size() const { return count_; }

  private:
   cs::Object **objects_ = nullptr;
   uint32_t count_ = 0;
};

cs::Store *OpenStore() {
   cs::Store *store = nullptr;
   Must(cs::GetStore(0, &store) == cs::kSuccess, "open the store");
   return store;
}

void SetPorts(benchmark::State &state) {
   state.counters["ports"] = static_cast<double>(state.range(0));
}

void BM_StepRegistryRebuild(benchmark::State &state) {
   SavedHost host(state.range(0));
   const std::string &blob = host.Blob();
   for (auto _ : state) {
      Must(DVSState_SaveBufToConfigStore_ByInstance(blob.data(),
                                                    static_cast<uint32_t>(blob.size()),
                                                    "no such switch") == 0,
           "save nothing");
   }
   SetPorts(state);
}

void ReadSwitches(benchmark::State &state, bool portsChecked) {
   SavedHost host(state.range(0));
   for (auto _ : state) {
      cs::Store *store = OpenStore();
      {
         SwitchObjects switches(store, portsChecked);
         benchmark::DoNotOptimize(switches[0]);
      }
      cs::DestroyStore(store);
   }
   SetPorts(state);
}

void BM_StepReadSwitches(benchmark::State &state) {
   ReadSwitches(state, false);
}

void BM_StepReadPortsChecked(benchmark::State &state) {
   ReadSwitches(state, true);
}

void BM_StepWriteSwitches(benchmark::State &state) {
   SavedHost host(state.range(0));
   cs::Store *reader = OpenStore();
   SwitchObjects switches(reader, false);
   cs::DestroyStore(reader);
   for (auto _ : state) {
      cs::Store *store = OpenStore();
      Must(cs::BeginTransaction(store) == cs::kSuccess, "begin");
      for (uint32_t i = 0; i < switches.size(); i++) {
         Must(cs::Set(store, switches[i], cs::kSourceExternal) == cs::kSuccess, "write");
      }
      Must(cs::CommitTransaction(store) == cs::kSuccess, "commit");
      cs::DestroyStore(store);
   }
   SetPorts(state);
}

// CPU time is the whole process's, as for the store rows.
#define STEP_SIZES(fn)                                                                 \
   BENCHMARK(fn)->Arg(64)->Arg(512)->Arg(4096)->Unit(benchmark::kMillisecond)->UseRealTime() \
      ->MeasureProcessCPUTime()

STEP_SIZES(BM_StepRegistryRebuild);
STEP_SIZES(BM_StepReadSwitches);
STEP_SIZES(BM_StepReadPortsChecked);
STEP_SIZES(BM_StepWriteSwitches);

}  // namespace
