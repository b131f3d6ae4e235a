// A realistic host's whole trip through the configuration store: the
// sample host (dvsctl's builder: five switches of four classes, 300 ports,
// every structured property) loaded into a kernel (the simulator, served
// in this process), its persistent state saved to a fresh store, the host
// blob loaded back, a fresh kernel initialised from it, and the two states
// compared field by field.  Nothing may differ but the documented
// conversions, and the ones this host must show have to show: a converter
// that starts losing a field, or stops converting one, fails here.
#include <string>

#include "property_codecs.h"
#include "sample_host.h"
#include "state_diff.h"
#include "tests/configstore/kernel_store_support.h"

namespace dvsctl {
namespace {

using kernelstore::KernelState;
using kernelstore::LoadFromStore;
using HostRoundTripTest = kernelstore::KernelStoreTest;

size_t Count(const DiffReport &report, const char *conversion) {
   const auto it = report.summary.byConversion.find(conversion);
   return it == report.summary.byConversion.end() ? 0 : it->second;
}

HostProp *Find(HostState &host, const std::string &name) {
   for (HostSwitch &sw : host.switches) {
      for (HostPort &port : sw.ports) {
         for (HostProp &p : port.props) {
            if (p.name == name) {
               return &p;
            }
         }
      }
   }
   return nullptr;
}

TEST_F(HostRoundTripTest, RealisticHostComesBackUpToTheDocumentedConversions) {
   StartKernel();
   const Bytes sample = BuildSampleHost({});
   ASSERT_EQ(DVSHYP_StateInit(sample.data(), uint32_t(sample.size())), STATUS_OK);
   const HostState before = KernelState(true);

   ASSERT_EQ(DVSState_SaveToConfigStore(), 0);
   const Bytes loaded = LoadFromStore(false);
   StartKernel();
   ASSERT_EQ(DVSHYP_StateInit(loaded.data(), uint32_t(loaded.size())), STATUS_OK);
   const HostState after = KernelState(false);

   const DiffReport report = DiffHosts(before, after);
   EXPECT_EQ(report.summary.switches, 5u);
   EXPECT_EQ(report.summary.ports, 300u);
   EXPECT_EQ(report.summary.unexpected, 0u) << RenderDiffText(report, true);

   // Every property of the persistent state comes back (with the store's
   // flag), none is lost.
   size_t props = 0;
   for (const HostSwitch &sw : before.switches) {
      props += sw.global.size() + sw.host.size();
      for (const HostPort &port : sw.ports) {
         props += port.props.size();
      }
   }
   EXPECT_EQ(Count(report, "flag"), props);

   // The conversions this host must show.
   for (const char *id :
        {"alias-from-id", "mtu-shared-key", "pvlan-form", "mirror-rows-share-key",
         "teaming-policy-4-5", "teaming-criteria-present", "teaming-criteria-values",
         "mirror-packet-length", "mirror-legacy-inverted", "mirror-no-normal-traffic",
         "mirror-vlans-not-read", "mirror-addresses-not-read", "mirror-destination-order",
         "health-check-enable", "vlan-empty-trunk"}) {
      EXPECT_GT(Count(report, id), 0u) << id << " no longer shows";
   }
   // One switch without an alias; the private VLAN maps of the version 7
   // vswitch and the version 107 zltvswitch change their names; every
   // switch has one remote mirror destination and one encapsulated source.
   EXPECT_EQ(Count(report, "alias-from-id"), 1u);
   EXPECT_EQ(Count(report, "pvlan-form"), 2u);
   EXPECT_EQ(Count(report, "mirror-vlans-not-read"), 5u);
   EXPECT_EQ(Count(report, "mirror-addresses-not-read"), 5u);

   // What the store must keep, changed behind its back, is reported: a
   // number it keeps, a teaming speed that is neither 0 nor its low byte,
   // and a property gone.
   HostState tampered = after;
   HostProp *cookie = Find(tampered, "com.ostrel.common.port.connectid");
   HostProp *teaming = Find(tampered, "com.ostrel.etherswitch.port.teaming");
   ASSERT_TRUE(cookie != nullptr && teaming != nullptr);
   cookie->value[0] ^= 1;
   Fields fields;
   std::string why;
   ASSERT_TRUE(DecodeProperty(CodecKind::kTeaming, teaming->value, {}, fields, why)) << why;
   fields["speed"] = 5;
   teaming->value = EncodeProperty(CodecKind::kTeaming, fields, {});
   tampered.switches[1].ports[7].props.pop_back();
   const DiffReport caught = DiffHosts(before, tampered);
   EXPECT_EQ(caught.summary.unexpected, 3u) << RenderDiffText(caught, true);
   EXPECT_EQ(caught.summary.unexpectedProps, 3u);
}

}  // namespace
}  // namespace dvsctl
