// The host comparison: each kind of difference is classified as the
// documented conversion it is, and only when both sides hold the values
// that conversion produces; host blobs are read, and refused, as such.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "error.h"
#include "property_codecs.h"
#include "property_list.h"
#include "state_diff.h"
#include "tests/support/le_bytes.h"

namespace dvsctl {
namespace {

constexpr uint32_t kStored = 0x10;

constexpr auto Text = testsupport::TextBytes;

HostProp P(const std::string &name, const Fields &fields, uint32_t flag = kStored) {
   return {name, flag, EncodeProperty(*CodecFor(name), fields, {7})};
}

HostProp T(const std::string &name, const std::string &text, uint32_t flag = kStored) {
   return {name, flag, Text(text)};
}

// Switch "sw" of `cls`, version 7, with `global` properties and one port
// "7" holding `port`.
HostState Host(const std::string &cls, std::vector<HostProp> global, std::vector<HostProp> port) {
   return {{{"sw", 7, cls, 64, std::move(global), {}, {{"7", std::move(port)}}}}};
}

const Fields kTeaming = {{"policy", 4},
                         {"failureFlags", 0x80},
                         {"percentage", 0},
                         {"fullDuplex", 0},
                         {"speed", 1000},
                         {"teamingFlags", 0x22},
                         {"active", Fields::array({"u1"})},
                         {"standby", Fields::array({"u2"})}};

Fields With(Fields f, const std::string &key, const Fields &value) {
   f[key] = value;
   return f;
}

Fields Mirror(uint32_t type, uint32_t flags, const Fields &receive) {
   const Fields session = {{"key", "s"},
                           {"name", "n"},
                           {"sessionType", type},
                           {"mirroredPacketLength", 0xFFFFFFFFu},
                           {"sessionFlags", flags},
                           {"encapsulationVlanId", 0},
                           {"recvWildcardTypes", 0},
                           {"transmitWildcardTypes", 0},
                           {"samplingRate", 1},
                           {"encapType", 0},
                           {"erspanId", 0},
                           {"erspanCos", 0},
                           {"erspanGraNanosec", 0},
                           {"destination", Fields::array({{{"kind", 0}, {"text", "9"}}})},
                           {"receive", receive},
                           {"transmit", Fields::array()}};
   return {{"magic", 0xFACEBEEFu}, {"version", 1}, {"sessions", Fields::array({session})}};
}

struct Case {
   const char *what;
   HostState before;
   HostState after;
   const char *conversion;  // every difference's; null: all unexpected
};

TEST(StateDiff, ClassifiesOnlyWhatTheConversionProduces) {
   const char *teaming = "com.ostrel.etherswitch.port.teaming";
   const char *mirror = "com.ostrel.vswitch.port.mirrorSessions";
   const Fields vlan = {{"flags", 0}, {"vlanId", 10}, {"ranges", Fields::array()}};
   const Fields text = Fields::array({{{"kind", 0}, {"text", "8"}}});
   const Fields vlans = Fields::array({{{"kind", 0}, {"vlan", 300}}});
   const Fields none = Fields::array();
   auto port = [](std::vector<HostProp> props) { return Host("etherswitch", {}, props); };
   const std::vector<Case> cases = {
      {"policy 4 to 5", port({P(teaming, kTeaming)}),
       port({P(teaming, With(kTeaming, "policy", 5))}), "teaming-policy-4-5"},
      {"policy 4 to 3", port({P(teaming, kTeaming)}),
       port({P(teaming, With(kTeaming, "policy", 3))}), nullptr},
      {"speed to 0", port({P(teaming, kTeaming)}), port({P(teaming, With(kTeaming, "speed", 0))}),
       "teaming-criteria-values"},
      {"speed to its low byte", port({P(teaming, kTeaming)}),
       port({P(teaming, With(kTeaming, "speed", 232))}), "teaming-speed-8-bits"},
      {"speed to 7", port({P(teaming, kTeaming)}), port({P(teaming, With(kTeaming, "speed", 7))}),
       nullptr},
      {"criteria present", port({P(teaming, kTeaming)}),
       port({P(teaming, With(kTeaming, "failureFlags", 0x280))}), "teaming-criteria-present"},
      {"link-state check lost", port({P(teaming, kTeaming)}),
       port({P(teaming, With(kTeaming, "failureFlags", 0))}), nullptr},
      {"legacy bit", port({P(mirror, Mirror(1, 0, text))}),
       port({P(mirror, Mirror(1, 0x10, text))}), "mirror-legacy-inverted"},
      {"0x02 with 0x01", port({P(mirror, Mirror(1, 0x11, text))}),
       port({P(mirror, Mirror(1, 0x13, text))}), "mirror-no-normal-traffic"},
      {"original VLAN kept no more", port({P(mirror, Mirror(1, 0x14, text))}),
       port({P(mirror, Mirror(1, 0x10, text))}), nullptr},
      {"remote destination VLANs", port({P(mirror, Mirror(3, 0, vlans))}),
       port({P(mirror, Mirror(3, 0, none))}), "mirror-vlans-not-read"},
      {"port mirror sources", port({P(mirror, Mirror(1, 0, text))}),
       port({P(mirror, Mirror(1, 0, none))}), nullptr},
      {"vlan named by the family",
       Host("vswitch", {}, {P("com.ostrel.etherswitch.port.vlan", vlan)}),
       Host("vswitch", {}, {P("com.ostrel.vswitch.port.vlan", vlan)}), "family-row-renamed"},
      {"vlan renamed on an etherswitch", port({P("com.ostrel.etherswitch.port.vlan", vlan)}),
       port({P("com.ostrel.vswitch.port.vlan", vlan)}), nullptr},
      {"empty trunk",
       port({P("com.ostrel.etherswitch.port.vlan", With(With(vlan, "flags", 1), "vlanId", 0))}),
       port({P("com.ostrel.etherswitch.port.vlan", With(vlan, "vlanId", 0))}), "vlan-empty-trunk"},
      {"vlan id", port({P("com.ostrel.etherswitch.port.vlan", vlan)}),
       port({P("com.ostrel.etherswitch.port.vlan", With(vlan, "vlanId", 20))}), nullptr},
      {"trunk id", port({P("com.ostrel.etherswitch.port.vlan", With(vlan, "flags", 1))}),
       port({P("com.ostrel.etherswitch.port.vlan", With(With(vlan, "flags", 1), "vlanId", 0))}),
       "vlan-trunk-id"},
      {"alias from the id", Host("cswitch", {}, {}),
       Host("cswitch", {T("com.ostrel.common.alias", "sw")}, {}), "alias-from-id"},
      {"alias from elsewhere", Host("cswitch", {}, {}),
       Host("cswitch", {T("com.ostrel.common.alias", "x")}, {}), nullptr},
      {"volatile lost", port({T("com.ostrel.common.port.volatile.stats", "rx=1")}), port({}),
       "volatile"},
      {"property lost", port({T("com.ostrel.common.port.alias", "a")}), port({}), nullptr},
      {"flag 0x20", port({T("com.ostrel.common.port.alias", "a", 0x20)}),
       port({T("com.ostrel.common.port.alias", "a")}), "flag"},
      {"flag 0x30", port({T("com.ostrel.common.port.alias", "a", 0x20)}),
       port({T("com.ostrel.common.port.alias", "a", 0x30)}), nullptr},
      {"block text", port({T("com.ostrel.common.port.block", "yes")}),
       port({T("com.ostrel.common.port.block", "false")}), "bool-text"},
      {"block true", port({T("com.ostrel.common.port.block", "true")}),
       port({T("com.ostrel.common.port.block", "false")}), nullptr},
      {"both mirror rows", port({P(mirror, Mirror(1, 0, text))}),
       port({P(mirror, Mirror(1, 0, text)),
             P("com.ostrel.etherswitch.port.mirrorSessions", Mirror(1, 0, text))}),
       "mirror-rows-share-key"},
   };
   for (const Case &c : cases) {
      SCOPED_TRACE(c.what);
      const DiffReport report = DiffHosts(c.before, c.after);
      ASSERT_FALSE(report.differences.empty());
      for (const Difference &d : report.differences) {
         EXPECT_STREQ(d.conversion != nullptr ? d.conversion->id : "(unexpected)",
                      c.conversion != nullptr ? c.conversion : "(unexpected)")
            << d.property << " " << d.field << ": " << d.before << " -> " << d.after;
      }
      EXPECT_EQ(report.summary.unexpected, c.conversion ? 0 : report.differences.size());
   }
}

TEST(StateDiff, SummaryCountsPropertiesAndRendersTheUnexpectedOnes) {
   const HostState before = Host(
      "etherswitch", {},
      {T("com.ostrel.common.port.alias", "a"), T("com.ostrel.common.port.portgroupid", "pg", 0x20),
       P("com.ostrel.common.teamcheck.deploy", {{"enable", 1}, {"interval", 5}}),
       T("com.ostrel.common.port.backingType", "standard")});
   HostState after = before;
   std::vector<HostProp> &props = after.switches[0].ports[0].props;
   props[1].flag = kStored;
   props[2] = P(props[2].name, {{"enable", 0}, {"interval", 5}});
   props[3] = T(props[3].name, "direct");
   const DiffReport report = DiffHosts(before, after);
   const DiffSummary &s = report.summary;
   EXPECT_EQ(s.properties, 4u);
   EXPECT_EQ(s.identical, 1u);
   EXPECT_EQ(s.flagOnly, 1u);
   EXPECT_EQ(s.documentedOnly, 1u);
   EXPECT_EQ(s.unexpectedProps, 1u);
   EXPECT_EQ(s.unexpected, 1u);

   const std::string text = RenderDiffText(report, true);
   EXPECT_NE(text.find("UNEXPECTED  -  switch sw port 7 com.ostrel.common.port.backingType: "
                       "\"standard\" -> \"direct\"\n"),
             std::string::npos)
      << text;
   EXPECT_EQ(text.find("documented  "), std::string::npos) << text;
   EXPECT_NE(text.find("       1  health-check-enable: "), std::string::npos) << text;
   const nlohmann::ordered_json json = RenderDiffJson(report, false);
   EXPECT_EQ(json["differences"].size(), 3u);
   EXPECT_EQ(json["summary"]["byConversion"]["flag"], 1);
}

TEST(StateDiff, ReadsHostBlobsAndRefusesOthers) {
   PropertyListBuilder port, global;
   port.AppendString("com.ostrel.common.port.alias", "vm-1", 0x20);
   global.AppendU32("com.ostrel.common.version", 108, 0x20);
   Bytes className(128, 0);
   className[0] = 'v';
   auto switchBlob = [&](bool withMaxPorts) {
      PropertyListBuilder sw;
      sw.AppendU32("switchVersion", 108, kStored).Append("className", className, kStored);
      if (withMaxPorts) {
         sw.AppendU32("maxPorts", 32, kStored);
      }
      sw.Append("globalPropList", global.Serialize(), kStored)
         .Append("hostPropList", PropertyListBuilder().Serialize(), kStored)
         .Append("7", port.Serialize(), kStored)
         .Append("7", port.Serialize(), kStored);
      PropertyListBuilder host;
      host.Append("sw-1", sw.Serialize(), kStored);
      return host.Serialize();
   };
   const HostState host = ReadHostState(switchBlob(true), "h");
   ASSERT_EQ(host.switches.size(), 1u);
   const HostSwitch &sw = host.switches[0];
   EXPECT_EQ(sw.id, "sw-1");
   EXPECT_EQ(sw.className, "v");
   EXPECT_EQ(sw.version, 108u);
   EXPECT_EQ(sw.maxPorts, 32u);
   ASSERT_EQ(sw.ports.size(), 2u);
   EXPECT_EQ(sw.ports[1].id, "7#2");
   EXPECT_EQ(sw.global.at(0).value.size(), 4u);
   EXPECT_EQ(sw.ports[0].props.at(0).value, Text("vm-1")) << "values as stored, NUL included";

   EXPECT_THROW(
      {
         try {
            ReadHostState(switchBlob(false), "h");
         } catch (const Error &e) {
            EXPECT_STREQ(e.what(), "h: switch sw-1: no maxPorts record, not a switch blob");
            throw;
         }
      },
      Error);
   Bytes damaged = switchBlob(true);
   damaged[40] ^= 0xff;
   EXPECT_THROW(ReadHostState(damaged, "h"), Error);
}

}  // namespace
}  // namespace dvsctl
