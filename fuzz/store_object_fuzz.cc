// The store client on arbitrary JSON: CreateObject, then every value and
// sub-object the text names is read back; the object is written with Set
// to a store on a scratch database and fetched again with Get, and the
// fetched object must read exactly as the one that was written.
#include <string>

#include <configstore.h>
#include <nlohmann/json.hpp>

#include "fuzz/fuzz_store_support.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
   dvsfuzz::Quiet();
   dvsfuzz::OpenScratchStore();
   return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
   if (size > (1u << 16)) {
      return 0;
   }
   const std::string text(reinterpret_cast<const char *>(data), size);
   configstore::Object *obj = nullptr;
   const int32_t rc = configstore::CreateObject("fz", "obj", "comp", "i1", text.c_str(), &obj);
   if (rc != configstore::kSuccess) {
      FUZZ_CHECK(obj == nullptr && rc == configstore::kBadJson);
      return 0;
   }
   const nlohmann::json shape = nlohmann::json::parse(text, nullptr, false);
   const std::string before = dvsfuzz::DescribeObject(obj, shape);

   configstore::Store *store = dvsfuzz::ScratchStore();
   const int32_t set = configstore::Set(store, obj, configstore::kSourceExternal);
   configstore::DestroyConfigStoreObject(obj);
   if (set == configstore::kSuccess) {
      configstore::Object *back = nullptr;
      FUZZ_CHECK(configstore::Get(store, "fz", "obj", "comp", "i1", &back) ==
                 configstore::kSuccess);
      FUZZ_CHECK(dvsfuzz::DescribeObject(back, shape) == before);
      configstore::DestroyConfigStoreObject(back);
   } else {
      // Only text the stored document cannot carry is refused.
      FUZZ_CHECK(set == configstore::kBadJson);
   }
   return 0;
}
