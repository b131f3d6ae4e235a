// What the whole-host store benchmarks share: a store directory of their
// own, the sample host's buffer at a given port count, and a save of it.
#ifndef DVS_BENCH_STORE_HOST_SUPPORT_H
#define DVS_BENCH_STORE_HOST_SUPPORT_H

#include <configstore.h>
#include <dvsconfigstore.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "property_host.h"
#include "sample_host.h"

namespace store_bench {

// The sample host's switches: four classes, uplinks and VM ports.
constexpr uint32_t kHostSwitches = 32;

// Ends the benchmark program when a step it relies on fails.
inline void Must(bool ok, const char *what) {
   if (!ok) {
      std::fprintf(stderr, "store bench: %s failed\n", what);
      std::abort();
   }
}

// A directory of its own, with the store's path pointing into it and the
// store's messages off.
class StoreDir {
  public:
   StoreDir() {
      std::string pattern =
         (std::filesystem::temp_directory_path() / "dvs-store-bench.XXXXXX").string();
      Must(mkdtemp(pattern.data()) != nullptr, "mkdtemp");
      dir_ = pattern;
      setenv(configstore::kPathEnv, File("store.db").c_str(), 1);
      dvsconfigstore_debug = -1;
   }
   ~StoreDir() {
      std::error_code ec;
      std::filesystem::remove_all(dir_, ec);
   }
   StoreDir(const StoreDir &) = delete;
   StoreDir &operator=(const StoreDir &) = delete;

   std::string File(const char *name) const { return dir_ + "/" + name; }

  private:
   std::string dir_;
};

// The host buffer of the sample host with `ports` ports over its switches.
// The host buffer of the host the targets are set for (property_host.h):
// 32 switches sharing `ports` ports, 20 properties a port.
inline std::string PropertyHost(int64_t ports) {
   constexpr int kPropertiesPerPort = 20;
   DVSState_ConfigReset();
   Must(dvsbench::BuildPropertyHost(static_cast<int>(kHostSwitches),
                                    static_cast<int>(ports / kHostSwitches), kPropertiesPerPort),
        "property host");
   void *blob = nullptr;
   uint32_t len = 0;
   Must(DVSState_ConfigSerialize(&blob, &len) == STATUS_OK, "host blob");
   std::string out(static_cast<const char *>(blob), len);
   std::free(blob);
   DVSState_ConfigReset();
   return out;
}

inline std::string SampleHost(int64_t ports) {
   const dvsctl::Bytes blob =
      dvsctl::BuildSampleHost({kHostSwitches, static_cast<uint32_t>(ports), 1});
   return std::string(blob.begin(), blob.end());
}

inline void Save(const std::string &blob) {
   Must(DVSState_SaveBufToConfigStore(blob.data(), static_cast<uint32_t>(blob.size())) == 0,
        "save");
}

}  // namespace store_bench

#endif  // DVS_BENCH_STORE_HOST_SUPPORT_H
