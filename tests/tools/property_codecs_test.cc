// The property codecs: every kind encodes and decodes back to the same
// fields and bytes, fields land at their layout's offsets, and values that
// do not fit their layout are refused on both sides.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "error.h"
#include "property_codecs.h"

namespace dvsctl {
namespace {

struct Sample {
   const char *prop;
   Fields fields;
   uint32_t version = 6;
};

Fields Entry(uint32_t kind, const char *text) {
   return {{"kind", kind}, {"text", text}};
}

std::vector<Sample> Samples() {
   const Fields session = {{"key", "s-1"},
                           {"name", "web"},
                           {"sessionType", 0},
                           {"mirroredPacketLength", 128},
                           {"sessionFlags", 0x13},
                           {"encapsulationVlanId", 300},
                           {"recvWildcardTypes", 3},
                           {"transmitWildcardTypes", 8},
                           {"samplingRate", 10},
                           {"encapType", 2},
                           {"erspanId", 42},
                           {"erspanCos", 3},
                           {"erspanGraNanosec", 1},
                           {"reserved", std::string(2 * 73, '0').replace(4, 2, "7f")},
                           {"destination", Fields::array({Entry(1, "uplink2"), Entry(0, "17")})},
                           {"receive", Fields::array({Entry(0, "18")})},
                           {"transmit", Fields::array()}};
   Fields remote = session;
   remote["sessionType"] = 3;
   remote.erase("reserved");
   remote["receive"] = Fields::array({{{"kind", 0}, {"vlan", 300}}});
   Fields encap = remote;
   encap["sessionType"] = 4;
   encap["key"] = "s-2";
   encap["destination"] = Fields::array({{{"kind", 0}, {"address", "fd00::5"}}});
   encap["receive"] = Fields::array({Entry(0, "19")});
   const Fields mirror = {{"magic", 0xFACEBEEFu},
                          {"version", 1},
                          {"sessions", Fields::array({session, remote, encap})}};
   return {
      {"com.ostrel.vswitch.teaming",
       {{"policy", 4},
        {"failureFlags", 0xa0},
        {"percentage", 50},
        {"fullDuplex", 1},
        {"speed", 1000},
        {"teamingFlags", 0x22},
        {"active", Fields::array({"uplink1", std::string(80, 'u')})},
        {"standby", Fields::array({"uplink3"})}}},
      {"com.ostrel.etherswitch.lacp",
       {{"groups", Fields::array({{{"name", std::string(64, 'n')},
                                   {"key", "lag-1"},
                                   {"mode", 2},
                                   {"loadBalanceAlgorithm", 20},
                                   {"uplinkNum", 2}}})}}},
      {"com.ostrel.etherswitch.port.lacp", {{"enabled", 1}, {"mode", 1}, {"reserved", "000100"}}},
      {"com.ostrel.vswitch.pvlanMap",
       {{"entries",
         Fields::array(
            {{{"primaryId", 100}, {"secondaryId", 101}, {"type", 2}},
             {{"primaryId", 100}, {"secondaryId", 102}, {"type", 3}, {"reserved", "010000"}}})}}},
      {"com.ostrel.vswitch.mirrorSessions", mirror, 6},
      {"com.ostrel.etherswitch.port.mirrorSessions", mirror, 108},
      {"com.ostrel.etherswitch.ipfix",
       {{"idleFlowTimeout", 15},
        {"activeFlowTimeout", 60},
        {"collectorAddress", "10.1.2.3"},
        {"collectorPort", 4739},
        {"samplingRate", 4096},
        {"internalFlowsOnly", 1},
        {"collectorIsIpv6", 0},
        {"observationDomainId", 7},
        {"addressTail", "000000000000000000000001"}}},
      {"com.ostrel.etherswitch.cdp", {{"protocol", 1}, {"operation", 3}}},
      {"com.ostrel.common.teamcheck.deploy", {{"enable", 1}, {"interval", 60}}},
      {"com.ostrel.vswitch.port.vlan",
       {{"flags", 1},
        {"vlanId", 0},
        {"ranges", Fields::array({{{"start", 1}, {"end", 100}}, {{"start", 200}, {"end", 300}}})}}},
      {"com.ostrel.common.port.shaper.input",
       {{"averageBandwidth", 100000000},
        {"peakBandwidth", 18446744073709551615ull},
        {"burstSize", 15}}},
      {"com.ostrel.etherswitch.port.security", {{"rejectBits", 5}}},
      {"com.ostrel.common.host.uplinkPorts", {{"names", Fields::array({"1000", "1001"})}}},
   };
}

bool Same(const Fields &a, const Fields &b) {
   // Member order aside.
   return nlohmann::json::parse(a.dump()) == nlohmann::json::parse(b.dump());
}

TEST(PropertyCodecs, EveryKindRoundTripsAndRefusesValuesThatDoNotFit) {
   for (const Sample &s : Samples()) {
      SCOPED_TRACE(s.prop);
      const auto kind = CodecFor(s.prop);
      ASSERT_TRUE(kind.has_value());
      const CodecContext ctx{s.version};
      const Bytes value = EncodeProperty(*kind, s.fields, ctx);
      Fields back;
      std::string why;
      ASSERT_TRUE(DecodeProperty(*kind, value, ctx, back, why)) << why;
      EXPECT_TRUE(Same(back, s.fields)) << back.dump();
      EXPECT_EQ(EncodeProperty(*kind, back, ctx), value);

      // One byte short and one too many: never read past the end, never
      // taken for another layout.  A private VLAN map keeps the bytes after
      // its last whole entry apart instead.
      for (Bytes bad : {Bytes(value.begin(), value.end() - 1), value}) {
         if (bad.size() == value.size()) {
            bad.push_back(0);
         }
         why.clear();
         const bool decoded = DecodeProperty(*kind, bad, ctx, back, why);
         if (*kind == CodecKind::kPvlanMap) {
            EXPECT_TRUE(decoded && back.contains("trailing")) << bad.size();
         } else {
            EXPECT_FALSE(decoded) << bad.size() << " bytes";
            EXPECT_FALSE(why.empty());
         }
      }
   }
   EXPECT_FALSE(CodecFor("com.ostrel.common.port.alias").has_value());
}

TEST(PropertyCodecs, FieldsSitAtTheirLayoutOffsets) {
   const std::vector<Sample> samples = Samples();
   const Bytes teaming = EncodeProperty(CodecKind::kTeaming, samples[0].fields, {});
   ASSERT_EQ(teaming.size(), 2616u);
   uint16_t speed = 0;
   std::memcpy(&speed, &teaming[10], sizeof speed);
   EXPECT_EQ(speed, 1000);
   EXPECT_EQ(teaming[16], 2);  // active
   EXPECT_EQ(teaming[20], 1);  // standby
   EXPECT_EQ(std::string(reinterpret_cast<const char *>(&teaming[24 + 2 * 81])), "uplink3");

   // Mirror tables: 20-byte header, 232-byte sessions, port entries of 36
   // bytes below version 100 and 52 from it on.
   const Bytes narrow = EncodeProperty(CodecKind::kMirrorSessions, samples[4].fields, {6});
   const Bytes wide = EncodeProperty(CodecKind::kMirrorSessions, samples[4].fields, {100});
   EXPECT_EQ(narrow.size(), 20u + 3 * 232 + 8 * 36);
   EXPECT_EQ(wide.size(), 20u + 3 * 232 + 8 * 52);
   uint32_t firstPort = 0;
   std::memcpy(&firstPort, &narrow[20 + 232 + 228], sizeof firstPort);
   EXPECT_EQ(firstPort, 3u);  // the second session's ports follow the first's three
   EXPECT_EQ(narrow[20 + 3 * 232 + 5 * 36 + 4], 44);  // its source VLAN 300, low byte

   const Bytes ipfix = EncodeProperty(CodecKind::kIpfix, samples[6].fields, {});
   EXPECT_EQ(ipfix[8], 10);
   EXPECT_EQ(ipfix[24] | ipfix[25] << 8, 4739);
   EXPECT_EQ(ipfix[27], 0x10);  // 4096 at the unaligned offset 26
   EXPECT_EQ(EncodeProperty(CodecKind::kPortVlan, samples[9].fields, {}).size(), 16u);
}

TEST(PropertyCodecs, EncodeRefusesFieldsThatDoNotFit) {
   const std::vector<Sample> samples = Samples();
   auto refused = [](CodecKind kind, Fields fields, const std::string &needle) {
      try {
         EncodeProperty(kind, fields, {});
         ADD_FAILURE() << "accepted " << fields.dump();
      } catch (const Error &e) {
         EXPECT_NE(std::string(e.what()).find(needle), std::string::npos) << e.what();
      }
   };
   Fields f = samples[0].fields;
   f.erase("speed");
   refused(CodecKind::kTeaming, f, "teaming: missing \"speed\"");
   f = samples[0].fields;
   f["speed"] = 70000;
   refused(CodecKind::kTeaming, f, "70000 is above 65535");
   f["speed"] = -1;
   refused(CodecKind::kTeaming, f, "not an unsigned integer");
   f = samples[0].fields;
   f["active"] = Fields::array({std::string(81, 'x')});
   refused(CodecKind::kTeaming, f, "teaming.active[0]");
   f["active"] = Fields(std::vector<std::string>(33, "u"));
   refused(CodecKind::kTeaming, f, "33 entries, at most 32");
   f = samples[6].fields;
   f["collectorAddress"] = "fd00::1";
   refused(CodecKind::kIpfix, f, "is not an IPv4 address");
   refused(CodecKind::kSecurity, Fields::array(), "not an object");
}

}  // namespace
}  // namespace dvsctl
