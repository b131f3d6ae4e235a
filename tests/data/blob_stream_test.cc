// The host blob written piece by piece: the same bytes as the lists it
// stands for, serialized, whatever the first estimate of its size; and
// nothing leaked or half-handed-over when memory runs out.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "data/blob_stream.h"
#include "data/property_list.h"
#include "tests/support/prop_lists.h"
#ifdef DVS_TEST_ALLOC_FAILURE
#include "tests/support/alloc_interposer.h"
#endif

namespace {

using testsupport::NewList;
using testsupport::Props;

// Values of every length from 0 to 6, so that every amount of record
// padding occurs, and a few longer ones (one of them 2 KB, as a port's
// teaming record is).
Props PortProps(int port) {
   Props props;
   for (int i = 0; i < 9; i++) {
      const size_t len = i < 7   ? static_cast<size_t>(i)
                         : i < 8 ? 2048u + static_cast<size_t>(port % 5)
                                 : 40u + static_cast<size_t>(port % 5);
      props.emplace_back("prop-" + std::to_string(i), std::string(len, static_cast<char>('a' + port % 26)));
   }
   return props;
}

struct Switch {
   std::string uuid;
   Props head;   // the switch's own records
   int ports;
   bool whole;   // added as one list instead of record by record
};

// The host as lists: switch lists holding their ports' blobs, the host
// list holding the switches' blobs, serialized.
std::string Expected(const std::vector<Switch> &switches) {
   DVSDataHandle host = NewList();
   for (const Switch &sw : switches) {
      DVSDataHandle list = NewList(sw.head, 0x10);
      for (int p = 0; p < sw.ports; p++) {
         DVSDataHandle port = NewList(PortProps(p), 0x10);
         EXPECT_EQ(dvs::data::UpdateWithListBlob(list, ("port-" + std::to_string(p)).c_str(), port,
                                                 6, 0x10, true),
                   STATUS_OK);
         DVSData_Free(port);
      }
      EXPECT_EQ(dvs::data::UpdateWithListBlob(host, sw.uuid.c_str(), list, 6, 0x10, true),
                STATUS_OK);
      DVSData_Free(list);
   }
   void *blob = nullptr;
   uint32_t len = 0;
   EXPECT_EQ(DVSData_Serialize(host, &blob, &len, 9), STATUS_OK);
   std::string out(static_cast<char *>(blob), len);
   free(blob);
   DVSData_Free(host);
   return out;
}

// The ports' keys and properties, made ahead so that a stream run
// allocates nothing of its own beyond the lists it builds.
struct PortInputs {
   std::vector<std::string> keys;
   std::vector<Props> props;
   explicit PortInputs(int count) {
      for (int p = 0; p < count; p++) {
         keys.push_back("port-" + std::to_string(p));
         props.push_back(PortProps(p));
      }
   }
};

// The same through a stream: the status of the first step that failed,
// and on success the blob (released with free()).
ReturnStatus Stream(const std::vector<Switch> &switches, const PortInputs &in, uint32_t hint,
                    void **blob, uint32_t *len) {
   dvs::data::BlobStream stream(hint);
   for (const Switch &sw : switches) {
      DVSDataHandle head = nullptr;
      if (DVSData_Alloc(&head, malloc, free) != STATUS_OK)
         return STATUS_NO_MEMORY;
      ReturnStatus st = STATUS_OK;
      for (const auto &[name, value] : sw.head)
         if (st == STATUS_OK)
            st = DVSData_Append(head, name.c_str(), value.data(), uint32_t(value.size()), 0x10);
      if (st == STATUS_OK && !sw.whole)
         st = stream.OpenNested(sw.uuid.c_str(), 0x10, head);
      for (int p = 0; st == STATUS_OK && p < sw.ports; p++) {
         DVSDataHandle port = nullptr;
         st = DVSData_Alloc(&port, malloc, free);
         for (const auto &[name, value] : in.props[size_t(p)])
            if (st == STATUS_OK)
               st = DVSData_Append(port, name.c_str(), value.data(), uint32_t(value.size()), 0x10);
         const char *key = in.keys[size_t(p)].c_str();
         if (st == STATUS_OK)
            st = sw.whole ? dvs::data::UpdateWithListBlob(head, key, port, 6, 0x10, true)
                          : stream.AppendListBlob(key, 0x10, port);
         DVSData_Free(port);
      }
      if (st == STATUS_OK)
         st = sw.whole ? stream.AppendListBlob(sw.uuid.c_str(), 0x10, head) : stream.CloseNested();
      DVSData_Free(head);
      if (st != STATUS_OK)
         return st;
   }
   return stream.Finish(blob, len);
}

ReturnStatus Streamed(const std::vector<Switch> &switches, uint32_t hint, std::string *out) {
   const PortInputs in(2000);
   void *blob = nullptr;
   uint32_t len = 0;
   const ReturnStatus st = Stream(switches, in, hint, &blob, &len);
   if (st == STATUS_OK)
      out->assign(static_cast<char *>(blob), len);
   free(blob);
   return st;
}

const std::vector<Switch> kHost = {
   {"sw-a", {{"switchVersion", std::string(4, '\6')}, {"className", "vswitch"}}, 120, false},
   {"sw-b", {{"switchVersion", std::string(4, '\7')}}, 3, true},
   {"sw-c", {}, 0, false},  // no records of its own and no ports
   {std::string(140, 'u'), {{"maxPorts", "abcd"}}, 90, false},  // a name cut to 127
};

TEST(BlobStreamTest, GivesTheSerializedBytesWhateverTheFirstEstimate) {
   const std::string want = Expected(kHost);
   ASSERT_GT(want.size(), 128u * 1024) << "large enough to make the stream grow";
   const uint32_t exact = uint32_t(want.size());
   for (uint32_t hint : {0u, 1000u, exact - 4, exact, exact + 4, 4 * exact, 64u << 20}) {
      std::string got;
      ASSERT_EQ(Streamed(kHost, hint, &got), STATUS_OK) << hint;
      EXPECT_EQ(got, want) << "estimate " << hint;
   }
   // Past a few megabytes the buffer grows by a quarter at a time.
   const std::vector<Switch> large = {{"sw-large", {{"className", "vswitch"}}, 2000, false},
                                      kHost[1], {"sw-last", {}, 2000, false}};
   const std::string wantLarge = Expected(large);
   ASSERT_GT(wantLarge.size(), 6u << 20);
   for (uint32_t hint : {0u, 5u << 20}) {
      std::string got;
      ASSERT_EQ(Streamed(large, hint, &got), STATUS_OK) << hint;
      EXPECT_EQ(got, wantLarge) << "estimate " << hint;
   }
   // A host without switches is the empty blob.
   std::string empty;
   ASSERT_EQ(Streamed({}, 0, &empty), STATUS_OK);
   EXPECT_EQ(empty, Expected({}));
}

TEST(BlobStreamTest, StepsOutOfOrderAreRefused) {
   DVSDataHandle list = NewList({{"a", "1"}});
   dvs::data::BlobStream stream(0);
   void *blob = nullptr;
   uint32_t len = 0;
   EXPECT_EQ(stream.CloseNested(), STATUS_BAD_PARAM) << "nothing open";
   ASSERT_EQ(stream.OpenNested("sw", 0x10, list), STATUS_OK);
   EXPECT_EQ(stream.OpenNested("sw2", 0x10, list), STATUS_BAD_PARAM) << "one open at a time";
   EXPECT_EQ(stream.Finish(&blob, &len), STATUS_BAD_PARAM) << "still open";
   EXPECT_EQ(blob, nullptr);
   EXPECT_EQ(stream.AppendListBlob(nullptr, 0x10, list), STATUS_BAD_PARAM);
   EXPECT_EQ(stream.AppendListBlob("p", 0x10, nullptr), STATUS_BAD_PARAM);
   ASSERT_EQ(stream.AppendListBlob("p", 0x10, list), STATUS_OK);
   ASSERT_EQ(stream.CloseNested(), STATUS_OK);
   ASSERT_EQ(stream.Finish(&blob, &len), STATUS_OK);
   // What came out decodes to the nesting that went in.
   const std::string host(static_cast<char *>(blob), len);
   free(blob);
   const Props top = testsupport::Decode(host);
   ASSERT_EQ(testsupport::Names(top), std::vector<std::string>{"sw"});
   const Props sw = testsupport::Decode(top[0].second);
   EXPECT_EQ(testsupport::Names(sw), (std::vector<std::string>{"a", "p"}));
   EXPECT_EQ(testsupport::Decode(sw[1].second), (Props{{"a", "1"}}));
   DVSData_Free(list);
}

#ifdef DVS_TEST_ALLOC_FAILURE
// Every allocation of a streamed host failing in turn, the stream's first
// buffer and each time it grows among them: a clean NO_MEMORY, no block
// left behind, and the run after it whole again.
TEST(BlobStreamTest, RunningOutOfMemoryLeavesNothingBehind) {
   const std::vector<Switch> host = {kHost[0], kHost[1]};
   const std::string want = Expected(host);
   for (uint32_t hint : {0u, uint32_t(want.size()) + 64}) {
      const PortInputs in(200);
      const int failures = allocfail::ForEachFailure([&](long n) {
         void *blob = nullptr;
         uint32_t len = 0;
         const ReturnStatus st =
            allocfail::FailingAt(n, [&] { return Stream(host, in, hint, &blob, &len); });
         const std::string got(static_cast<char *>(blob), st == STATUS_OK ? len : 0);
         free(blob);
         if (!allocfail::Injected()) {
            EXPECT_EQ(st, STATUS_OK);
            EXPECT_EQ(got, want);
            return;
         }
         // The stream's estimate failing is retried smaller.
         if (st == STATUS_OK)
            EXPECT_EQ(got, want) << "failure at " << n;
         else
            EXPECT_EQ(st, STATUS_NO_MEMORY) << "failure at " << n;
         EXPECT_EQ(allocfail::Live(), 0) << "failure at " << n;
      });
      EXPECT_GT(failures, 1000) << hint;
   }
}
#endif

}  // namespace
