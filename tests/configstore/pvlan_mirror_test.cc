// The private VLAN map and mirror session converters, run through the save
// and load dispatchers into a real store file and back.
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
using Bytes = std::vector<uint8_t>;
using Strings = std::vector<std::string>;
using namespace dvs::configstore;

constexpr const char *kEtherPvlan = "com.ostrel.etherswitch.pvlanMap";
constexpr const char *kVswitchPvlan = "com.ostrel.vswitch.pvlanMap";
constexpr const char *kMirror = "com.ostrel.etherswitch.mirrorSessions";
constexpr int32_t kBadParam = static_cast<int32_t>(STATUS_BAD_PARAM);

using testsupport::At;

Bytes Pvlans(std::vector<std::vector<uint8_t>> entries) {
   Bytes b;
   for (const auto &e : entries) {  // primary, secondary, type, reserved fill
      Bytes rec(8, e[3]);
      At<uint16_t>(&rec, 0, e[0]);
      At<uint16_t>(&rec, 2, e[1]);
      rec[4] = e[2];
      b.insert(b.end(), rec.begin(), rec.end());
   }
   return b;
}

struct Port {
   uint32_t kind;
   std::string text;
   Bytes raw = {};  // payload when there is no text
};
using Ports = std::vector<Port>;
struct Session {
   std::string key, name;
   uint32_t type, length = 0xFFFFFFFF, flags = 0x10;
   uint16_t encapVlan = 0, recvWild = 0, txWild = 0;
   uint32_t sampling = 0, encap = 0;
   uint16_t erspanId = 0;
   uint8_t cos = 0, gra = 0;
   Ports dest = {}, recv = {}, tx = {};
};
Session Make(const std::string &key, uint32_t type, Ports dest, Ports recv = {}, Ports tx = {}) {
   Session s{key, "name of " + key, type};
   s.dest = dest, s.recv = recv, s.tx = tx;
   return s;
}

Bytes Table(const std::vector<Session> &sessions, uint32_t entrySize) {
   Ports ports;
   for (const Session &s : sessions)
      for (const auto *side : {&s.dest, &s.recv, &s.tx})
         ports.insert(ports.end(), side->begin(), side->end());
   Bytes b(20 + 232 * sessions.size() + entrySize * ports.size(), 0);
   At<uint32_t>(&b, 0, 0xFACEBEEF);
   At<uint32_t>(&b, 4, 1);
   At<uint32_t>(&b, 8, sessions.size());
   At<uint32_t>(&b, 12, ports.size());
   uint32_t first = 0;
   for (size_t i = 0; i < sessions.size(); i++) {
      const Session &s = sessions[i];
      const size_t o = 20 + 232 * i;
      memcpy(&b[o], s.key.c_str(), s.key.size() + 1);
      memcpy(&b[o + 32], s.name.c_str(), s.name.size() + 1);
      At(&b, o + 116, s.type);
      At(&b, o + 120, s.length);
      At(&b, o + 124, s.flags);
      At(&b, o + 128, s.encapVlan);
      At(&b, o + 130, s.recvWild);
      At(&b, o + 132, s.txWild);
      At(&b, o + 136, s.sampling);
      At(&b, o + 140, s.encap);
      At(&b, o + 144, s.erspanId);
      b[o + 146] = s.cos;
      b[o + 147] = s.gra;
      At<uint32_t>(&b, o + 216, s.dest.size());
      At<uint32_t>(&b, o + 220, s.recv.size());
      At<uint32_t>(&b, o + 224, s.tx.size());
      At<uint32_t>(&b, o + 228, first);
      first += s.dest.size() + s.recv.size() + s.tx.size();
   }
   const size_t base = 20 + 232 * sessions.size();
   for (size_t i = 0; i < ports.size(); i++) {
      At(&b, base + i * entrySize, ports[i].kind);
      const Bytes &p =
         ports[i].raw.empty() ? Bytes(ports[i].text.begin(), ports[i].text.end()) : ports[i].raw;
      memcpy(&b[base + i * entrySize + 4], p.data(), p.size());
   }
   return b;
}

