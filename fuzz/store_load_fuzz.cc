// The store load path (DVSState_LoadFromConfigStoreAsBuf) over switch
// objects built from arbitrary JSON.
//
// Input: control(1) json [NUL json [NUL json]]
//   Each JSON text becomes a switch object ("switches", "network_tds",
//   "node", instance "fz<n>"), written as the live object and, unless
//   control bit 1 is set for the last one, as the desired one too.
//   control bit 0   load the desired user configuration
//   control bit 2   save what was loaded into a second store and load it
//                   from there again
//   control bit 3   load again with the list calls tracing, which builds
//                   the host blob through a host list instead of writing
//                   it as the switches come: the bytes must be the same
// A load that succeeds must hand out a host blob with one switch per
// uuid, which is then read into the registry.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz/fuzz_store_support.h"

namespace {

constexpr int kMaxObjects = 3;

std::string InstanceId(int n) {
   return "fz" + std::to_string(n);
}

// A load must hand out a well-formed host blob; returns its switch count.
uint32_t CountSwitches(const void *buf, uint32_t len) {
   FUZZ_CHECK(buf != nullptr);
   DVSDataHandle host = nullptr;
   FUZZ_CHECK(DVSData_Deserialize(&host, buf, len, malloc, free) == STATUS_OK);
   uint32_t switches = 0;
   for (DVSDataEntry *e = nullptr; DVSData_Next(host, e, &e) == STATUS_OK;) {
      ++switches;
   }
   DVSData_Free(host);
   return switches;
}

// Saves a loaded host blob into a store of its own (the save drops the
// switch objects the blob does not hold, so that store never grows) and
// loads it back from there.
void SaveAndReload(const void *buf, uint32_t len) {
   static const std::string &saved = *new std::string(dvsfuzz::ScratchDir() + "/saved.db");
   setenv(configstore::kPathEnv, saved.c_str(), 1);
   if (DVSState_SaveBufToConfigStore(buf, len) == 0) {
      void *again = nullptr;
      uint32_t againLen = 0;
      if (DVSState_LoadFromConfigStoreAsBuf(&again, &againLen, false) == 0) {
         (void)CountSwitches(again, againLen);
      }
      free(again);
   }
   FUZZ_CHECK(DVSState_ConfigReset() == STATUS_OK);
   setenv(configstore::kPathEnv, dvsfuzz::ScratchStorePath().c_str(), 1);
}

// The same load with the list calls tracing (their lines go nowhere),
// which takes the host list path and the whole listing at once (a silent
// load of the live switches converts each as it is read); it must give
// the same answer and the same blob.
void CompareWithListBuiltLoad(int32_t want, const void *buf, uint32_t len, bool desired) {
   static FILE *const nowhere = std::fopen("/dev/null", "w");
   FUZZ_CHECK(nowhere != nullptr);
   std::fflush(stdout);
   const int saved = dup(STDOUT_FILENO);
   FUZZ_CHECK(saved >= 0 && dup2(fileno(nowhere), STDOUT_FILENO) >= 0);
   dvsdata_debug = 2;
   void *listBuilt = nullptr;
   uint32_t listLen = 0;
   const int32_t rc = DVSState_LoadFromConfigStoreAsBuf(&listBuilt, &listLen, desired);
   dvsdata_debug = -1;
   std::fflush(stdout);
   FUZZ_CHECK(dup2(saved, STDOUT_FILENO) >= 0);
   close(saved);
   FUZZ_CHECK(rc == want);
   FUZZ_CHECK(rc != 0 || (listLen == len && std::memcmp(listBuilt, buf, len) == 0));
   free(listBuilt);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
   dvsfuzz::Quiet();
   uwMaxNumActivePortsSystemWide = 64;
   dvsfuzz::OpenScratchStore();
   return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
   if (size == 0 || size > (1u << 16)) {
      return 0;
   }
   const uint8_t control = data[0];
   std::vector<std::string> texts;
   std::string rest(reinterpret_cast<const char *>(data + 1), size - 1);
   for (size_t start = 0; texts.size() < kMaxObjects;) {
      const size_t end = rest.find('\0', start);
      texts.push_back(rest.substr(start, end == std::string::npos ? end : end - start));
      if (end == std::string::npos) {
         break;
      }
      start = end + 1;
   }

   configstore::Store *store = dvsfuzz::ScratchStore();
   for (int n = 0; n < kMaxObjects; ++n) {
      // Every object of the last input goes: one left behind would show
      // up in this input's load as a switch it never wrote.
      const int32_t rc =
         configstore::Delete(store, "switches", "network_tds", "node", InstanceId(n).c_str());
      FUZZ_CHECK(rc == configstore::kSuccess || rc == configstore::kNotFound);
   }
   uint32_t objects = 0;
   for (size_t n = 0; n < texts.size(); ++n) {
      configstore::Object *obj = nullptr;
      if (configstore::CreateObject("switches", "network_tds", "node",
                                    InstanceId(static_cast<int>(n)).c_str(), texts[n].c_str(),
                                    &obj) != configstore::kSuccess) {
         continue;
      }
      if (configstore::Set(store, obj, configstore::kSourceExternal) == configstore::kSuccess) {
         ++objects;
      }
      if ((control & 2) == 0 || n + 1 < texts.size()) {
         (void)configstore::Set(store, obj, configstore::kSourceUser);
      }
      configstore::DestroyConfigStoreObject(obj);
   }

   void *buf = nullptr;
   uint32_t len = 0;
   const int32_t rc = DVSState_LoadFromConfigStoreAsBuf(&buf, &len, (control & 1) != 0);
   if ((control & 8) != 0) {
      CompareWithListBuiltLoad(rc, buf, len, (control & 1) != 0);
   }
   if (rc == 0) {
      const uint32_t switches = CountSwitches(buf, len);
      // Objects of the same uuid give one switch.
      if ((control & 1) == 0) {
         FUZZ_CHECK(switches <= objects && (switches == 0) == (objects == 0));
      }
      (void)DVSState_ConfigDeserialize(buf, len);
      FUZZ_CHECK(DVSState_ConfigReset() == STATUS_OK);
      if ((control & 4) != 0) {
         SaveAndReload(buf, len);
      }
   }
   free(buf);
   return 0;
}
