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

namespace statetest {

using Props = std::vector<std::pair<std::string, std::string>>;
using Ids = std::vector<std::string>;

// A 32-bit value in the host's byte order, as blobs hold it.
inline std::string U32(uint32_t v) {
   return std::string(reinterpret_cast<const char *>(&v), 4);
}

// A list on the process allocator, as the registry's own lists are.
inline DVSDataHandle NewList(const Props &props = {}, uint32_t flag = 0x20) {
   DVSDataHandle h = nullptr;
   EXPECT_EQ(DVSData_Alloc(&h, malloc, free), STATUS_OK);
   for (const auto &[name, value] : props)
      EXPECT_EQ(DVSData_Append(h, name.c_str(), value.data(), (uint32_t)value.size(), flag), 0u);
   return h;
}

// A property blob composed from the layout: length, checksum, version 1,
// reserved; records of serialLen = (dataLen + 146) & ~3, name[128], flag,
// dataLen, data, padding; four zero bytes.  Unused bytes are zero.
inline std::string Blob(const Props &props, uint32_t flag = 0x10) {
   std::string b(12, '\0');
   for (const auto &[name, data] : props) {
      const uint32_t serialLen = uint32_t(data.size() + 146) & ~3u;
      b += U32(serialLen) + name + std::string(128 - name.size(), '\0') + U32(flag) +
           U32(uint32_t(data.size())) + data + std::string(serialLen - 140 - data.size(), '\0');
   }
   b += U32(0);
   b.replace(0, 4, U32(uint32_t(b.size())));
   b[8] = 1;
   return b.replace(4, 4, U32(DVSDataChecksum(b.data())));
}

inline Props Entries(DVSDataHandle h) {
   Props out;
   for (DVSDataEntry *e = h ? h->head : nullptr; e; e = e->next)
      out.emplace_back(e->name, std::string((const char *)e->data, e->dataLen));
   return out;
}

// The records of a blob, whatever their flags.
inline Props Decode(const std::string &blob) {
   DVSDataHandle h = nullptr;
   if (DVSData_DeserializeWithPropType(&h, blob.data(), (uint32_t)blob.size(), malloc, free, ~0u))
      return ADD_FAILURE() << "blob does not decode", Props{};
   const Props out = Entries(h);
   DVSData_Free(h);
   return out;
}

inline Ids Names(const Props &props) {
   Ids out;
   for (const auto &p : props)
      out.push_back(p.first);
   return out;
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

inline std::string HostBlob() {
   void *blob = nullptr;
   uint32_t len = 0;
   EXPECT_EQ(DVSState_ConfigSerialize(&blob, &len), STATUS_OK);
   const std::string out(static_cast<const char *>(blob), blob ? len : 0);
   free(blob);
   return out;
}

// Standard output of f() run at this debug level.
template <class F>
std::string Captured(int level, F f) {
   std::fflush(stdout);
   testing::internal::CaptureStdout();
   dvs_debug = level;
   f();
   dvs_debug = -1;
   std::fflush(stdout);
   return testing::internal::GetCapturedStdout();
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