Bytes Address(bool v6, const char *text) {
   Bytes raw(20, 0);
   raw[0] = v6;
   inet_pton(v6 ? AF_INET6 : AF_INET, text, &raw[4]);
   return raw;
}

class PvlanMirror : public storetest::StoreObjectTest {
  protected:
   void SetUp() override {
      StoreObjectTest::SetUp();
      SetProduct("etherswitch");
      sw_.version = 5;
   }
   ConvertContext sw_;  // the switch the rows are saved for
   void SetProduct(const char *cls) {
      cs::Object *product = nullptr;
      ASSERT_EQ(cs::CreateSubObject(obj_, "product", "", &product), 0);
      ASSERT_EQ(cs::SetValueStr(product, "forwarding_class", cls), 0);
      ASSERT_EQ(cs::SetValueStr(product, "version", "6.5.0"), 0);
   }
   static cs::Object *Sub(cs::Object *at, const char *key, const char *id = nullptr) {
      cs::Object *o = nullptr;
      EXPECT_EQ(cs::GetSubObject(at, key, id, &o), 0) << key;
      return o;
   }
   static Strings List(cs::Object *o, const char *key) {
      char **v = nullptr;
      uint32_t n = 0;
      if (cs::GetValueStringArray(o, key, &v, &n) != 0)
         return {"<absent>"};
      Strings r(v, v + n);
      cs::DestroyStringArrayValue(v, n);
      return r;
   }
   int32_t Save(const char *name, const Bytes &v) {
      return SaveConfigProp(obj_, name, v.data(), v.size(), PROP_CLASS_GLOBAL, sw_);
   }
   // Runs the global load at version; *out is the property name's value,
   // empty when the property is absent.
   int32_t Load(uint32_t version, const char *name, Bytes *out) {
      DVSDataHandle dest = nullptr, list = nullptr;
      EXPECT_EQ(DVSData_Alloc(&dest, malloc, free), STATUS_OK);
      ConvertContext sw;
      sw.version = version;
      const int32_t rc = LoadConfigProps("g", obj_, dest, PROP_CLASS_GLOBAL, sw, nullptr);
      DVSDataEntry *e = nullptr;
      out->clear();
      if (rc == 0 && DVSData_Lookup(dest, "g", &e) == STATUS_OK &&
          DVSData_Deserialize(&list, e->data, e->dataLen, malloc, free) == STATUS_OK) {
         if (DVSData_Lookup(list, name, &e) == STATUS_OK)
            out->assign(e->data, e->data + e->dataLen);
         DVSData_Free(list);
      }
      DVSData_Free(dest);
      return rc;
   }
};

