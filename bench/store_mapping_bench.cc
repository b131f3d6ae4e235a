// Saving a host's switches to the configuration store and loading them
// back: a host blob of 4 switches with 256 ports each (a dozen mapped and
// unmapped properties per switch, four per port) written in one run, and
// the host blob rebuilt from the store.
#include <benchmark/benchmark.h>
#include <configstore.h>
#include <dvsconfigstore.h>
#include <dvsstate.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

namespace {

constexpr int kSwitches = 4;

void Must(bool ok, const char *what) {
   if (!ok) {
      std::fprintf(stderr, "store mapping bench: %s failed\n", what);
      std::abort();
   }
}

std::string U32(uint32_t v) {
   return std::string(reinterpret_cast<const char *>(&v), 4);
}

void SetGlobal(const char *sw, const char *name, const std::string &value) {
   Must(DVSState_GlobalPropSet(sw, name, value.data(), uint32_t(value.size()), 0x20) == STATUS_OK,
        name);
}

// The registry's host blob: switches of two classes, each with its
// version, mtu, alias, some unmapped data and ports carrying a cookie, an
// alias, a blocked flag and an unmapped value.
std::string HostBlob(int portsPerSwitch) {
   DVSState_ConfigReset();
   for (int s = 0; s < kSwitches; s++) {
      const std::string id = "bench-sw-" + std::to_string(s);
      const char *sw = id.c_str();
      Must(DVSState_SwitchAdd(sw, s % 2 ? "vswitch" : "etherswitch", uint32_t(portsPerSwitch), 7) ==
              STATUS_OK,
           "switch add");
      SetGlobal(sw, "com.ostrel.common.version", U32(7));
      SetGlobal(sw, "com.ostrel.common.alias", id + '\0');
      SetGlobal(sw, "com.ostrel.common.portset.mtu", U32(9000));
      SetGlobal(sw, "com.ostrel.bench.opaque", std::string(256, 'x'));
      const std::string portset = "ps-" + id + '\0';
      Must(DVSState_HostPropSet(sw, "com.ostrel.common.host.portset", portset.data(),
                                uint32_t(portset.size()), 0x20) == STATUS_OK,
           "host prop");
      for (int p = 0; p < portsPerSwitch; p++) {
         const std::string port = std::to_string(p);
         DVSDataHandle data = nullptr;
         Must(DVSData_Alloc(&data, std::malloc, std::free) == STATUS_OK, "list");
         Must(DVSState_PortAdd(sw, port.c_str(), data) == STATUS_OK, "port add");
         DVSPort *h = DVSState_PortFind(sw, port.c_str());
         const std::string alias = "vm-" + port + '\0';
         Must(DVSState_PortDataSet(h, "com.ostrel.common.port.alias", alias.data(),
                                   uint32_t(alias.size()), 0x20) == STATUS_OK &&
                 DVSState_PortDataSet(h, "com.ostrel.common.port.connectid",
                                      U32(uint32_t(p)).data(), 4, 0x20) == STATUS_OK &&
                 DVSState_PortDataSet(h, "com.ostrel.common.port.block", "false", 6, 0x20) ==
                    STATUS_OK &&
                 DVSState_PortDataSet(h, "com.ostrel.bench.port", "opaque", 7, 0x20) == STATUS_OK,
              "port data");
      }
   }
   void *blob = nullptr;
   uint32_t len = 0;
   Must(DVSState_ConfigSerialize(&blob, &len) == STATUS_OK, "serialize");
   std::string out(static_cast<const char *>(blob), len);
   std::free(blob);
   DVSState_ConfigReset();
   return out;
}

// A store in a temporary directory for one benchmark.
class TempStore {
  public:
   TempStore() {
      std::string pattern =
         (std::filesystem::temp_directory_path() / "dvs-store-bench.XXXXXX").string();
      Must(mkdtemp(pattern.data()) != nullptr, "mkdtemp");
      dir_ = pattern;
      setenv(configstore::kPathEnv, (dir_ + "/store.db").c_str(), 1);
   }
   ~TempStore() {
      std::error_code ec;
      std::filesystem::remove_all(dir_, ec);
   }

  private:
   std::string dir_;
};

void BM_SaveHost(benchmark::State &state) {
   const int ports = int(state.range(0));
   const std::string blob = HostBlob(ports);
   TempStore store;
   dvsconfigstore_debug = -1;
   for (auto _ : state) {
      Must(DVSState_SaveBufToConfigStore(blob.data(), uint32_t(blob.size())) == 0, "save");
   }
   state.counters["ports/s"] = benchmark::Counter(double(kSwitches) * ports * state.iterations(),
                                                  benchmark::Counter::kIsRate);
}
BENCHMARK(BM_SaveHost)->Arg(16)->Arg(256)->Unit(benchmark::kMillisecond);

void BM_LoadHost(benchmark::State &state) {
   const int ports = int(state.range(0));
   const std::string blob = HostBlob(ports);
   TempStore store;
   dvsconfigstore_debug = -1;
   Must(DVSState_SaveBufToConfigStore(blob.data(), uint32_t(blob.size())) == 0, "save");
   for (auto _ : state) {
      void *buf = nullptr;
      uint32_t len = 0;
      Must(DVSState_LoadFromConfigStoreAsBuf(&buf, &len, false) == 0, "load");
      std::free(buf);
   }
   state.counters["ports/s"] = benchmark::Counter(double(kSwitches) * ports * state.iterations(),
                                                  benchmark::Counter::kIsRate);
}
BENCHMARK(BM_LoadHost)->Arg(16)->Arg(256)->Unit(benchmark::kMillisecond);

}  // namespace
