// The host blob view of dvsctl_core, over blobs the switch library writes
// and over hand-made damaged ones.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include <dvsstate.h>

#include "host_blob_view.h"
#include "property_list.h"

namespace dvsctl {
namespace {

PropertyListBuilder PortData(const char *alias, uint32_t type) {
   PropertyListBuilder data;
   data.AppendString(DVS_PROP_PORT_ALIAS, alias, 0x20);
   if (type != 0) {
      data.AppendU32(DVS_PROP_PORT_TYPE, type, 0x20);
   }
   return data;
}

bool HostView(const Bytes &blob, HostBlobView &view, std::string &reason) {
   BlobTree tree;
   EXPECT_EQ(DecodeBlobTree(blob, tree), STATUS_OK);
   return BuildHostBlobView(tree, view, reason);
}

// The registry is process-wide: leave it empty for the next test.
class HostBlobViewTest : public testing::Test {
  protected:
   void TearDown() override { EXPECT_EQ(DVSState_ConfigReset(), STATUS_OK); }
};

TEST_F(HostBlobViewTest, ReadsTheRegistryBlobAsSwitchesAndPorts) {
   ASSERT_EQ(DVSState_SwitchAdd("sw-a", "labswitch", 8, 100), STATUS_OK);
   ASSERT_EQ(DVSState_GlobalPropSet("sw-a", DVS_PROP_SWITCH_ALIAS, "dvs-a", 6, 0x20), STATUS_OK);
   ListPtr active = PortData("web", 0).Release();
   ASSERT_EQ(DVSState_PortAdd("sw-a", "p1", active.get()), STATUS_OK);
   active.release();  // the port owns it now
   const Bytes shadow = PortData("web", DVS_PORT_SHADOW).Serialize();
   ASSERT_EQ(DVSState_PortAddShadow("sw-a", "p1", shadow.data(), shadow.size()), STATUS_OK);
   ListPtr zombie = PropertyListBuilder().AppendU32(DVS_PROP_PORT_TYPE, 3, 0x20).Release();
   ASSERT_EQ(
      DVSStatePortAdd(DVSState_SwitchFind("sw-a"), "p2", zombie.get(), DVS_PORT_ZOMBIE, nullptr),
      STATUS_OK);
   zombie.release();

   void *raw = nullptr;
   uint32_t len = 0;
   ASSERT_EQ(DVSState_ConfigSerialize(&raw, &len), STATUS_OK);
   const Bytes blob(static_cast<uint8_t *>(raw), static_cast<uint8_t *>(raw) + len);
   std::free(raw);

   HostBlobView view;
   std::string reason;
   ASSERT_TRUE(HostView(blob, view, reason)) << reason;
   ASSERT_EQ(view.switches.size(), 1u);
   const SwitchView &a = view.switches[0];
   EXPECT_EQ(a.id, "sw-a");
   EXPECT_EQ(a.className, "labswitch");
   EXPECT_EQ(a.version, 100u);
   EXPECT_EQ(a.maxPorts, 8u);
   EXPECT_EQ(a.alias, "dvs-a");
   EXPECT_TRUE(a.problems.empty());
   ASSERT_EQ(a.ports.size(), 3u) << "ports sharing an id are all kept";
   EXPECT_EQ(a.ports[0].id + "/" + a.ports[0].type, "p1/active?");
   EXPECT_EQ(a.ports[1].id + "/" + a.ports[1].type, "p1/shadow");
   EXPECT_EQ(a.ports[2].id + "/" + a.ports[2].type, "p2/zombie");
   EXPECT_EQ(a.ports[1].alias, "web");
   EXPECT_EQ(a.ports[2].alias, std::nullopt);
   const auto json = RenderHostJson(view)["switches"][0];
   EXPECT_EQ(json["ports"][1]["type"], "shadow");
   EXPECT_TRUE(json["ports"][2]["alias"].is_null());
}

TEST_F(HostBlobViewTest, ShowsMalformedFieldsAsInvalidAndRefusesOtherBlobs) {
   const Bytes shortType =
      PropertyListBuilder().Append(DVS_PROP_PORT_TYPE, Bytes{2}, 0x20).Serialize();
   const Bytes badSwitch = PropertyListBuilder()
                              .Append("switchVersion", Bytes{6, 0}, 0x10)
                              .AppendString("className", std::string(128, 'c'), 0x10)
                              .Append("globalPropList", Bytes{1, 2, 3}, 0x10)
                              .Append("p1", Bytes{1, 2, 3}, 0x10)
                              .Append("p2", shortType, 0x10)
                              .Serialize();
   HostBlobView view;
   std::string reason;
   ASSERT_TRUE(
      HostView(PropertyListBuilder().Append("sw", badSwitch, 0x10).Serialize(), view, reason))
      << reason;
   const SwitchView &sw = view.switches[0];
   EXPECT_FALSE(sw.version || sw.className || sw.maxPorts);
   for (const char *problem :
        {"switchVersion: 2 bytes, expected 4", "className: 129 bytes, expected 1 to 128",
         "maxPorts: missing", "globalPropList: not a property blob (3 bytes)"}) {
      EXPECT_NE(std::find(sw.problems.begin(), sw.problems.end(), problem), sw.problems.end())
         << problem;
   }
   EXPECT_EQ(sw.ports[0].type, "invalid");
   EXPECT_EQ(sw.ports[1].type, "invalid");
   EXPECT_EQ(sw.ports[1].problems, std::vector<std::string>{"type: 1 bytes, expected 4"});
   // What a reader of whole switches refuses: not a bad port type.
   EXPECT_EQ(sw.missing, (std::vector<std::string>{"maxPorts", "hostPropList"}));
   EXPECT_EQ(sw.unreadable,
             (std::vector<std::string>{"switchVersion: 2 bytes, expected 4",
                                       "className: 129 bytes, expected 1 to 128",
                                       "globalPropList: not a property blob (3 bytes)",
                                       "port p1: port data: not a property blob (3 bytes)"}));
   const std::string text = RenderHostText(view);
   EXPECT_NE(text.find("class <invalid>  version <invalid>  maxPorts <invalid>"), std::string::npos)
      << text;

   EXPECT_FALSE(HostView(badSwitch, view, reason));
   EXPECT_NE(reason.find("looks like a single switch blob"), std::string::npos) << reason;
   EXPECT_FALSE(
      HostView(PropertyListBuilder().Append("sw", shortType, 0x10).Serialize(), view, reason));
   EXPECT_NE(reason.find("record \"sw\" is not a switch blob (no switchVersion)"),
             std::string::npos)
      << reason;
}

}  // namespace
}  // namespace dvsctl