TEST_F(PvlanMirror, PvlanMapReplacesItsListAndLoadsUnderTheFittingName) {
   Bytes value = Pvlans({{10, 11, 1, 0xAA}, {10, 12, 3, 0x55}});
   value.insert(value.end(), {1, 2, 3, 4});  // not a whole entry: ignored
   ASSERT_EQ(Save(kEtherPvlan, value), 0);
   Reopen();
   auto pvlans = Instances(Sub(obj_, "settings"), "pvlans");
   ASSERT_EQ(pvlans.size(), 2u);
   uint16_t id = 0;
   EXPECT_EQ(cs::GetValueUint16(pvlans[1], "primary_id", &id), 0);
   EXPECT_EQ(id, 10);
   EXPECT_EQ(cs::GetValueUint16(pvlans[1], "secondary_id", &id), 0);
   EXPECT_EQ(id, 12);
   EXPECT_EQ(Str(pvlans[0], "type"), "PROMISCUOUS");
   EXPECT_EQ(Str(pvlans[1], "type"), "COMMUNITY");

   const Bytes loaded = Pvlans({{10, 11, 1, 0}, {10, 12, 3, 0}});  // reserved bytes zero
   Bytes out;
   EXPECT_EQ(Load(5, kEtherPvlan, &out), 0);
   EXPECT_EQ(out, loaded);
   EXPECT_EQ(Load(5, kVswitchPvlan, &out), 0);
   EXPECT_TRUE(out.empty());
   EXPECT_EQ(Load(107, kVswitchPvlan, &out), 0);  // a version above 106 takes the vswitch form
   EXPECT_EQ(out, loaded);
   EXPECT_EQ(Load(106, kVswitchPvlan, &out), 0);
   EXPECT_TRUE(out.empty());
   SetProduct("cswitch");
   EXPECT_EQ(Load(5, kVswitchPvlan, &out), 0);
   EXPECT_EQ(out, loaded);
   EXPECT_EQ(Load(5, kEtherPvlan, &out), 0);
   EXPECT_TRUE(out.empty());

   // A later save replaces the list; types without a text are refused
   // before anything is written.
   ASSERT_EQ(Save(kVswitchPvlan, Pvlans({{20, 21, 2, 0}})), 0);
   EXPECT_EQ(Save(kVswitchPvlan, Pvlans({{30, 31, 2, 0}, {30, 32, 0, 0}})), kBadParam);
   EXPECT_EQ(Save(kVswitchPvlan, Pvlans({{30, 31, 4, 0}})), kBadParam);
   Reopen();
   pvlans = Instances(Sub(obj_, "settings"), "pvlans");
   ASSERT_EQ(pvlans.size(), 1u);
   EXPECT_EQ(Str(pvlans[0], "type"), "ISOLATED");
}

TEST_F(PvlanMirror, PvlanMapWithAnUnknownTypeLoadsNothing) {
   cs::Object *settings = nullptr;
   ASSERT_EQ(GetOrCreateSubObject(true, obj_, "settings", nullptr, &settings), 0);
   for (const char *type : {"COMMUNITY", "community"}) {
      cs::Object *inst = nullptr;
      ASSERT_EQ(cs::CreateSubObject(settings, "pvlans", type, &inst), 0);
      cs::SetValueUint16(inst, "primary_id", 7);
      cs::SetValueUint16(inst, "secondary_id", 8);
      cs::SetValueStr(inst, "type", type);
   }
   Bytes out;
   testing::internal::CaptureStdout();
   EXPECT_EQ(Load(5, kEtherPvlan, &out), -1);
   EXPECT_NE(testing::internal::GetCapturedStdout().find("Unknown PvlanType community\n"),
             std::string::npos);
   ASSERT_EQ(cs::DeleteSubObject(settings, "pvlans", "community"), 0);
   EXPECT_EQ(Load(5, kEtherPvlan, &out), 0);
   EXPECT_EQ(out, Pvlans({{7, 8, 3, 0}}));
}

