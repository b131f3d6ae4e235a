// Shared by the tests of a host's whole trip: a kernel (the switch
// simulator, served in this process) and a configuration store, both in one
// temporary directory, and the host states read from each through dvsctl's
// comparison reader.
#ifndef CONFIGSTORE_KERNEL_STORE_SUPPORT_H
#define CONFIGSTORE_KERNEL_STORE_SUPPORT_H

#include <stdlib.h>

#include <cstdlib>
#include <optional>
#include <string>

#include <configstore.h>
#include <dvsconfigstore.h>
#include <dvshyp.h>
#include <gtest/gtest.h>

#include "sim/server.h"
#include "sim/simulator.h"
#include "state_diff.h"
#include "tests/support/temp_dir.h"

namespace kernelstore {

using dvsctl::Bytes;

// buf's bytes, then buf released.
inline Bytes Take(void *buf, uint32_t len, void (*release)(void *)) {
   const auto *bytes = static_cast<const uint8_t *>(buf);
   Bytes out = bytes != nullptr ? Bytes(bytes, bytes + len) : Bytes{};
   release(buf);
   return out;
}

// The kernel's whole state, or its persistent state.
inline dvsctl::HostState KernelState(bool persistent) {
   void *buf = nullptr;
   uint32_t len = 0;
   EXPECT_EQ(persistent ? DVSHYP_PersistentStateGet(&buf, &len) : DVSHYP_StateGet(&buf, &len),
             STATUS_OK);
   return dvsctl::ReadHostState(Take(buf, len, DVSHYP_DataFree),
                                persistent ? "persistent state" : "kernel state");
}

// The host blob the store's live (or desired) switch objects load as.
inline Bytes LoadFromStore(bool desired) {
   void *buf = nullptr;
   uint32_t len = 0;
   EXPECT_EQ(DVSState_LoadFromConfigStoreAsBuf(&buf, &len, desired), 0);
   return Take(buf, len, std::free);
}

class KernelStoreTest : public testing::Test {
  protected:
   static void SetUpTestSuite() {
      dir_.emplace("dvs-kernel-store");
      ASSERT_FALSE(dir_->path().empty());
      setenv(DVSHYP_DEVICE_PATH_ENV, (*dir_ / "sim.sock").c_str(), 1);  // read once
      setenv(configstore::kPathEnv, (*dir_ / "store.db").c_str(), 1);
      dvsconfigstore_debug = 0;  // failures only
   }
   static void TearDownTestSuite() { dir_.reset(); }
   void TearDown() override {
      if (server_) {
         server_->Stop();
      }
   }

   // A fresh, empty kernel, as after a host restart.
   void StartKernel() {
      server_.reset();
      sim_.emplace();
      server_.emplace(*sim_);
      std::string error;
      ASSERT_TRUE(server_->Start(*dir_ / "sim.sock", &error)) << error;
   }

   static inline std::optional<testsupport::TempDir> dir_;
   std::optional<dvs::sim::Simulator> sim_;
   std::optional<dvs::sim::Server> server_;
};

}  // namespace kernelstore

#endif  // CONFIGSTORE_KERNEL_STORE_SUPPORT_H
