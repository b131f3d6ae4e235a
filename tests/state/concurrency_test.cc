// Threads sharing the registry as a host's agents do: each worker keeps a
// switch of its own and works on its ports under the registry lock, and
// adds and removes another switch through calls that lock for themselves;
// meanwhile one thread writes the host blob and reads back the blob of a
// separate switch.  `make test` runs this under ThreadSanitizer too.
#include <algorithm>
#include <atomic>
#include <thread>

#include "state_test_support.h"

using namespace statetest;

namespace {

constexpr int kWorkers = 4, kRounds = 300;

// Ports a worker holds after round r: it removes every third port it adds.
uint32_t PortsAfter(int r) {
   return r + 1 - (r + 3) / 3;
}

TEST(StateConcurrencyTest, WorkersWriterAndReaderShareTheRegistry) {
   ASSERT_EQ(DVSState_SwitchAdd("extra", "etherswitch", 0, 7), STATUS_OK);
   for (const char *p : {"x1", "x2", "x3"})
      ASSERT_EQ(DVSState_PortAdd("extra", p, NewList({{"k", p}})), STATUS_OK);
   const std::string extra = HostBlob();
   ASSERT_EQ(DVSState_SwitchRemove("extra"), STATUS_OK);

   std::atomic<int> errors{0}, finished{0}, cycles{0};
   const auto check = [&](bool ok) { errors += !ok; };
   std::vector<std::thread> threads;
   for (int w = 0; w < kWorkers; ++w)
      threads.emplace_back([&, w] {
         const std::string sw = Fmt("sw%d", w), tmp = Fmt("tmp%d", w);
         // An ordinary class weighs its limit against the host's port count
         // before the add takes the lock: hold it here.
         KRecLock *lock = DVSwitchHandleLock();
         check(DVSState_SwitchAdd(sw.c_str(), w % 2 ? "etherswitch" : "myclass", 200, 7) == 0);
         DVSwitchHandleUnlock(lock);
         for (int r = 0; r < kRounds; ++r) {
            const std::string port = Fmt("p%d", r);
            lock = DVSwitchHandleLock();
            DVSwitch *d = DVSState_SwitchFind(sw.c_str());
            check(DVSState_PortAdd(sw.c_str(), port.c_str(), NewList({{"r", port}})) == 0);
            DVSPort *p = DVSState_PortFind(sw.c_str(), port.c_str());
            check(p && DVSState_PortDataSet(p, "n", &r, sizeof r, 0) == 0);
            check(DVSState_GlobalPropSet(sw.c_str(), "round", &r, sizeof r, 0) == 0);
            if (r % 3 == 0)
               check(DVSState_PortRemove(sw.c_str(), port.c_str()) == 0);
            check(d && Ports(d).size() == PortsAfter(r) && d->numPorts == PortsAfter(r));
            DVSwitchHandleUnlock(lock);

            check(DVSState_SwitchAdd(tmp.c_str(), "etherswitch", 0, 7) == 0);
            check(DVSState_HostPropSet(tmp.c_str(), "h", "v", 1, 0) == 0);
            check(DVSState_SwitchRemove(tmp.c_str()) == 0);
         }
         ++finished;
      });
   threads.emplace_back([&] {
      while (finished < kWorkers || cycles < 3) {
         for (const auto &[id, sw] : Decode(HostBlob()))
            check(Decode(sw).size() >= 5);
         // A read merges into the live registry: hold the lock so that the
         // switch it makes is seen whole and removed again.
         KRecLock *lock = DVSwitchHandleLock();
         check(DVSState_ConfigDeserialize(extra.data(), extra.size()) == 0);
         DVSwitch *x = DVSState_SwitchFind("extra");
         check(x && x->numPorts == 3 && DVSState_SwitchRemove("extra") == 0);
         DVSwitchHandleUnlock(lock);
         ++cycles;
      }
   });
   for (std::thread &t : threads)
      t.join();
   EXPECT_EQ(errors, 0);

   const Props host = Decode(HostBlob());
   Ids ids = Names(host);
   std::sort(ids.begin(), ids.end());  // the workers add theirs in any order
   EXPECT_EQ(ids, (Ids{"sw0", "sw1", "sw2", "sw3"}));
   uint32_t total = 0;
   for (const auto &[id, sw] : host) {
      EXPECT_EQ(Decode(sw).size(), 5 + PortsAfter(kRounds - 1)) << id;
      total += DVSState_SwitchFind(id.c_str())->numPorts;
   }
   EXPECT_EQ(total, kWorkers * PortsAfter(kRounds - 1));
   EXPECT_EQ(DVSState_ConfigReset(), STATUS_OK);
}

}  // namespace