// Five sessions, one of each type, on the classic 36-byte port entries.
TEST_F(PvlanMirror, MirrorSessionsRoundTripWithTheirDeliberateAsymmetries) {
   Session dvport = Make("s1", 1, {{0, "p1"}, {0, "p2"}}, {{0, "p3"}}, {{0, "p4"}});
   dvport.length = 128, dvport.flags = 0x25, dvport.recvWild = 0x09, dvport.txWild = 0x02;
   dvport.sampling = 7, dvport.encap = 2, dvport.erspanId = 300, dvport.cos = 5, dvport.gra = 1;
   Session remoteSrc = Make("s2", 2, {{1, "uplink1"}}, {{0, "p5"}});
   remoteSrc.encapVlan = 100;
   const Session encap =
      Make("s3", 4, {{0, "", Address(false, "10.0.0.1")}, {0, "", Address(true, "fe80::1")}}, {},
           {{0, "p6"}});
   const Session mixed = Make("s4", 0, {{1, "up2"}, {0, "p7"}, {5, "skipped"}});
   const Session remoteDst = Make("s5", 3, {}, {{0, "", {10, 0}}, {0, "", {20, 0}}});
   ASSERT_EQ(Save(kMirror, Table({dvport, remoteSrc, encap, mixed, remoteDst}, 36)), 0);
   Reopen();

   cs::Object *settings = Sub(obj_, "settings");
   const auto vspans = Instances(settings, "vspans");
   ASSERT_EQ(vspans.size(), 5u);
   cs::Object *s1 = vspans[0];
   EXPECT_EQ(Str(s1, "key"), "s1");
   uint32_t u = 0;
   EXPECT_EQ(cs::GetValueUint32(s1, "mirrored_packet_length", &u), cs::kNotFound);
   EXPECT_EQ(Str(s1, "session_type"), "DVPORT_MIRROR");
   EXPECT_FALSE(Bool(s1, "enabled"));
   EXPECT_FALSE(Bool(s1, "normal_traffic_allowed"));
   EXPECT_FALSE(Bool(s1, "legacy_mode"));
   EXPECT_EQ(Str(s1, "encap_type"), "ERSPAN3");
   EXPECT_EQ(List(Sub(s1, "source_recv_port"), "wildcard_port_connectee_types"),
             (Strings{"VM_VNIC", "HOST_HYP_VNIC"}));
   EXPECT_EQ(List(Sub(s1, "destination_port"), "port_keys"), (Strings{"p1", "p2"}));
   EXPECT_EQ(List(Sub(s1, "source_transmit_port"), "port_keys"), (Strings{"p4"}));
   EXPECT_EQ(cs::GetValueUint32(vspans[1], "mirrored_packet_length", &u), 0);
   EXPECT_EQ(u, 0xFFFFFFFFu);
   EXPECT_TRUE(Bool(vspans[1], "legacy_mode"));
   EXPECT_EQ(List(Sub(vspans[1], "destination_port"), "uplink_port_names"), Strings{"uplink1"});
   EXPECT_EQ(List(Sub(vspans[2], "destination_port"), "addresses"),
             Strings{"fe80:0000:0000:0000:0000:0000:0000:0001"});
   EXPECT_EQ(List(Sub(vspans[3], "destination_port"), "port_keys"), Strings{"p7"});
   EXPECT_EQ(List(Sub(vspans[3], "destination_port"), "uplink_port_names"), Strings{"up2"});
   EXPECT_EQ(Str(settings, "promiscuous_mode_vspan_session"), "s5");  // the last legacy session

   // Back: the length comes back unset, legacy mode inverted, 0x02 with
   // 0x01, and no addresses or VLANs; mixed destinations come port keys
   // first.
   Session d1 = dvport, d2 = remoteSrc, d3 = encap, d4 = mixed, d5 = remoteDst;
   d1.length = 0xFFFFFFFF;
   d1.flags = 0x20 | 0x04 | 0x03 | 0x10;
   d2.flags = 0x08;
   d3.flags = d4.flags = d5.flags = 0;
   d3.dest.clear();
   d4.dest = {{0, "p7"}, {1, "up2"}};
   d5.recv.clear();
   Bytes out;
   ASSERT_EQ(Load(5, kMirror, &out), 0);
   EXPECT_EQ(out, Table({d1, d2, d3, d4, d5}, 36));
}

TEST_F(PvlanMirror, MirrorPortEntriesAreWideFromVersion100) {
   Session s = Make("w", 1, {{0, std::string(40, 'k')}});
   s.flags = 0;
   sw_.version = 5;  // 36-byte entries: the key is not terminated inside its payload
   EXPECT_EQ(Save(kMirror, Table({s}, 52)), kBadParam);
   sw_.version = 100;
   ASSERT_EQ(Save(kMirror, Table({s}, 52)), 0);
   Reopen();
   Session back = s;
   back.flags = 0x10;
   Bytes out;
   EXPECT_EQ(Load(100, kMirror, &out), 0);
   EXPECT_EQ(out, Table({back}, 52));
   EXPECT_EQ(Load(99, kMirror, &out), kBadParam);  // 40 characters do not fit 32 bytes
}

