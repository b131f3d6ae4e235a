// Allocation failure in the switch-state calls, which use the process
// allocator.  This executable replaces malloc and friends (so it is not
// built with the sanitizers): the n-th allocation of the call under test
// fails, for n = 1, 2, ... until the call runs through.
#include "alloc_interposer.h"
#include "state_test_support.h"

using namespace statetest;
using allocfail::FailingAt;

namespace {

class StateAllocFailureTest : public StateTest {
  protected:
   void SetUp() override {
      dvs_debug = -1, dvsdata_debug = -1;
      StateTest::SetUp();
   }
};

// Every injected failure must give STATUS_NO_MEMORY (or `other`), leave
// the registry as it was (compared through its host blob) and leave no
// block behind.  op runs armed, then after(status) unarmed.  Returns how
// many failures were injected.
template <class Op, class After>
int EachFailure(Op op, After after, ReturnStatus other = STATUS_NO_MEMORY) {
   return allocfail::ForEachFailure([&](int n) {
      const std::string before = HostBlob();
      const ReturnStatus st = FailingAt(n, op);
      const bool injected = allocfail::Injected();
      const long live = allocfail::Live();
      after(st);
      if (!injected) {
         EXPECT_EQ(st, STATUS_OK) << "ran through";
         return;
      }
      EXPECT_TRUE(st == STATUS_NO_MEMORY || st == other) << n << ": 0x" << std::hex << st;
      EXPECT_EQ(live, 0) << "blocks leaked when allocation " << n << " failed";
      EXPECT_EQ(HostBlob(), before) << "registry changed when allocation " << n << " failed";
   });
}
template <class Op>
int EachFailure(Op op) {
   return EachFailure(op, [](ReturnStatus) {});
}

// A blob writer under every failure: a failed run hands out nothing and
// leaks nothing, the run that goes through writes exactly `want`.
template <class Write>
int EachWriterFailure(const std::string &want, Write write, ReturnStatus other = STATUS_NO_MEMORY) {
   void *b = nullptr;
   uint32_t len = 0;
   return EachFailure([&] { return write(&(b = nullptr), &len); },
                      [&](ReturnStatus st) {
                         if (st == STATUS_OK) {
                            EXPECT_EQ(std::string(static_cast<char *>(b), len), want);
                         } else {
                            EXPECT_EQ(b, nullptr);
                         }
                         free(b);
                      },
                      other);
}

// Three switches: plain, one of version 99 (nested lists through the type
// filter) and one with a port whose data carries its type across the blob
// (a read makes it a shadow port and drops the type record).
void BuildHost() {
   ASSERT_EQ(DVSState_SwitchAdd("base", "myclass", 10, 7), STATUS_OK);
   ASSERT_EQ(DVSState_PortAdd("base", "p0", NewList({{"k", "v"}})), STATUS_OK);
   ASSERT_EQ(DVSState_GlobalPropSet("base", "g", "1", 1, 0), STATUS_OK);
   ASSERT_EQ(DVSState_SwitchAdd("s99", "vswitch", 8, 99), STATUS_OK);
   ASSERT_EQ(DVSState_GlobalPropSet("s99", "kept", "abc", 3, 0x10), STATUS_OK);
   ASSERT_EQ(DVSState_GlobalPropSet("s99", "filtered", "x", 1, 0x4), STATUS_OK);
   ASSERT_EQ(DVSState_HostPropSet("s99", "h", "hh", 2, 0x10), STATUS_OK);
   ASSERT_EQ(DVSState_PortAdd("s99", "p1", NewList({{"a", "1"}, {"b", std::string(300, 'b')}})),
             STATUS_OK);
   ASSERT_EQ(DVSState_SwitchAdd("typed", "cswitch", 8, 100), STATUS_OK);
   ASSERT_EQ(DVSState_PortAdd("typed", "p2", NewList({{DVS_PROP_PORT_TYPE, U32(2)}, {"c", "3"}})),
             STATUS_OK);
   ASSERT_EQ(DVSState_PortAdd("typed", "p3", NewList()), STATUS_OK);
}

// The registry after reading `blob` into an empty one, which is left empty.
std::string AfterRead(const std::string &blob) {
   EXPECT_EQ(DVSState_ConfigReset(), STATUS_OK);
   EXPECT_EQ(DVSState_ConfigDeserialize(blob.data(), blob.size()), STATUS_OK);
   const std::string out = HostBlob();
   EXPECT_EQ(DVSState_ConfigReset(), STATUS_OK);
   return out;
}

TEST_F(StateAllocFailureTest, FailedCallsLeaveTheRegistryAsItWas) {
   BuildHost();
   EXPECT_GE(EachFailure([] { return DVSState_SwitchAdd("new", "myclass", 3, 100); }), 4);
   const std::string shadow = Blob({{"a", "1"}, {"b", "22"}});
   EXPECT_GE(EachFailure(
                [&] { return DVSState_PortAddShadow("base", "sh", shadow.data(), shadow.size()); }),
             3);
   EXPECT_EQ(DVSState_SwitchFind("base")->numPorts, 2u);
   // The host writer reports any failure inside a switch as STATUS_EXISTS.
   const std::string blob = HostBlob();
   EXPECT_GE(EachWriterFailure(blob, DVSState_ConfigSerialize, STATUS_EXISTS), 20);
   // A failed read empties the registry, so read into an empty one.
   const std::string want = AfterRead(blob);
   EXPECT_GE(EachFailure([&] { return DVSState_ConfigDeserialize(blob.data(), blob.size()); }), 40);
   EXPECT_EQ(HostBlob(), want);
}

TEST_F(StateAllocFailureTest, SwitchAndPortBlobs) {
   BuildHost();
   // Once read back, the typed port is a shadow port without its type record.
   const std::string first = HostBlob();
   ASSERT_EQ(DVSState_ConfigReset(), STATUS_OK);
   ASSERT_EQ(DVSState_ConfigDeserialize(first.data(), first.size()), STATUS_OK);
   for (const char *id : {"base", "s99", "typed"}) {
      DVSwitch *dvs = DVSState_SwitchFind(id);
      ASSERT_NE(dvs, nullptr);
      void *b = nullptr;
      uint32_t len = 0;
      ASSERT_EQ(DVSState_SwitchSerialize(dvs, &b, &len), STATUS_OK);
      const std::string swBlob(static_cast<char *>(b), len);
      free(b);
      EXPECT_GE(
         EachWriterFailure(
            swBlob, [&](void **out, uint32_t *n) { return DVSState_SwitchSerialize(dvs, out, n); }),
         8)
         << id;
      DVSPort *port = nullptr;
      DVSState_PortForEach(
         dvs, [](DVSPort *p, void *o) { return *(DVSPort **)o = p, true; }, &port);
      ASSERT_NE(port, nullptr);
      ASSERT_EQ(DVSState_PortSerialize(port, &(b = nullptr), &len), STATUS_OK);
      const std::string portBlob(static_cast<char *>(b), len);
      free(b);
      EXPECT_GE(EachWriterFailure(
                   portBlob,
                   [&](void **out, uint32_t *n) { return DVSState_PortSerialize(port, out, n); }),
                1);

      // Read back into a registry without the switch: a failure removes the
      // switch it created again.
      ASSERT_EQ(DVSState_SwitchRemove(id), STATUS_OK);
      ASSERT_EQ(DVSState_SwitchDeserialize(id, swBlob.data(), swBlob.size()), STATUS_OK);
      const std::string want = HostBlob();
      ASSERT_EQ(DVSState_SwitchRemove(id), STATUS_OK);
      EXPECT_GE(
         EachFailure([&] { return DVSState_SwitchDeserialize(id, swBlob.data(), swBlob.size()); }),
         8)
         << id;
      EXPECT_EQ(HostBlob(), want) << id;

      // A port read into the switch, by handle and by id, ends like a read
      // that had no failure.
      ASSERT_NE(dvs = DVSState_SwitchFind(id), nullptr);
      ASSERT_EQ(DVSState_PortAddDeserialize(dvs, "ref", portBlob.data(), portBlob.size()),
                STATUS_OK);
      const DVSPort *ref = DVSState_PortFindOnDVSwitch(dvs, "ref");
      for (const char *pid : {"by-handle", "by-id"}) {
         EXPECT_GE(
            EachFailure([&] {
               return pid[3] == 'h'
                         ? DVSState_PortAddDeserialize(dvs, pid, portBlob.data(), portBlob.size())
                         : DVSState_PortDeserialize(id, pid, portBlob.data(), portBlob.size());
            }),
            2)
            << id;
         const DVSPort *added = DVSState_PortFindOnDVSwitch(dvs, pid);
         ASSERT_NE(added, nullptr) << id << " " << pid;
         EXPECT_EQ(added->portType, ref->portType);
         EXPECT_EQ(Entries(added->data), Entries(ref->data));
      }
   }
}

}  // namespace
