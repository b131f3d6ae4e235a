#include "hostlibs.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <thread>
#include <vector>

namespace {

void RunThreads(int n, const std::function<void(int)> &body) {
   std::vector<std::thread> threads;
   for (int t = 0; t < n; t++) {
      threads.emplace_back(body, t);
   }
   for (auto &th : threads)
      th.join();
}

TEST(RecLock, NestedAcquireFromSeveralThreadsCountsExactly) {
   static KRecLock *lock = nullptr;
   ASSERT_EQ(KLock_CreateSingletonRecLockInt(&lock, "counter", 10), STATUS_OK);
   EXPECT_STREQ(KLock_Name(lock), "counter");
   EXPECT_EQ(KLock_Rank(lock), 10u);

   constexpr int kThreads = 4, kIterations = 20000;
   long counter = 0;  // deliberately not atomic: only the lock protects it
   std::atomic<int> wrongOwnership{0};
   RunThreads(kThreads, [&](int) {
      for (int i = 0; i < kIterations; i++) {
         KLock_AcquireRecLock(lock);
         KLock_AcquireRecLock(lock);
         counter++;
         KLock_ReleaseRecLock(lock);
         wrongOwnership += !KLock_IsLockedByCaller(lock);  // still held once
         KLock_ReleaseRecLock(lock);
         wrongOwnership += KLock_IsLockedByCaller(lock);
      }
   });
   EXPECT_EQ(counter, long{kThreads} * kIterations);
   EXPECT_EQ(wrongOwnership.load(), 0);
}

TEST(RecLock, ConcurrentSingletonCreationYieldsOneLock) {
   // Many rounds on fresh slots make a simultaneous first creation likely even
   // on few cores.  Static slots keep the locks reachable, so a lock that was
   // created and then lost shows up as an ASan leak.
   constexpr int kThreads = 16;
   static KRecLock *slots[32];
   for (KRecLock *&storage : slots) {
      std::atomic<int> arrived{0};
      std::vector<KRecLock *> seen(kThreads);
      RunThreads(kThreads, [&](int t) {
         for (arrived++; arrived.load() < kThreads;)
            std::this_thread::yield();
         EXPECT_EQ(KLock_CreateSingletonRecLockInt(&storage, "race", 5), STATUS_OK);
         seen[t] = storage;
      });
      ASSERT_NE(storage, nullptr);
      ASSERT_EQ(seen, std::vector<KRecLock *>(kThreads, storage));
   }
}

TEST(RecLock, RankOrder) {
   static KRecLock *hyp = nullptr, *state = nullptr, *peerA = nullptr, *peerB = nullptr;
   ASSERT_EQ(KLock_CreateSingletonRecLockInt(&hyp, "dvshyp", 0xfefffffe), STATUS_OK);
   ASSERT_EQ(KLock_CreateSingletonRecLockInt(&state, "dvsstate", 0xfeffffff), STATUS_OK);
   ASSERT_EQ(KLock_CreateSingletonRecLockInt(&peerA, "peerA", 7), STATUS_OK);
   ASSERT_EQ(KLock_CreateSingletonRecLockInt(&peerB, "peerB", 7), STATUS_OK);

   // Ascending order, and re-taking held locks in any order, are fine; so is
   // releasing out of order.
   for (KRecLock *l : {hyp, state, state, hyp})
      KLock_AcquireRecLock(l);
   EXPECT_TRUE(KLock_IsLockedByCaller(hyp) && KLock_IsLockedByCaller(state));
   for (KRecLock *l : {hyp, hyp, state, state})
      KLock_ReleaseRecLock(l);
   EXPECT_FALSE(KLock_IsLockedByCaller(hyp) || KLock_IsLockedByCaller(state));
   KLock_AcquireRecLock(hyp);  // the list of held locks is empty again
   KLock_ReleaseRecLock(hyp);

#ifdef HOSTLIBS_LOCK_RANK_CHECK
   GTEST_FLAG_SET(death_test_style, "threadsafe");
   EXPECT_DEATH((KLock_AcquireRecLock(state), KLock_AcquireRecLock(hyp)),
                "\"dvshyp\" \\(rank 0xfefffffe\\).*\"dvsstate\" \\(rank 0xfeffffff\\)");
   EXPECT_DEATH((KLock_AcquireRecLock(peerA), KLock_AcquireRecLock(peerB)), "\"peerB\".*\"peerA\"");
   EXPECT_DEATH(KLock_ReleaseRecLock(state), "\"dvsstate\".*not held");
#else
   KLock_ReleaseRecLock(state);  // not held: ignored
   EXPECT_FALSE(KLock_IsLockedByCaller(state));
#endif
}

}  // namespace