// A port's legacy session is named on its switch's object, which the save
// of the switch hands to the port rows.
TEST_F(PvlanMirror, PortLegacySessionIsNamedOnTheSwitch) {
   const char *portMirror = "com.ostrel.vswitch.port.mirrorSessions";
   cs::Object *port = nullptr;
   ASSERT_EQ(cs::CreateSubObject(obj_, "ports", "p1", &port), 0);
   const Bytes table = Table({Make("legacy", 1, {{0, "p1"}})}, 36);
   ASSERT_EQ(
      SaveConfigProp(port, portMirror, table.data(), uint32_t(table.size()), PROP_CLASS_PORT, sw_),
      0);
   cs::Object *settings = nullptr;
   EXPECT_EQ(cs::GetSubObject(obj_, "settings", "", &settings), cs::kNotFound)
      << "outside a switch save there is no switch object to name it on";

   sw_.switchObj = obj_;
   ASSERT_EQ(
      SaveConfigProp(port, portMirror, table.data(), uint32_t(table.size()), PROP_CLASS_PORT, sw_),
      0);
   ASSERT_EQ(cs::GetSubObject(obj_, "settings", "", &settings), 0);
   EXPECT_EQ(Str(settings, "promiscuous_mode_vspan_session"), "legacy");
}

TEST_F(PvlanMirror, MirrorRefusesDamagedTablesAndUnknownTexts) {
   const Session s = Make("s", 1, {{0, "p"}});
   const Bytes good = Table({s}, 36);
   EXPECT_EQ(Save(kMirror, Bytes(good.begin(), good.begin() + 19)), kBadParam);
   EXPECT_EQ(Save(kMirror, Bytes(good.begin(), good.end() - 1)), kBadParam);
   Bytes bad = good;
   At<uint32_t>(&bad, 20 + 216, 2);  // two destinations, one entry
   EXPECT_EQ(Save(kMirror, bad), kBadParam);
   for (auto [off, v] : {std::pair<size_t, uint32_t>{116, 5}, {140, 3}}) {
      bad = good;
      At(&bad, 20 + off, v);
      EXPECT_EQ(Save(kMirror, bad), kBadParam);
   }
   bad = good;
   memset(&bad[20], 'x', 32);  // key without its NUL
   EXPECT_EQ(Save(kMirror, bad), kBadParam);
   EXPECT_EQ(Save(kMirror, Table({s, s}, 36)), kBadParam);  // one key twice
   bad = good;
   At<uint32_t>(&bad, 8, 0);  // no sessions: nothing to write
   EXPECT_EQ(Save(kMirror, bad), 0);
   cs::Object *settings = nullptr;
   ASSERT_EQ(GetOrCreateSubObject(true, obj_, "settings", nullptr, &settings), 0);
   EXPECT_TRUE(Instances(settings, "vspans").empty());

   ASSERT_EQ(Save(kMirror, good), 0);
   cs::Object *inst = Instances(settings, "vspans").at(0);
   Bytes out;
   for (auto [key, text] : {std::pair<const char *, const char *>{"session_type", "DVPORT"},
                            {"encap_type", "ERSPAN4"}}) {
      ASSERT_EQ(cs::SetValueStr(inst, key, text), 0);
      testing::internal::CaptureStdout();
      EXPECT_EQ(Load(5, kMirror, &out), -1) << key;
      const std::string printed = testing::internal::GetCapturedStdout();
      EXPECT_NE(printed.find(std::string(" in schema: ") + text + "\n"), std::string::npos);
      ASSERT_EQ(cs::SetValueStr(inst, key, key[0] == 's' ? "DVPORT_MIRROR" : "GRE"), 0);
   }
   EXPECT_EQ(Load(5, kMirror, &out), 0);
   EXPECT_EQ(out.size(), good.size());
}

}  // namespace
