// The store client on a damaged database file.  A valid store is built
// once per process by the client itself; each input overwrites bytes of a
// copy of it, and the copy is opened and read throughout: every call must
// answer with a code, never crash, and a read that leaves the ports out
// must refuse exactly the documents a whole read refuses.
//
// Input: control(1) edits...
//   control bit 0   cut the file to (control >> 1) * 512 bytes first
//   each edit       offset(3, taken modulo the file size) byte(1): the byte
//                   written at that offset
#include <fcntl.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <string>

#include "fuzz/fuzz_store_support.h"

namespace {

// The switch objects of the valid store, as CreateObject reads them.
const char *const kSwitches[] = {
   R"({"uuid":"sw-a","max_ports":64,"portset_name":"ps-a","zlt_enabled":false,)"
   R"("uplink_port_keys":["u1","u2"],"vlans":[10,20,-3],"spare":[],)"
   R"("product":{"forwarding_class":"etherswitch","version":"7.0.0"},)"
   R"("ports":[{"key":"p1","mtu":1500},{"key":"p2","label":"second","stats":{"rx":0}}]})",
   R"({"uuid":"sw-b","max_ports":8,"product":{"forwarding_class":"vswitch"},)"
   R"("ports":[{"key":"u1","enabled":true}]})",
};

std::string &ValidStore() {
   static std::string bytes;
   return bytes;
}

std::string DamagedPath() {
   return dvsfuzz::ScratchDir() + "/damaged.db";
}

void RemoveDamaged() {
   for (const char *suffix : {"", "-wal", "-shm", "-journal"}) {
      unlink((DamagedPath() + suffix).c_str());
   }
}

void BuildValidStore() {
   dvsfuzz::OpenScratchStore();
   configstore::Store *store = dvsfuzz::ScratchStore();
   for (const char *json : kSwitches) {
      configstore::Object *obj = nullptr;
      const std::string id = nlohmann::json::parse(json)["uuid"];
      FUZZ_CHECK(
         configstore::CreateObject("switches", "network_tds", "node", id.c_str(), json, &obj) == 0);
      FUZZ_CHECK(configstore::Set(store, obj, configstore::kSourceExternal) == 0);
      FUZZ_CHECK(configstore::Set(store, obj, configstore::kSourceUser) == 0);
      configstore::DestroyConfigStoreObject(obj);
   }
   // Closing the only connection folds the journal into the file.
   configstore::DestroyStore(store);
   dvsfuzz::ScratchStoreSlot() = nullptr;
   std::ifstream in(dvsfuzz::ScratchStorePath(), std::ios::binary);
   ValidStore().assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
   FUZZ_CHECK(ValidStore().size() >= 1024);
   setenv(configstore::kPathEnv, DamagedPath().c_str(), 1);
}

void ReadAll(configstore::Object **objs, uint32_t count) {
   const nlohmann::json shape = nlohmann::json::parse(kSwitches[0]);
   for (uint32_t k = 0; k < count; ++k) {
      (void)dvsfuzz::DescribeObject(objs[k], shape);
      configstore::DestroyConfigStoreObject(objs[k]);
   }
   free(objs);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
   dvsfuzz::Quiet();
   BuildValidStore();
   return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
   dvsfuzz::Input in(data, size);
   std::string file = ValidStore();
   const uint8_t control = in.Byte();
   if ((control & 1) != 0) {
      file.resize(std::min<size_t>(file.size(), (control >> 1) * 512u));
   }
   for (int edits = 0; edits < 256 && in.Left() >= 4 && !file.empty(); ++edits) {
      const uint32_t offset = in.Byte() | (in.Byte() << 8) | (in.Byte() << 16);
      file[offset % file.size()] = static_cast<char>(in.Byte());
   }
   RemoveDamaged();
   {
      std::ofstream out(DamagedPath(), std::ios::binary);
      out.write(file.data(), static_cast<std::streamsize>(file.size()));
      FUZZ_CHECK(out.good());
   }

   configstore::Store *store = nullptr;
   if (configstore::GetStore(0, &store) == configstore::kSuccess) {
      configstore::FilterSpec *filter = nullptr;
      FUZZ_CHECK(
         configstore::CreateFilterSpecObject("switches", "network_tds", "node", "", &filter) == 0);
      configstore::Object **objs = nullptr;
      uint32_t count = 0;
      const int32_t whole = configstore::GetInstances(store, filter, &objs, &count);
      if (whole == configstore::kSuccess) {
         ReadAll(objs, count);
      }
      // Reading without the ports refuses exactly what a whole read refuses.
      static const char *const kDropPorts[] = {"ports", nullptr};
      uint32_t leanCount = 0;
      const int32_t lean =
         configstore::GetInstancesWithout(store, filter, kDropPorts, &objs, &leanCount);
      FUZZ_CHECK(lean == whole);
      if (lean == configstore::kSuccess) {
         FUZZ_CHECK(leanCount == count);
         ReadAll(objs, leanCount);
      }
      configstore::DestroyFilterSpecObject(filter);
      configstore::Object *one = nullptr;
      if (configstore::Get(store, "switches", "network_tds", "node", "sw-b", &one) == 0) {
         (void)dvsfuzz::DescribeObject(one, nlohmann::json::parse(kSwitches[1]));
         configstore::DestroyConfigStoreObject(one);
      }
      configstore::DestroyStore(store);
   }
   {
      configstore::Object **objs = nullptr;
      uint32_t count = 0;
      if (configstore::GetDesiredUserConfigInstances("switches", "network_tds", "node", &objs,
                                                     &count) == configstore::kSuccess) {
         ReadAll(objs, count);
      }
   }
   return 0;
}
