// The property-to-store maps and the enumeration tables as libdvs exports
// them: the invariants the save and the load rely on.  What each row and
// text holds is exercised by the converter and round-trip tests; the
// numbers and sizes are checked where the tables are defined.
#include <cstring>
#include <set>
#include <string>

#include <dvsconfigstore.h>
#include <gtest/gtest.h>

namespace {

bool AllZero(const char *field, size_t len) {
   for (size_t i = 0; i < len; i++) {
      if (field[i] != 0) {
         return false;
      }
   }
   return true;
}

// Every row: the rebuilt flag, a path of `depth` texts, each NUL-padded to
// the end of its field, then zero fields; a converter that exists.  The
// last named row is the class's catch-all, and a zero row closes the table.
TEST(ConfigMaps, RowsAreWellFormedAndEndInTheCatchAllAndAClosingRow) {
   const char *const firstRow[] = {"com.ostrel.common.alias", "com.ostrel.common.host.portset",
                                   "com.ostrel.common.port.alias"};
   for (int32_t cls = 0; cls < 3; cls++) {
      SCOPED_TRACE("class " + std::to_string(cls));
      const PropConfigMapEntry *table = GetConfigMap(cls);
      ASSERT_EQ(table, dvsConfigMaps[cls]);
      EXPECT_STREQ(table[0].propName, firstRow[cls]);
      size_t n = 0;
      for (; table[n].propName != nullptr; n++) {
         const PropConfigMapEntry &row = table[n];
         SCOPED_TRACE(row.propName);
         EXPECT_EQ(row.propFlag, 0x10u);
         ASSERT_GE(row.depth, 1u);
         ASSERT_LE(row.depth, unsigned(PROP_CONFIG_PATH_MAX));
         EXPECT_LT(row.convType, unsigned(PROP_CONV_END));
         EXPECT_NE(row.convType, 30u);
         for (size_t c = 0; c < PROP_CONFIG_PATH_MAX; c++) {
            const size_t used = strnlen(row.path[c], PROP_CONFIG_NAME_MAX);
            EXPECT_LT(used, size_t(PROP_CONFIG_NAME_MAX)) << "component " << c;
            EXPECT_EQ(used != 0, c < row.depth) << "component " << c;
            EXPECT_TRUE(AllZero(row.path[c] + used, PROP_CONFIG_NAME_MAX - used)) << c;
         }
      }
      ASSERT_GE(n, 2u);
      const PropConfigMapEntry &catchAll = table[n - 1];
      EXPECT_STREQ(catchAll.propName, "DEFAULT");
      EXPECT_EQ(catchAll.convType, unsigned(cls == PROP_CLASS_PORT ? PROP_CONV_PORT_OPAQUE_DATA
                                                                   : PROP_CONV_OPAQUE_DATA));
      const PropConfigMapEntry &end = table[n];
      EXPECT_EQ(end.depth, 0u);
      EXPECT_EQ(end.convType, unsigned(PROP_CONV_END));
      EXPECT_EQ(end.propFlag, 0u);
      EXPECT_TRUE(AllZero(&end.path[0][0], sizeof end.path));
   }
}

// A null-closed text list: its texts, none repeated.
std::set<std::string> Distinct(const char *const *list) {
   std::set<std::string> out;
   for (; *list != nullptr; list++) {
      EXPECT_TRUE(out.insert(*list).second) << "repeated " << *list;
   }
   return out;
}

// Text tables and the number tables read with them agree entry by entry;
// every list that the code walks to its null ends in one.
TEST(EnumTables, NumberTablesInvertTheTextTables) {
   // Kernel policy 0 has no text; the other positions name each policy
   // with a text exactly once.
   EXPECT_EQ(TEAMING_POLICY_ENUM[0], 0);
   EXPECT_EQ(TEAMING_POLICY_SCHEMA[0], nullptr);
   std::set<int32_t> policies;
   for (int i = 0; i < 5; i++) {
      const int32_t policy = TEAMING_POLICY_ENUM[i + 1];
      ASSERT_TRUE(policy >= 1 && policy <= 5) << i;
      EXPECT_TRUE(policies.insert(policy).second) << policy;
      EXPECT_STREQ(NIC_TEAMING_POLICY_MODE_2_CHARS[i], TEAMING_POLICY_SCHEMA[policy]) << i;
   }
   EXPECT_EQ(TEAMING_POLICY_SCHEMA[6], nullptr);

   for (int i = 0; CDP_OPERATION_2_CHARS[i] != nullptr; i++) {
      EXPECT_EQ(CHARS_2_CDP_OPERATION[i], i);
   }
   for (int i = 0; CDP_MODE_2_CHARS[i] != nullptr; i++) {
      EXPECT_EQ(CHARS_2_CDP_MODE[i], i);
   }
   for (int i = 0; i < 5; i++) {
      EXPECT_EQ(CHARS_2_PVLAN[i], PVLAN_2_CHARS[i] != nullptr ? i : -1) << i;
   }
   EXPECT_EQ(SESSION_TYPE_LOCAL_ENUM_2_SCHEMA[VSPAN_SESSION_TYPE_NUM - 1], nullptr);
   EXPECT_EQ(Distinct(SESSION_TYPE_LOCAL_ENUM_2_SCHEMA).size(), size_t(VSPAN_SESSION_TYPE_NUM - 1));
   std::set<std::string> encap(ENCAP_TYPE_LOCAL_ENUM_2SCHEMA,
                               ENCAP_TYPE_LOCAL_ENUM_2SCHEMA + VSPAN_ENCAP_TYPE_NUM);
   EXPECT_EQ(encap.size(), size_t(VSPAN_ENCAP_TYPE_NUM));
   EXPECT_EQ(Distinct(LACP_LB_POLICY_SCHEMA).size(), 21u);
   EXPECT_EQ(Distinct(LACP_MODE_2_CAHRS).size(), 3u);
   // A key the save clears is cleared in one way only.
   std::set<std::string> cleared;
   for (const auto *list :
        {UNUSED_PRIMITIVE_PROPS, UNUSED_SINGLETON_PROPS, UNUSED_NON_SINGLETON_PROPS}) {
      for (const std::string &key : Distinct(list)) {
         EXPECT_TRUE(cleared.insert(key).second) << key;
      }
   }
}

}  // namespace
