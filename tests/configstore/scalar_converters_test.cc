// The path walk and the scalar and list converters, each run through the
// converter table into a real store file, written, read back and converted
// into a property again.  The converters are internal to libdvs, so this
// test compiles their sources in.
#include <arpa/inet.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include <configstore.h>
#include <dvsdata.h>
#include <gtest/gtest.h>

#include "configstore/configstore_internal.h"
#include "configstore/converters.h"
#include "tests/configstore/store_test_support.h"
#include "tests/support/le_bytes.h"

namespace {

namespace cs = ::configstore;
using testsupport::Bytes;
using namespace dvs::configstore;

Bytes Text(const char *s) {
   return testsupport::TextBytes(s);
}
Bytes U32(uint32_t v) {
   return testsupport::U32Bytes(v);
}
Bytes Names(uint32_t record, const std::vector<std::string> &names) {
   const std::string b = testsupport::NameRecords(record, names);
   return Bytes(b.begin(), b.end());
}

class ScalarConverters : public storetest::StoreObjectTest {
  protected:
   // The switch object is where every row's walk starts here.
   ConvertContext Ctx() const { return ConvertContext{PROP_CLASS_GLOBAL, "p", obj_, 0}; }
   int32_t Save(uint32_t type, const char *key, const Bytes &v) {
      return GetPropConverter(type)->save(obj_, key, v.data(), v.size(), Ctx());
   }
   // Loads key into a fresh list; *present says whether a property came back.
   int32_t Load(uint32_t type, const char *key, Bytes *out, bool *present) {
      DVSDataHandle props;
      EXPECT_EQ(DVSData_Alloc(&props, malloc, free), STATUS_OK);
      int32_t rc = GetPropConverter(type)->load(obj_, key, props, "p", 0x10, Ctx());
      DVSDataEntry *e = nullptr;
      *present = DVSData_Lookup(props, "p", &e) == STATUS_OK;
      if (*present) {
         EXPECT_EQ(e->flag, 0x10u);
         out->assign(e->data, e->data + e->dataLen);
      }
      DVSData_Free(props);
      return rc;
   }
   // Save, write, reopen, load: the property that comes back.
   Bytes RoundTrip(uint32_t type, const char *key, const Bytes &v) {
      EXPECT_EQ(Save(type, key, v), 0);
      Reopen();
      Bytes out;
      bool present = false;
      EXPECT_EQ(Load(type, key, &out, &present), 0);
      EXPECT_TRUE(present);
      return out;
   }
};

TEST_F(ScalarConverters, WalkFindsOrCreatesTheHoldingObject) {
   const PropConfigMapEntry &priority = dvsPortProp2Config[19];  // settings/vlan/priority
   cs::Object *at = reinterpret_cast<cs::Object *>(0x1);
   EXPECT_EQ(WalkConfigPath(priority.path, priority.depth, obj_, false, &at), cs::kNotFound);
   EXPECT_EQ(at, reinterpret_cast<cs::Object *>(0x1));
   EXPECT_EQ(WalkConfigPath(priority.path, 1, obj_, false, &at), 0);
   EXPECT_EQ(at, obj_);
   ASSERT_EQ(WalkConfigPath(priority.path, priority.depth, obj_, true, &at), 0);
   ASSERT_EQ(cs::SetValueUint32(at, "priority", 5), 0);
   Reopen();
   cs::Object *settings = nullptr, *vlan = nullptr;
   ASSERT_EQ(GetOrCreateSubObject(false, obj_, "settings", nullptr, &settings), 0);
   ASSERT_EQ(GetOrCreateSubObject(false, settings, "vlan", nullptr, &vlan), 0);
   uint32_t v = 0;
   EXPECT_EQ(cs::GetValueUint32(vlan, "priority", &v), 0);
   EXPECT_EQ(v, 5u);
   EXPECT_EQ(GetOrCreateSubObject(false, obj_, "product", nullptr, &vlan), cs::kNotFound);
   EXPECT_EQ(vlan, nullptr);
}

TEST_F(ScalarConverters, NumbersAndAddressesComeBackByteForByte) {
   int32_t neg = -7;
   Bytes negBytes(reinterpret_cast<uint8_t *>(&neg), reinterpret_cast<uint8_t *>(&neg) + 4);
   EXPECT_EQ(RoundTrip(PROP_CONV_UINT32, "a", U32(0xfffffff0u)), U32(0xfffffff0u));
   EXPECT_EQ(RoundTrip(PROP_CONV_MTU, "b", U32(9000)), U32(9000));
   EXPECT_EQ(RoundTrip(PROP_CONV_INT32, "c", negBytes), negBytes);
   EXPECT_EQ(RoundTrip(PROP_CONV_BOOL_BYTE, "d", Bytes{1}), Bytes{1});
   EXPECT_EQ(RoundTrip(PROP_CONV_STRING, "e", Text("uplink group")), Text("uplink group"));
   Bytes addr(4);
   inet_pton(AF_INET, "10.1.2.254", addr.data());
   EXPECT_EQ(RoundTrip(PROP_CONV_IPV4_ADDRESS, "f", addr), addr);
   char *s = nullptr;
   ASSERT_EQ(cs::GetValueStr(obj_, "f", &s), 0);
   EXPECT_STREQ(s, "10.1.2.254");
   free(s);
   ASSERT_EQ(cs::SetValueStr(obj_, "g", "10.1.2"), 0);
   Bytes out;
   bool present = true;
   EXPECT_EQ(Load(PROP_CONV_IPV4_ADDRESS, "g", &out, &present), -1);
   EXPECT_EQ(Load(PROP_CONV_UINT32, "absent", &out, &present), 0);
   EXPECT_FALSE(present);
}

TEST_F(ScalarConverters, BooleanTextsCompareExactly) {
   for (uint32_t t : {PROP_CONV_BOOL_TEXT, PROP_CONV_ZLT_ENABLED, PROP_CONV_PORT_BOOL_TEXT}) {
      EXPECT_EQ(RoundTrip(t, "k", Text("true")), Text("true"));
      EXPECT_EQ(RoundTrip(t, "k", Text("yes")), Text("false"));
      EXPECT_EQ(RoundTrip(t, "k", Text("TRUE")), Text("false"));
      EXPECT_EQ(RoundTrip(t, "k", Text("true ")), Text("false"));
   }
   // Whatever the row's key, tx uplink lives under "tx_uplink".
   EXPECT_EQ(Save(PROP_CONV_TX_UPLINK, "ignored", Text("always")), 0);
   Reopen();
   Bytes out;
   bool present = false;
   EXPECT_EQ(Load(PROP_CONV_TX_UPLINK, "ignored", &out, &present), 0);
   EXPECT_FALSE(present);
   EXPECT_EQ(Load(PROP_CONV_TX_UPLINK, "tx_uplink", &out, &present), 0);
   EXPECT_EQ(out, Text("always"));
   EXPECT_EQ(RoundTrip(PROP_CONV_TX_UPLINK, "tx_uplink", Text("Always")), Text("normal"));
   EXPECT_EQ(RoundTrip(PROP_CONV_PT_ALLOWED, "pt", U32(2)), U32(2));
   EXPECT_EQ(RoundTrip(PROP_CONV_PT_ALLOWED, "pt", U32(1)), U32(0));
   EXPECT_EQ(RoundTrip(PROP_CONV_ENABLED_TEXT, "ipfix", Text("enabled")), Text("enabled"));
   EXPECT_EQ(Save(PROP_CONV_ENABLED_TEXT, "ipfix", Text("disabled")), 0);
   Reopen();
   EXPECT_EQ(Load(PROP_CONV_ENABLED_TEXT, "ipfix", &out, &present), 0);
   EXPECT_FALSE(present);
}

TEST_F(ScalarConverters, NameArraysKeepOrderAndTheirOwnEmptyRules) {
   Bytes keys = Names(48, {"port-3", "port-1", "port-2"});
   EXPECT_EQ(RoundTrip(PROP_CONV_UPLINK_KEY_LIST, "uplink_port_keys", keys), keys);
   Bytes pools = Names(200, {std::string(150, 'x'), "nfs"});
   Bytes pool = RoundTrip(PROP_CONV_RESPOOL_KEY_LIST, "pools", pools);
   ASSERT_EQ(pool.size(), pools.size());
   EXPECT_EQ(strlen(reinterpret_cast<char *>(&pool[4])), 127u) << "name field is 128 bytes";
   EXPECT_STREQ(reinterpret_cast<char *>(&pool[204]), "nfs");
   Bytes names = Names(81, {"uplink1", "uplink2"});
   Bytes name = RoundTrip(PROP_CONV_UPLINK_NAME_LIST, "uplink_port_names", names);
   ASSERT_EQ(name.size(), names.size());
   EXPECT_EQ(memcmp(name.data(), names.data(), 4), 0);
   EXPECT_STREQ(reinterpret_cast<char *>(&name[4 + 81]), "uplink2");
   // A count of 0 empties the key list but leaves names and pools alone.
   Bytes out;
   bool present = true;
   for (auto [type, key] : {std::pair{PROP_CONV_UPLINK_KEY_LIST, "uplink_port_keys"},
                            {PROP_CONV_UPLINK_NAME_LIST, "uplink_port_names"},
                            {PROP_CONV_RESPOOL_KEY_LIST, "pools"}})
      EXPECT_EQ(Save(type, key, U32(0)), 0);
   Reopen();
   EXPECT_EQ(Load(PROP_CONV_UPLINK_KEY_LIST, "uplink_port_keys", &out, &present), 0);
   EXPECT_FALSE(present);
   EXPECT_EQ(Load(PROP_CONV_UPLINK_NAME_LIST, "uplink_port_names", &out, &present), 0);
   EXPECT_TRUE(present);
   EXPECT_EQ(Load(PROP_CONV_RESPOOL_KEY_LIST, "pools", &out, &present), 0);
   EXPECT_TRUE(present);
}

TEST_F(ScalarConverters, SwitchVersionFollowsTheZltFlag) {
   cs::Object *product = nullptr;
   ASSERT_EQ(GetOrCreateSubObject(true, obj_, "product", "", &product), 0);
   EXPECT_EQ(GetPropConverter(PROP_CONV_SWITCH_VERSION)
                ->save(product, "version", U32(107).data(), 4, Ctx()),
             0);
   Reopen();
   Bytes out;
   bool present = false;
   EXPECT_EQ(Load(PROP_CONV_SWITCH_VERSION, "version", &out, &present), 0);
   EXPECT_EQ(out, U32(7)) << "\"7.0.0\" without zlt_enabled";
   ASSERT_EQ(cs::SetValueBool(obj_, "zlt_enabled", true), 0);
   EXPECT_EQ(Load(PROP_CONV_SWITCH_VERSION, "version", &out, &present), 0);
   EXPECT_EQ(out, U32(107));
   EXPECT_EQ(Save(PROP_CONV_SWITCH_VERSION, "version", U32(11)), -1);
   ASSERT_EQ(GetOrCreateSubObject(false, obj_, "product", "", &product), 0);
   ASSERT_EQ(cs::SetValueStr(product, "version", "7.0.1"), 0);
   EXPECT_EQ(Load(PROP_CONV_SWITCH_VERSION, "version", &out, &present), -1);
   ASSERT_EQ(cs::DeleteSubObject(obj_, "product", ""), 0);
   EXPECT_EQ(Load(PROP_CONV_SWITCH_VERSION, "version", &out, &present), cs::kNotFound);
}

TEST(ConverterTable, EveryTypeButTheGapHasBothDirections) {
   for (uint32_t t : {30, PROP_CONV_END, 99})
      EXPECT_EQ(GetPropConverter(t), nullptr) << t;
   for (uint32_t t = 0; t < PROP_CONV_END; t++) {
      if (t == 30)
         continue;
      const PropConverter *c = GetPropConverter(t);
      ASSERT_NE(c, nullptr) << t;
      EXPECT_TRUE(c->save != nullptr && c->load != nullptr) << t;
   }
   EXPECT_EQ(GetPropConverter(PROP_CONV_SKIP)->save(nullptr, "x", nullptr, 0, ConvertContext{}), 0);
}

}  // namespace
