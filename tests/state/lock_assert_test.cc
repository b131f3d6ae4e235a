// The registry's internal entry points check, in builds with lock checking,
// that their caller holds the "dvsstate" lock.
#include <gtest/gtest.h>

#include "state/state_internal.h"

namespace {

#ifdef DVS_LOCK_RANK_CHECK
TEST(StateLockAssertDeathTest, InternalRemoveNeedsTheCallersLock) {
   GTEST_FLAG_SET(death_test_style, "threadsafe");
   {
      dvs::state::StateLockGuard guard;
      EXPECT_EQ(dvs::state::SwitchRemoveLocked("absent"), STATUS_NOT_FOUND);
   }
   EXPECT_DEATH(dvs::state::SwitchRemoveLocked("absent"),
                "SwitchRemoveLocked needs the \"dvsstate\" lock held by its caller");
}
#else
TEST(StateLockAssertDeathTest, InternalRemoveNeedsTheCallersLock) {
   GTEST_SKIP() << "built without lock checking";
}
#endif

}  // namespace
