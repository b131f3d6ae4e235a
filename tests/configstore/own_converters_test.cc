// The opaque data, resource-pool and filter policy converters, run through
// the converter table into a real store file and back, and the base64 code
// the opaque data is kept in.
#include <stdlib.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include <configstore.h>
#include <dvsdata.h>
#include <gtest/gtest.h>

#include "configstore/base64.h"
#include "configstore/configstore_internal.h"
#include "configstore/converters.h"
#include "tests/configstore/store_test_support.h"
#include "tests/support/le_bytes.h"

namespace {

namespace cs = ::configstore;
using testsupport::Bytes;
using testsupport::Put;
using Props = std::vector<std::pair<std::string, Bytes>>;
using namespace dvs::configstore;

void PutName(Bytes *b, const std::string &s, char tail = 0) {
   Bytes field(128, static_cast<uint8_t>(tail));
   memcpy(field.data(), s.data(), s.size());
   field[s.size()] = 0;
   b->insert(b->end(), field.begin(), field.end());
}

struct Pool {
   std::string key;
   int64_t limit, reservation;
   uint32_t shares, level;
};
Bytes Pools(const std::vector<Pool> &pools, char tail = 0) {
   Bytes b;
   Put(&b, static_cast<uint32_t>(pools.size()));
   for (const Pool &p : pools) {
      PutName(&b, p.key, tail);
      Put(&b, p.limit);
      Put(&b, p.reservation);
      Put(&b, p.shares);
      Put(&b, p.level);
   }
   return b;
}

struct Filter {
   std::string agent;
   uint32_t slot, onFailure;
   std::vector<std::string> params;
};
Bytes Filters(const std::vector<Filter> &filters) {
   Bytes b;
   Put(&b, static_cast<uint32_t>(filters.size()));
   for (const Filter &f : filters) {
      PutName(&b, f.agent);
      Put(&b, f.slot);
      Put(&b, f.onFailure);
      Put(&b, static_cast<uint32_t>(f.params.size()));
      for (const std::string &p : f.params) {
         Put(&b, static_cast<uint32_t>(p.size() + 1));
         b.insert(b.end(), p.c_str(), p.c_str() + p.size() + 1);
      }
   }
   return b;
}

class OwnConverters : public storetest::StoreObjectTest {
  protected:
   cs::Object *Sub(const char *key) {
      cs::Object *o = nullptr;
      EXPECT_EQ(GetOrCreateSubObject(true, obj_, key, "", &o), 0);
      return o;
   }
   int32_t Save(uint32_t type, cs::Object *at, const char *key, const Bytes &v,
                uint32_t propClass = PROP_CLASS_GLOBAL, const char *name = "p") {
      return GetPropConverter(type)->save(at, key, v.data(), v.size(),
                                          ConvertContext{propClass, name, obj_});
   }
   // Loads into a fresh list and returns every property in list order.
   int32_t Load(uint32_t type, cs::Object *at, const char *key, Props *out,
                uint32_t propClass = PROP_CLASS_GLOBAL, const char *name = "p") {
      DVSDataHandle props;
      EXPECT_EQ(DVSData_Alloc(&props, malloc, free), STATUS_OK);
      int32_t rc = GetPropConverter(type)->load(at, key, props, name, 0x10,
                                                ConvertContext{propClass, name, obj_});
      out->clear();
      for (DVSDataEntry *e = nullptr; DVSData_Next(props, e, &e) == STATUS_OK;) {
         EXPECT_EQ(e->flag, 0x10u);
         out->emplace_back(e->name, Bytes(e->data, e->data + e->dataLen));
      }
      DVSData_Free(props);
      return rc;
   }
   // Saves v under sub/key, writes and reopens the object, and loads it back.
   Props RoundTrip(uint32_t type, const char *sub, const char *key, const Bytes &v,
                   uint32_t propClass = PROP_CLASS_GLOBAL) {
      EXPECT_EQ(Save(type, Sub(sub), key, v, propClass), 0);
      Reopen();
      Props out;
      EXPECT_EQ(Load(type, Sub(sub), key, &out, propClass), 0);
      return out;
   }
};

TEST(Base64, EncodesPaddedAndDecodesOnlyCanonicalText) {
   const std::pair<const char *, const char *> vectors[] = {
      {"", ""},
      {"f", "Zg=="},
      {"fo", "Zm8="},
      {"foo", "Zm9v"},
      {"foob", "Zm9vYg=="},
      {"fooba", "Zm9vYmE="},
      {"foobar", "Zm9vYmFy"},
   };
   for (auto [plain, text] : vectors) {
      char *enc = Base64Encode(plain, strlen(plain));
      ASSERT_NE(enc, nullptr);
      EXPECT_STREQ(enc, text);
      free(enc);
      uint8_t *dec = nullptr;
      size_t len = 99;
      ASSERT_EQ(Base64Decode(text, &dec, &len), Base64Status::kOk) << text;
      ASSERT_NE(dec, nullptr);
      EXPECT_EQ(std::string(reinterpret_cast<char *>(dec), len), plain);
      free(dec);
   }
   Bytes all(256);
   for (int i = 0; i < 256; i++)
      all[i] = static_cast<uint8_t>(255 - i);
   char *enc = Base64Encode(all.data(), all.size());
   uint8_t *dec = nullptr;
   size_t len = 0;
   ASSERT_EQ(Base64Decode(enc, &dec, &len), Base64Status::kOk);
   EXPECT_EQ(Bytes(dec, dec + len), all);
   free(enc);
   free(dec);
   for (const char *bad : {"Zg=", "Zg", "Zg=a", "Z===", "====", "Zh==", "Zm9=", "Zg==Zg==",
                           "Zm9v!A==", "Zm 9v", "Zm9v\n", "Zm-v", "Zm_v", "Zm9\x80", "\xffm9v",
                           "Zm9v\xc3\xa9=="}) {
      dec = reinterpret_cast<uint8_t *>(1);
      EXPECT_EQ(Base64Decode(bad, &dec, &len), Base64Status::kInvalid) << bad;
      EXPECT_EQ(dec, nullptr);
   }
}

TEST_F(OwnConverters, OpaqueDataKeepsClassesApartAndInOrder) {
   const Bytes binary = {0, 0xff, 0, 1, 0x80, 0};
   EXPECT_EQ(Save(PROP_CONV_OPAQUE_DATA, obj_, "data", Bytes{}, PROP_CLASS_GLOBAL, "g.z"), 0);
   EXPECT_EQ(Save(PROP_CONV_OPAQUE_DATA, obj_, "data", {7}, PROP_CLASS_HOST, "h.a"), 0);
   EXPECT_EQ(Save(PROP_CONV_OPAQUE_DATA, obj_, "data", binary, PROP_CLASS_GLOBAL, "g.b"), 0);
   EXPECT_EQ(Save(PROP_CONV_PORT_OPAQUE_DATA, obj_, "data", {1, 2}, PROP_CLASS_PORT, "g.b"), 0);
   EXPECT_EQ(Save(PROP_CONV_OPAQUE_DATA, obj_, "data", {9}, PROP_CLASS_GLOBAL, "g.a"), 0);
   // Saving a property again keeps its place.
   EXPECT_EQ(Save(PROP_CONV_OPAQUE_DATA, obj_, "data", {3}, PROP_CLASS_GLOBAL, "g.z"), 0);
   EXPECT_EQ(Save(PROP_CONV_OPAQUE_DATA, obj_, "data", {1}, 3, "g.x"), -1);
   EXPECT_EQ(Save(PROP_CONV_OPAQUE_DATA, obj_, "data", {1}, PROP_CLASS_GLOBAL, nullptr), -1);
   Reopen();
   Props out;
   EXPECT_EQ(Load(PROP_CONV_OPAQUE_DATA, obj_, "data", &out, PROP_CLASS_GLOBAL), 0);
   EXPECT_EQ(out, (Props{{"g.z", {3}}, {"g.b", binary}, {"g.a", {9}}}));
   EXPECT_EQ(Load(PROP_CONV_OPAQUE_DATA, obj_, "data", &out, PROP_CLASS_HOST), 0);
   EXPECT_EQ(out, (Props{{"h.a", {7}}}));
   EXPECT_EQ(Load(PROP_CONV_PORT_OPAQUE_DATA, obj_, "data", &out, PROP_CLASS_PORT), 0);
   EXPECT_EQ(out, (Props{{"g.b", {1, 2}}}));
   EXPECT_EQ(Save(PROP_CONV_OPAQUE_DATA, obj_, "data", Bytes{}, PROP_CLASS_HOST, "h.a"), 0);
   Reopen();
   EXPECT_EQ(Load(PROP_CONV_OPAQUE_DATA, obj_, "data", &out, PROP_CLASS_HOST), 0);
   EXPECT_EQ(out, (Props{{"h.a", {}}}));
   EXPECT_EQ(Load(PROP_CONV_OPAQUE_DATA, obj_, "absent", &out, PROP_CLASS_GLOBAL), 0);
   EXPECT_TRUE(out.empty());
   EXPECT_EQ(Load(PROP_CONV_OPAQUE_DATA, obj_, "data", &out, 3), -1);
   // One bad instance and none of the class's properties come back.
   cs::Object *data = Sub("data"), *inst = nullptr;
   ASSERT_EQ(cs::GetSubObject(data, "dvs_opaque_data", "g.a", &inst), 0);
   ASSERT_EQ(cs::SetValueStr(inst, "value", "CQ="), 0);
   EXPECT_EQ(Load(PROP_CONV_OPAQUE_DATA, obj_, "data", &out, PROP_CLASS_GLOBAL), -1);
   EXPECT_TRUE(out.empty());
}

TEST_F(OwnConverters, ResourcePoolsRoundTripAndRefuseBadRecords) {
   const char *rmKey = "resource_management";
   const Bytes pools = Pools({{"nfs", -1, 0, 50, 1},
                              {"vm", 1000, 100, 0xffffffffu, 3},
                              {std::string(127, 'k'), INT64_MAX, INT64_MIN, 0, 0}});
   EXPECT_EQ(RoundTrip(PROP_CONV_RESPOOL_CONFIG, rmKey, "traffic_resources", pools),
             (Props{{"p", pools}}));
   cs::Object *rm = Sub(rmKey);
   Props out;
   // The port's pools are rebuilt from the same objects under their own name.
   const char *portProp = "com.ostrel.common.port.respools.cfg";
   EXPECT_EQ(
      Load(PROP_CONV_RESPOOL_CONFIG, rm, "traffic_resources", &out, PROP_CLASS_PORT, portProp), 0);
   EXPECT_EQ(out, (Props{{portProp, pools}}));

   // A later save replaces the pools; bytes after a key's NUL come back zero.
   const Bytes one = Pools({{"high", 5, 6, 7, 2}});
   EXPECT_EQ(RoundTrip(PROP_CONV_RESPOOL_CONFIG, rmKey, "traffic_resources",
                       Pools({{"high", 5, 6, 7, 2}}, 'z')),
             (Props{{"p", one}}));
   rm = Sub(rmKey);

   Bytes shortByOne = one;
   shortByOne.pop_back();
   Bytes countTooHigh = one;
   countTooHigh[0] = 2;
   Bytes noNul = one;
   memset(&noNul[4], 'a', 128);
   for (const Bytes &bad : {Bytes{0, 0}, shortByOne, countTooHigh, noNul, Pools({{"", 1, 1, 1, 1}}),
                            Pools({{"a", 1, 1, 1, 1}, {"b", 1, 1, 1, 1}, {"a", 2, 2, 2, 2}}),
                            Pools({{"a", 1, 1, 1, 4}})})
      EXPECT_EQ(Save(PROP_CONV_RESPOOL_CONFIG, rm, "traffic_resources", bad), -1);
   EXPECT_EQ(Load(PROP_CONV_RESPOOL_CONFIG, rm, "traffic_resources", &out), 0);
   EXPECT_EQ(out, (Props{{"p", one}})) << "a refused save leaves the store as it was";

   const Bytes none = Pools({});
   EXPECT_EQ(RoundTrip(PROP_CONV_RESPOOL_CONFIG, rmKey, "traffic_resources", none),
             (Props{{"p", none}}));
   rm = Sub(rmKey);
   EXPECT_EQ(Load(PROP_CONV_RESPOOL_CONFIG, rm, "other_resources", &out), 0);
   EXPECT_TRUE(out.empty());

   ASSERT_EQ(Save(PROP_CONV_RESPOOL_CONFIG, rm, "traffic_resources", pools), 0);
   EXPECT_EQ(cs::RemoveValue(rm, "traffic_resources"), cs::kNotFound) << "empty marker dropped";
   cs::Object *inst = nullptr, *part = nullptr;
   ASSERT_EQ(cs::GetSubObject(rm, "traffic_resources", "vm", &inst), 0);
   ASSERT_EQ(cs::GetSubObject(inst, "shares", "", &part), 0);
   ASSERT_EQ(cs::SetValueStr(part, "level", "medium"), 0);
   EXPECT_EQ(Load(PROP_CONV_RESPOOL_CONFIG, rm, "traffic_resources", &out), -1);
   EXPECT_TRUE(out.empty());
   ASSERT_EQ(cs::SetValueStr(part, "level", "high"), 0);
   ASSERT_EQ(cs::GetSubObject(inst, "allocation", "", &part), 0);
   ASSERT_EQ(cs::RemoveValue(part, "limit"), 0);
   EXPECT_EQ(Load(PROP_CONV_RESPOOL_CONFIG, rm, "traffic_resources", &out), -1);
   EXPECT_TRUE(out.empty());
}

TEST_F(OwnConverters, FilterPolicyRoundTripsAndRefusesMalformedValues) {
   const Bytes policy = Filters(
      {{"agentA", 0, 0, {}}, {"agentB", 0xffffffffu, 1, {"a=1", "", "x y"}}, {"", 7, 0, {"only"}}});
   EXPECT_EQ(RoundTrip(PROP_CONV_FILTER_POLICY, "settings", "filter_policy", policy, PROP_CLASS_PORT),
             (Props{{"p", policy}}));
   const Bytes none = Filters({});
   EXPECT_EQ(RoundTrip(PROP_CONV_FILTER_POLICY, "settings", "filter_policy", none, PROP_CLASS_PORT),
             (Props{{"p", none}}))
      << "the earlier filters are gone";
   cs::Object *settings = Sub("settings");
   Props out;
   EXPECT_EQ(Load(PROP_CONV_FILTER_POLICY, settings, "absent", &out, PROP_CLASS_PORT), 0);
   EXPECT_TRUE(out.empty());

   const Bytes one = Filters({{"agent", 1, 1, {"ab"}}});
   const size_t param = 4 + 128 + 12;  // offset of the parameter's length
   Bytes truncated = one, noNul = one, interiorNul = one, zeroLen = one, hugeLen = one,
         badPolicy = one, trailing = one;
   truncated.pop_back();
   memset(&noNul[4], 'n', 128);
   interiorNul[param + 4] = 0;
   memset(&zeroLen[param], 0, 4);
   memset(&hugeLen[param], 0xff, 4);
   badPolicy[4 + 132] = 2;
   trailing.push_back(0);
   for (const Bytes &bad :
        {Bytes{1, 0}, truncated, noNul, interiorNul, zeroLen, hugeLen, badPolicy, trailing})
      EXPECT_EQ(Save(PROP_CONV_FILTER_POLICY, settings, "filter_policy", bad, PROP_CLASS_PORT), -1);

   ASSERT_EQ(Save(PROP_CONV_FILTER_POLICY, settings, "filter_policy", one, PROP_CLASS_PORT), 0);
   cs::Object *fp = nullptr, *inst = nullptr;
   ASSERT_EQ(cs::GetSubObject(settings, "filter_policy", "", &fp), 0);
   ASSERT_EQ(cs::GetSubObject(fp, "network_filters", "0", &inst), 0);
   const std::pair<const char *, std::string> badTexts[] = {{"on_failure", "FAIL_SOMETIMES"},
                                                            {"agent_name", std::string(128, 'a')}};
   for (const auto &[name, text] : badTexts) {
      ASSERT_EQ(cs::SetValueStr(inst, name, text.c_str()), 0);
      EXPECT_EQ(Load(PROP_CONV_FILTER_POLICY, settings, "filter_policy", &out), -1) << name;
      EXPECT_TRUE(out.empty());
      ASSERT_EQ(Save(PROP_CONV_FILTER_POLICY, settings, "filter_policy", one), 0);
      ASSERT_EQ(cs::GetSubObject(fp, "network_filters", "0", &inst), 0);
   }
   ASSERT_EQ(cs::SetValueInt(inst, "slot_number", -1), 0);
   EXPECT_EQ(Load(PROP_CONV_FILTER_POLICY, settings, "filter_policy", &out), -1);
   EXPECT_TRUE(out.empty());
}

}  // namespace
