// Whole-host saves into a three-member etcd cluster while members die and
// come back: every save the library reported done is there afterwards,
// none is there in part, and the client moves on to the members alive.
//
// Three sample hosts of the same switches (different seeds) are saved in
// turn; after every save the host is loaded back and must be exactly one
// of the three as it loads when saved alone -- the one last reported
// saved, or, for a save that failed with an unknown outcome, the one it
// tried to save.
#include <configstore.h>
#include <dvsconfigstore.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <vector>

#include "etcd_cluster.h"
#include "sample_host.h"

namespace {

using Bytes = std::vector<uint8_t>;
using Clock = std::chrono::steady_clock;

int32_t Save(const Bytes &blob) {
   return DVSState_SaveBufToConfigStore(blob.data(), static_cast<uint32_t>(blob.size()));
}

// The host as the store has it now; empty when it cannot be loaded.
Bytes Load() {
   void *buf = nullptr;
   uint32_t len = 0;
   if (DVSState_LoadFromConfigStoreAsBuf(&buf, &len, false) != 0 || buf == nullptr) {
      return {};
   }
   Bytes out(static_cast<uint8_t *>(buf), static_cast<uint8_t *>(buf) + len);
   std::free(buf);
   return out;
}

// Which of `loads` `now` is, or -1.
int Which(const std::vector<Bytes> &loads, const Bytes &now) {
   for (size_t i = 0; i < loads.size(); i++) {
      if (loads[i] == now) {
         return static_cast<int>(i);
      }
   }
   return -1;
}

TEST(EtcdFaultTest, SavesSurviveMemberAndClusterRestarts) {
   configstore_test::EtcdCluster cluster;
   ASSERT_TRUE(cluster.Start(3)) << cluster.Error();
   std::string url = "etcd://";
   for (const std::string &e : cluster.Endpoints()) {
      url += e + ",";
   }
   url.back() = '/';
   setenv(configstore::kUrlEnv, (url + "fault").c_str(), 1);
   setenv(configstore::kHostEnv, "fault-host", 1);
   dvsconfigstore_debug = 0;  // failures only

   std::vector<Bytes> blobs, loads;
   for (uint32_t seed = 1; seed <= 3; seed++) {
      blobs.push_back(dvsctl::BuildSampleHost({5, 300, seed}));
      ASSERT_EQ(Save(blobs.back()), 0);
      loads.push_back(Load());
      ASSERT_FALSE(loads.back().empty());
   }
   ASSERT_NE(loads[0], loads[1]);
   ASSERT_NE(loads[1], loads[2]);
   int last = 2;

   // Kill the leader, bring it back, kill a follower, bring it back.
   struct Step {
      int at;
      bool kill;
   };
   const Step steps[] = {{3, true}, {8, false}, {11, true}, {16, false}};
   int down = -1, failed = 0, saved = 0;
   const auto deadline = Clock::now() + std::chrono::seconds(40);
   for (int i = 0; i < 20 && Clock::now() < deadline; i++) {
      for (const Step &step : steps) {
         if (step.at != i) {
            continue;
         }
         if (step.kill) {
            const int leader = cluster.Leader();
            down = step.at == 3 ? leader : (leader + 1) % cluster.size();
            ASSERT_GE(down, 0);
            cluster.Kill(down);
         } else {
            ASSERT_TRUE(cluster.Restart(down)) << cluster.Error();
            down = -1;
         }
      }
      const int next = i % 3;
      const int32_t rc = Save(blobs[next]);
      const int now = Which(loads, Load());
      if (rc == 0) {
         saved++;
         EXPECT_EQ(now, next) << "save " << i << " reported done but is not there";
      } else {
         failed++;
         EXPECT_TRUE(now == last || now == next) << "save " << i << " left " << now;
      }
      if (now >= 0) {
         last = now;
      }
   }
   // A kill may cost the save in flight, no more.
   EXPECT_LE(failed, 2);
   EXPECT_GE(saved, 15);

   cluster.StopAll();
   ASSERT_TRUE(cluster.RestartAll()) << cluster.Error();
   EXPECT_EQ(Which(loads, Load()), last) << "the cluster restart lost the last save";
   ASSERT_EQ(Save(blobs[(last + 1) % 3]), 0);
   EXPECT_EQ(Which(loads, Load()), (last + 1) % 3);
}

}  // namespace
