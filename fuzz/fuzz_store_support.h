// Store helpers of the store harnesses: one store connection on a scratch
// database for the whole process, and a transcript of everything the
// client reads out of an object, following the keys of a JSON shape.
#ifndef DVS_FUZZ_FUZZ_STORE_SUPPORT_H
#define DVS_FUZZ_FUZZ_STORE_SUPPORT_H

#include <configstore.h>

#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string>

#include "fuzz/fuzz_support.h"

namespace dvsfuzz {

inline configstore::Store *&ScratchStoreSlot() {
   static configstore::Store *store = nullptr;
   return store;
}

inline configstore::Store *ScratchStore() {
   return ScratchStoreSlot();
}

inline std::string ScratchStorePath() {
   return ScratchDir() + "/store.db";
}

inline void CloseScratchStore() {
   configstore::DestroyStore(ScratchStoreSlot());
   ScratchStoreSlot() = nullptr;
   RemoveScratch({"store.db", "store.db-wal", "store.db-shm", "store.db-journal", "damaged.db",
                  "damaged.db-wal", "damaged.db-shm", "damaged.db-journal", "saved.db",
                  "saved.db-wal", "saved.db-shm"});
}

// Points CONFIGSTORE_PATH at a scratch database and opens it.
inline void OpenScratchStore() {
   setenv(configstore::kPathEnv, ScratchStorePath().c_str(), 1);
   FUZZ_CHECK(configstore::GetStore(0, &ScratchStoreSlot()) == configstore::kSuccess);
   std::atexit(CloseScratchStore);
}

namespace detail {

// Keys probed on an object whose JSON shape is unknown.
inline const char *const kProbeKeys[] = {"key", "uuid", "name", "max_ports", "product", "ports"};

inline void DescribeValues(configstore::Object *o, const std::string &key, std::string *out) {
   char *s = nullptr;
   int32_t rc = configstore::GetValueStr(o, key.c_str(), &s);
   *out += key + " str " + std::to_string(rc) + (rc == 0 ? " " + std::string(s) : "") + "\n";
   free(s);
   int32_t i = 0;
   rc = configstore::GetValueInt(o, key.c_str(), &i);
   *out += " int " + std::to_string(rc) + " " + std::to_string(rc == 0 ? i : 0);
   uint32_t u = 0;
   rc = configstore::GetValueUint32(o, key.c_str(), &u);
   *out += " u32 " + std::to_string(rc) + " " + std::to_string(rc == 0 ? u : 0);
   uint16_t h = 0;
   rc = configstore::GetValueUint16(o, key.c_str(), &h);
   *out += " u16 " + std::to_string(rc) + " " + std::to_string(rc == 0 ? h : 0);
   int64_t l = 0;
   rc = configstore::GetValueLong(o, key.c_str(), &l);
   *out += " long " + std::to_string(rc) + " " + std::to_string(rc == 0 ? l : 0);
   bool b = false;
   rc = configstore::GetValueBool(o, key.c_str(), &b);
   *out += " bool " + std::to_string(rc) + " " + std::to_string(rc == 0 && b);
   char **list = nullptr;
   uint32_t count = 0;
   rc = configstore::GetValueStringArray(o, key.c_str(), &list, &count);
   *out += " list " + std::to_string(rc);
   if (rc == 0) {
      for (uint32_t k = 0; k < count; ++k) {
         *out += std::string(" [") + list[k] + "]";
      }
      configstore::DestroyStringArrayValue(list, count);
   }
   *out += "\n";
}

inline void Describe(configstore::Object *o, const nlohmann::json &shape, int depth, int *budget,
                     std::string *out);

inline void DescribeKey(configstore::Object *o, const std::string &key, const nlohmann::json &sub,
                        int depth, int *budget, std::string *out) {
   DescribeValues(o, key, out);
   configstore::Object *single = nullptr;
   const int32_t rc = configstore::GetSubObject(o, key.c_str(), "", &single);
   *out += key + " singleton " + std::to_string(rc) + "\n";
   if (rc == 0) {
      Describe(single, sub.is_object() ? sub : nlohmann::json(), depth + 1, budget, out);
   }
   configstore::FilterSpec *filter = nullptr;
   if (configstore::CreateFilterSpecObject(key.c_str(), "", "", "", &filter) != 0) {
      return;
   }
   configstore::Object **objs = nullptr;
   uint32_t count = 0;
   const int32_t irc = configstore::GetSubObjectInstances(o, filter, &objs, &count);
   configstore::DestroyFilterSpecObject(filter);
   *out +=
      key + " instances " + std::to_string(irc) + " " + std::to_string(irc == 0 ? count : 0) + "\n";
   if (irc != 0) {
      return;
   }
   for (uint32_t k = 0; k < count; ++k) {
      const nlohmann::json &element =
         sub.is_array() && k < sub.size() && sub[k].is_object() ? sub[k] : nlohmann::json();
      Describe(objs[k], element, depth + 1, budget, out);
   }
   free(objs);
}

inline void Describe(configstore::Object *o, const nlohmann::json &shape, int depth, int *budget,
                     std::string *out) {
   if (depth > 6 || --*budget < 0) {
      return;
   }
   *out += "{\n";
   if (shape.is_object()) {
      for (const auto &[key, sub] : shape.items()) {
         DescribeKey(o, key, sub, depth, budget, out);
      }
   } else {
      for (const char *key : kProbeKeys) {
         DescribeKey(o, key, nlohmann::json(), depth, budget, out);
      }
   }
   *out += "}\n";
}

}  // namespace detail

// Everything the client reads out of o (values of every kind, singleton
// and instance sub-objects) under the keys of shape, nested the same way;
// a few common keys when shape is not an object.  Bounded in depth and in
// the number of objects visited.
inline std::string DescribeObject(configstore::Object *o, const nlohmann::json &shape) {
   std::string out;
   int budget = 256;
   detail::Describe(o, shape, 0, &budget, &out);
   return out;
}

}  // namespace dvsfuzz

#endif  // DVS_FUZZ_FUZZ_STORE_SUPPORT_H
