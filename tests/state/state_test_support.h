// Shared by the switch-state tests: a fixture that empties the registry
// around each test, lists and hand-made blobs from name/value pairs, walks
// as text, and stdout capture.
#ifndef STATE_TEST_SUPPORT_H
#define STATE_TEST_SUPPORT_H

#include <dvsstate.h>
#include <gtest/gtest.h>
#include <hostlibs.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/blob_layout.h"
#include "tests/support/le_bytes.h"
#include "tests/support/prop_lists.h"
#include "tests/support/temp_dir.h"

namespace statetest {

using Ids = std::vector<std::string>;
// Lists on the process allocator, as the registry's own lists are.
using testsupport::Decode;
using testsupport::Entries;
using testsupport::Names;
using testsupport::NewList;
using testsupport::Props;
using testsupport::U32;

// A property blob composed from the layout (tests/support/blob_layout.h),
// every record with `flag`.
inline std::string Blob(const Props &props, uint32_t flag = 0x10) {
   std::vector<testsupport::Rec> recs;
   for (const auto &[name, data] : props)
      recs.push_back({name, flag, data});
   const testsupport::Blob b = testsupport::MakeBlob(recs);
   return std::string(b.bytes.begin(), b.bytes.end());
}

// The ports of a switch in walk order, as "id/type".
inline Ids Ports(DVSwitch *dvs) {
   Ids out;
   DVSState_PortForEach(
      dvs,
      [](DVSPort *p, void *o) {
         return ((Ids *)o)->push_back(p->id + ("/" + std::to_string(p->portType))), false;
      },
      &out);
   return out;
}

inline Ids Switches() {
   Ids out;
   DVSState_SwitchForEach([](DVSwitch *d, void *o) { return ((Ids *)o)->push_back(d->id), false; },
                          &out);
   return out;
}

using testsupport::HostBlob;

// Standard output of f() run at this debug level.
template <class F>
std::string Captured(int level, F f) {
   return testsupport::CapturedStdout([&] {
      dvs_debug = level;
      f();
      dvs_debug = -1;
   });
}

template <class... A>
std::string Fmt(const char *fmt, A... args) {
   char buf[512];
   return std::string(buf, std::snprintf(buf, sizeof buf, fmt, args...));
}

class StateTest : public testing::Test {
  protected:
   void SetUp() override { ASSERT_EQ(DVSState_ConfigReset(), STATUS_OK); }
   void TearDown() override { EXPECT_EQ(DVSState_ConfigReset(), STATUS_OK); }
};

}  // namespace statetest

#endif
