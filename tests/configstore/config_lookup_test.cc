// The lookup the save uses to pick a map row for a property name.  The
// lookup is internal to libdvs, so this test compiles the map sources in.
#include <cstdio>
#include <cstring>
#include <string>

#include <dvsconfigstore.h>
#include <gtest/gtest.h>

#include "configstore/configstore_internal.h"
#include "tests/support/temp_dir.h"

namespace {

using dvs::configstore::FindConfigMapEntry;

class ConfigMapLookup : public ::testing::Test {
  protected:
   void SetUp() override { savedDebug_ = dvsconfigstore_debug; }
   void TearDown() override { dvsconfigstore_debug = savedDebug_; }

   // Looks name up in class, and returns the row's index in that class's
   // table (-1 for none) and what was printed.
   std::pair<long, std::string> Find(uint32_t propClass, const char *name) {
      const PropConfigMapEntry *row = nullptr;
      std::string out =
         testsupport::CapturedStdout([&] { row = FindConfigMapEntry(propClass, name); });
      long index = row == nullptr ? -1 : row - dvsConfigMaps[propClass];
      return {index, out};
   }

  private:
   int32_t savedDebug_ = 0;
};

// Every named row of every table is found by its own name, except a second
// row with the same name, which loses to the first.
TEST_F(ConfigMapLookup, EveryRowIsFoundByName) {
   dvsconfigstore_debug = 0;
   for (uint32_t propClass = 0; propClass < 3; propClass++) {
      const PropConfigMapEntry *table = dvsConfigMaps[propClass];
      for (long i = 0; table[i].propName != nullptr; i++) {
         long first = 0;
         while (std::strcmp(table[first].propName, table[i].propName) != 0) {
            first++;
         }
         EXPECT_EQ(Find(propClass, table[i].propName).first, first)
            << "class " << propClass << " " << table[i].propName;
      }
   }
   EXPECT_EQ(Find(0, "com.ostrel.etherswitch.multicastFilter").first, 17);
   EXPECT_EQ(Find(0, "com.ostrel.common.alias").first, 0);
}

TEST_F(ConfigMapLookup, UnmappedNamesGetTheCatchAllRow) {
   dvsconfigstore_debug = 0;
   EXPECT_EQ(Find(0, "com.example.unknown").first, 28);
   EXPECT_EQ(Find(1, "com.example.unknown").first, 2);
   EXPECT_EQ(Find(2, "com.example.unknown").first, 23);
   EXPECT_EQ(Find(0, "").first, 28);
   // Exact, case-sensitive names only.
   EXPECT_EQ(Find(0, "COM.OSTREL.COMMON.ALIAS").first, 28);
   EXPECT_EQ(Find(0, "com.ostrel.common.alia").first, 28);
   // A name from another class's table is not found in this one.
   EXPECT_EQ(Find(2, "com.ostrel.common.alias").first, 23);
   EXPECT_EQ(dvsConfigMaps[2][23].convType, 33u);
   EXPECT_EQ(Find(0, "com.ostrel.common.port.alias").first, 28);
   EXPECT_EQ(Find(1, "com.ostrel.common.alias").first, 2);
}

TEST_F(ConfigMapLookup, MatchIsPrintedAboveLevelZero) {
   dvsconfigstore_debug = 1;
   EXPECT_EQ(Find(0, "com.ostrel.common.alias").second,
             "Compare com.ostrel.common.alias : com.ostrel.common.alias success\n");
   EXPECT_EQ(Find(2, "com.example.unknown").second,
             "Compare com.example.unknown : DEFAULT success\n");
   dvsconfigstore_debug = 0;
   EXPECT_EQ(Find(0, "com.ostrel.common.alias").second, "");
   EXPECT_EQ(Find(2, "com.example.unknown").second, "");
}

}  // namespace
