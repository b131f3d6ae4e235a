// Shared by the converter tests: a fixture with a store file of its own
// (CONFIGSTORE_PATH in a fresh temporary directory) and one switch object
// "sw1" in memory, written and read back with Reopen().
#ifndef CONFIGSTORE_STORE_TEST_SUPPORT_H
#define CONFIGSTORE_STORE_TEST_SUPPORT_H

#include <stdlib.h>
#include <unistd.h>

#include <configstore.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "tests/support/temp_dir.h"

namespace storetest {

class StoreObjectTest : public ::testing::Test {
  protected:
   void SetUp() override {
      ASSERT_FALSE(dir_.path().empty());
      path_ = dir_ / "store.db";
      setenv(configstore::kPathEnv, path_.c_str(), 1);
      ASSERT_EQ(configstore::GetStore(0, &store_), 0);
      ASSERT_EQ(configstore::CreateObject("switches", "network_tds", "node", "sw1", "{}", &obj_),
                0);
   }
   void TearDown() override {
      configstore::DestroyConfigStoreObject(obj_);
      configstore::DestroyStore(store_);
   }
   // Writes the object and reads it back from the file.
   void Reopen() {
      ASSERT_EQ(configstore::Set(store_, obj_, configstore::kSourceExternal), 0);
      configstore::DestroyConfigStoreObject(obj_);
      obj_ = nullptr;
      ASSERT_EQ(configstore::Get(store_, "switches", "network_tds", "node", "sw1", &obj_), 0);
   }
   // The text value key of o, or "<absent>".
   static std::string Str(configstore::Object *o, const char *key) {
      char *s = nullptr;
      if (configstore::GetValueStr(o, key, &s) != 0)
         return "<absent>";
      std::string r(s);
      free(s);
      return r;
   }
   // A boolean or integer value that must be there.
   static bool Bool(configstore::Object *o, const char *key) {
      bool v = false;
      EXPECT_EQ(configstore::GetValueBool(o, key, &v), 0) << key;
      return v;
   }
   static int64_t Long(configstore::Object *o, const char *key) {
      int64_t v = -1;
      EXPECT_EQ(configstore::GetValueLong(o, key, &v), 0) << key;
      return v;
   }
   // The instances of the sub-object key of at, in store order.
   static std::vector<configstore::Object *> Instances(configstore::Object *at, const char *key) {
      configstore::FilterSpec *f = nullptr;
      EXPECT_EQ(configstore::CreateFilterSpecObject(key, "", "", "", &f), 0);
      configstore::Object **objs = nullptr;
      uint32_t n = 0;
      configstore::GetSubObjectInstances(at, f, &objs, &n);
      configstore::DestroyFilterSpecObject(f);
      std::vector<configstore::Object *> v(objs, objs + n);
      free(objs);
      return v;
   }

   testsupport::TempDir dir_{"cs-test"};
   std::string path_;
   configstore::Store *store_ = nullptr;
   configstore::Object *obj_ = nullptr;
};

}  // namespace storetest

#endif  // CONFIGSTORE_STORE_TEST_SUPPORT_H
