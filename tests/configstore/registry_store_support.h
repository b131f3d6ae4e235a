// Shared by the save and upgrade tests: the switch registry filled through
// the exported switch-state calls (property values as the registry holds
// them, switches, properties, ports), the switch objects of the store read
// back, and probes of the switch handle lock from another thread.
#ifndef CONFIGSTORE_REGISTRY_STORE_SUPPORT_H
#define CONFIGSTORE_REGISTRY_STORE_SUPPORT_H

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <configstore.h>
#include <dvsdata.h>
#include <dvsstate.h>
#include <gtest/gtest.h>

#include "tests/support/le_bytes.h"
#include "tests/support/prop_lists.h"
#include "tests/support/temp_dir.h"

namespace registrystore {

using Ids = std::vector<std::string>;
using Props = std::vector<std::pair<std::string, std::string>>;

// ---- property values ---------------------------------------------------------
using testsupport::Text;
using testsupport::U32;

// ---- filling the registry ----------------------------------------------------
inline void AddSwitch(const char *id, const char *cls, uint32_t maxPorts, uint32_t version) {
   ASSERT_EQ(DVSState_SwitchAdd(id, cls, maxPorts, version), STATUS_OK) << id;
}
inline void Global(const char *sw, const char *name, const std::string &v) {
   ASSERT_EQ(DVSState_GlobalPropSet(sw, name, v.data(), v.size(), 0x10), STATUS_OK) << name;
}
inline void Host(const char *sw, const char *name, const std::string &v) {
   ASSERT_EQ(DVSState_HostPropSet(sw, name, v.data(), v.size(), 0x10), STATUS_OK) << name;
}
inline void AddPort(const char *sw, const char *port, const Props &props) {
   DVSDataHandle h = nullptr;
   ASSERT_EQ(DVSData_Alloc(&h, malloc, free), STATUS_OK);
   for (const auto &[name, v] : props)
      ASSERT_EQ(DVSData_Append(h, name.c_str(), v.data(), v.size(), 0x10), STATUS_OK);
   ASSERT_EQ(DVSState_PortAdd(sw, port, h), STATUS_OK) << port;
}

// The registry as a host blob; the registry is emptied.
inline std::string TakeBlob() {
   const std::string out = testsupport::HostBlob();
   EXPECT_EQ(DVSState_ConfigReset(), STATUS_OK);
   return out;
}

// ---- reading the store -------------------------------------------------------
using ObjPtr = std::unique_ptr<configstore::Object, void (*)(configstore::Object *)>;
inline void Destroy(configstore::Object *o) {
   if (o != nullptr)
      configstore::DestroyConfigStoreObject(o);
}

// The stored switch object kind/id, or null.
inline ObjPtr Read(const char *id, const char *kind = "network_tds") {
   configstore::Store *s = nullptr;
   configstore::Object *o = nullptr;
   EXPECT_EQ(configstore::GetStore(0, &s), 0);
   if (s != nullptr)
      configstore::Get(s, "switches", kind, "node", id, &o);
   configstore::DestroyStore(s);
   return ObjPtr(o, Destroy);
}

// A value with its kind: 'text', a number, true/false, [a,b], or "absent".
inline std::string Val(configstore::Object *o, const char *key) {
   if (o == nullptr)
      return "no object";
   char *s = nullptr;
   int64_t l = 0;
   bool b = false;
   char **arr = nullptr;
   uint32_t n = 0;
   if (configstore::GetValueStr(o, key, &s) == 0) {
      std::string r = "'" + std::string(s) + "'";
      free(s);
      return r;
   }
   if (configstore::GetValueLong(o, key, &l) == 0)
      return std::to_string(l);
   if (configstore::GetValueBool(o, key, &b) == 0)
      return b ? "true" : "false";
   if (configstore::GetValueStringArray(o, key, &arr, &n) != 0)
      return "absent";
   std::string r = "[";
   for (uint32_t i = 0; i < n; i++)
      r += (i ? "," : "") + std::string(arr[i]);
   configstore::DestroyStringArrayValue(arr, n);
   return r + "]";
}

// f(object) for every switch object of the store, in creation order.
template <class F>
Ids MapSwitchObjects(F f) {
   Ids out;
   configstore::Store *s = nullptr;
   configstore::FilterSpec *filter = nullptr;
   configstore::Object **objs = nullptr;
   uint32_t n = 0;
   EXPECT_EQ(configstore::GetStore(0, &s), 0);
   EXPECT_EQ(configstore::CreateFilterSpecObject("switches", "network_tds", "node", "", &filter),
             0);
   EXPECT_EQ(configstore::GetInstances(s, filter, &objs, &n), 0);
   for (uint32_t i = 0; i < n; i++) {
      out.push_back(f(objs[i]));
      configstore::DestroyConfigStoreObject(objs[i]);
   }
   free(objs);
   configstore::DestroyFilterSpecObject(filter);
   configstore::DestroyStore(s);
   return out;
}

// f(instance) for every instance of the sub-object list `key` of o.
template <class F>
void ForEachSubInstance(configstore::Object *o, const char *key, F f) {
   configstore::FilterSpec *filter = nullptr;
   configstore::Object **objs = nullptr;
   uint32_t n = 0;
   if (configstore::CreateFilterSpecObject(key, "", "", "", &filter) == 0 &&
       configstore::GetSubObjectInstances(o, filter, &objs, &n) == 0) {
      for (uint32_t i = 0; i < n; i++)
         f(objs[i]);
   }
   free(objs);
   configstore::DestroyFilterSpecObject(filter);
}

// Runs fill on the live object kind/id (created when missing) and writes it.
template <class F>
void Edit(const char *id, F fill, const char *kind = "network_tds") {
   configstore::Store *s = nullptr;
   configstore::Object *o = nullptr;
   ASSERT_EQ(configstore::GetStore(0, &s), 0);
   if (configstore::Get(s, "switches", kind, "node", id, &o) != 0) {
      EXPECT_EQ(configstore::CreateObject("switches", kind, "node", id, "{}", &o), 0);
   }
   fill(o);
   EXPECT_EQ(configstore::Set(s, o, configstore::kSourceExternal), 0);
   Destroy(o);
   configstore::DestroyStore(s);
}

// ---- the switch handle lock --------------------------------------------------
// Starts a thread that takes and drops the switch handle lock; the future is
// ready once it has.  A probe that finds the lock held waits for it.
inline std::future<void> ProbeLock() {
   auto done = std::make_shared<std::promise<void>>();
   std::future<void> f = done->get_future();
   std::thread([done] {
      KRecLock *l = DVSwitchHandleLock();
      DVSwitchHandleUnlock(l);
      done->set_value();
   }).detach();
   return f;
}
inline bool Within(std::future<void> &f, int ms) {
   return f.wait_for(std::chrono::milliseconds(ms)) == std::future_status::ready;
}

// After a run that must have dropped the lock: another thread takes it.
inline void ExpectLockFree() {
   std::future<void> probe = ProbeLock();
   EXPECT_TRUE(Within(probe, 5000)) << "switch handle lock left held";
}

// After a run that returns with the lock still held: this thread holds it
// exactly once.  Drops it.
inline void ExpectLockKeptOnceAndDrop() {
   std::future<void> probe = ProbeLock();
   const bool taken = Within(probe, 300);
   EXPECT_FALSE(taken) << "the lock should stay with the caller";
   if (!taken) {
      KRecLock *lock = DVSwitchHandleLock();
      DVSwitchHandleUnlock(lock);
      DVSwitchHandleUnlock(lock);
      EXPECT_TRUE(Within(probe, 5000)) << "held more than once";
   }
}

}  // namespace registrystore

#endif  // CONFIGSTORE_REGISTRY_STORE_SUPPORT_H
