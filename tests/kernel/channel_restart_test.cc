// The kernel switch simulator daemon, a child of this test, killed in the
// middle of requests and restarted: the caller gets an error status with
// one of the channel's messages, quickly; the next command after the
// restart works.  A simulator that stops answering without dying fails
// its callers once the exchange timeout has passed, never hangs them.
#include <dvsdata.h>
#include <dvshyp.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <hostlibs.h>
#include <poll.h>
#include <sys/prctl.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "tests/kill_loop_support.h"

namespace {

constexpr int kTimeoutMs = 1000;  // the exchange timeout these tests run with
std::string dir, sockPath;

struct SimulatorSocket : testing::Environment {
   void SetUp() override {
      char templ[] = "/tmp/dvs-restart-XXXXXX";
      ASSERT_NE(mkdtemp(templ), nullptr);
      dir = templ;
      sockPath = dir + "/sim.sock";
      setenv(DVSHYP_DEVICE_PATH_ENV, sockPath.c_str(), 1);  // both read once
      setenv(DVSHYP_DEVICE_TIMEOUT_ENV, std::to_string(kTimeoutMs).c_str(), 1);
   }
   void TearDown() override { std::filesystem::remove_all(dir); }
};
testing::Environment *const kEnvironment = testing::AddGlobalTestEnvironment(new SimulatorSocket);

// The daemon in the foreground; Start returns once it listens.
class Daemon {
  public:
   ~Daemon() { Kill(); }
   void Start() {
      int out[2];
      ASSERT_EQ(pipe(out), 0);
      pid_ = fork();
      ASSERT_GE(pid_, 0);
      if (pid_ == 0) {
         prctl(PR_SET_PDEATHSIG, SIGKILL);  // never outlives a killed test
         dup2(out[1], 1);
         const int null = open("/dev/null", O_WRONLY);
         dup2(null, 2);
         execl(DVS_KERNEL_SIM, "dvs-kernel-sim", "--socket", sockPath.c_str(), "--foreground",
               static_cast<char *>(nullptr));
         _exit(127);
      }
      close(out[1]);
      ready_ = out[0];
      const std::string line = "dvs-kernel-sim: listening on " + sockPath + "\n";
      std::string got;
      char buf[256];
      pollfd p{ready_, POLLIN, 0};
      for (int i = 0; i < 100 && got.size() < line.size() && poll(&p, 1, 100) >= 0; ++i) {
         const ssize_t n = p.revents != 0 ? read(ready_, buf, sizeof buf) : 0;
         got.append(buf, n > 0 ? static_cast<size_t>(n) : 0);
      }
      ASSERT_EQ(got, line);
   }
   void Signal(int sig) { kill(pid_, sig); }
   void Kill() {
      if (pid_ > 0) {
         EXPECT_TRUE(killloop::KillAndReap(pid_)) << "the simulator had stopped by itself";
         close(ready_);
      }
      pid_ = -1;
   }

  private:
   pid_t pid_ = -1;
   int ready_ = -1;
};

// A host of four switches with 150 ports each, every port carrying 1 KiB:
// big enough that StateInit and StateGet take several transfers.
std::string BuildHost() {
   DVSDataHandle port = nullptr;
   EXPECT_EQ(DVSData_Alloc(&port, malloc, free), STATUS_OK);
   const std::string value(1024, 'v');
   EXPECT_EQ(DVSData_Append(port, "com.ostrel.common.port.blob", value.data(), 1024, 0x10), 0u);
   void *blob = nullptr;
   uint32_t len = 0;
   EXPECT_EQ(DVSData_Serialize(port, &blob, &len, 1), STATUS_OK);
   for (int s = 0; s < 4; ++s) {
      const std::string sw = "sw-" + std::to_string(s);
      EXPECT_EQ(DVSHYP_SwitchAdd(sw.c_str(), "vswitch", 0, 7), STATUS_OK);
      for (int p = 0; p < 150; ++p)
         EXPECT_EQ(DVSHYP_PortAdd(sw.c_str(), std::to_string(p).c_str(), blob, len), STATUS_OK);
   }
   DVSData_FreeAssocData(port, blob);
   DVSData_Free(port);
   void *state = nullptr;
   EXPECT_EQ(DVSHYP_StateGet(&state, &len), STATUS_OK);
   std::string host(static_cast<char *>(state), state != nullptr ? len : 0);
   DVSHYP_DataFree(state);
   return host;
}

ReturnStatus Init(const std::string &host) {
   return DVSHYP_StateInit(host.data(), static_cast<uint32_t>(host.size()));
}

// The kernel's whole state, or the failing status as text.
std::string State() {
   void *buf = nullptr;
   uint32_t len = 0;
   const ReturnStatus status = DVSHYP_StateGet(&buf, &len);
   std::string state = status == STATUS_OK ? std::string(static_cast<char *>(buf), len)
                                           : "status " + std::to_string(status);
   DVSHYP_DataFree(buf);
   return state;
}

// Every line of `text` is one of the channel's failure messages (a failed
// get prints none).
bool OnlyChannelMessages(const std::string &text) {
   std::istringstream lines(text);
   std::string line;
   while (std::getline(lines, line)) {
      if (line.rfind("ioctl failed: ", 0) != 0 &&
          line != "failed to open dvsdev device " + sockPath) {
         return false;
      }
   }
   return true;
}

TEST(ChannelRestart, KilledMidRequestFailsAndTheNextCommandWorks) {
   Daemon sim;
   ASSERT_NO_FATAL_FAILURE(sim.Start());
   const std::string host = BuildHost();
   ASSERT_GT(host.size(), 600000u);
   double cycleMs = killloop::MonotonicMs();
   ASSERT_EQ(Init(host), STATUS_OK);
   ASSERT_EQ(State(), host);
   cycleMs = killloop::MonotonicMs() - cycleMs;

   killloop::Random random;
   const int rounds = killloop::Rounds(30, 300);
   const auto started = std::chrono::steady_clock::now();
   const auto deadline = killloop::Deadline(std::chrono::seconds(60));
   int round = 0, inside = 0;
   double slowestMs = 0;
   for (; round < rounds && std::chrono::steady_clock::now() < deadline; ++round) {
      SCOPED_TRACE("round " + std::to_string(round));
      // Commands in a loop until one fails; the kill lands anywhere in them.
      std::atomic<bool> stopped{false};
      ReturnStatus failed = STATUS_OK;
      double failedAt = 0, failedMs = 0;
      testing::internal::CaptureStderr();
      std::thread client([&] {
         for (int i = 0; i < 100000 && failed == STATUS_OK; ++i) {
            failedAt = killloop::MonotonicMs();
            if (i % 2 == 0) {
               failed = Init(host);
               continue;
            }
            const std::string got = State();
            failed = got == host ? STATUS_OK : STATUS_FAILURE;
            EXPECT_TRUE(got == host || got.rfind("status ", 0) == 0) << "a wrong state came back";
         }
         failedMs = killloop::MonotonicMs() - failedAt;
         stopped = true;
      });
      usleep(random.Micros(3000 * cycleMs));
      const double killedAt = killloop::MonotonicMs();
      sim.Kill();
      for (int i = 0; i < 10 * kTimeoutMs && !stopped; ++i)
         usleep(1000);
      if (!stopped) {  // a hang: nothing can end the client any more
         ADD_FAILURE() << "the caller hung after the simulator was killed";
         std::_Exit(1);
      }
      client.join();
      const std::string messages = testing::internal::GetCapturedStderr();
      EXPECT_NE(failed, STATUS_OK);
      EXPECT_TRUE(OnlyChannelMessages(messages)) << messages;
      EXPECT_GE(failedAt + failedMs, killedAt) << "a command failed before the kill";
      EXPECT_LT(failedMs, kTimeoutMs) << "a dead simulator is noticed at once";
      slowestMs = std::max(slowestMs, failedMs);
      inside += failedAt < killedAt;

      ASSERT_NO_FATAL_FAILURE(sim.Start());
      ASSERT_EQ(Init(host), STATUS_OK);
      ASSERT_EQ(State(), host);
   }
   killloop::Report("kernel channel", std::to_string(round) + " kills (" + std::to_string(inside) +
                                         " inside a request), slowest "
                                         "failure " +
                                         std::to_string(slowestMs) + " ms, " +
                                         std::to_string(killloop::Seconds(started)) + " s");
   EXPECT_GE(round, std::min(rounds, 5));
}

TEST(ChannelRestart, SilentSimulatorTimesOutThenRestartWorks) {
   Daemon sim;
   ASSERT_NO_FATAL_FAILURE(sim.Start());
   const std::string host = BuildHost();
   ASSERT_EQ(Init(host), STATUS_OK);
   sim.Signal(SIGSTOP);
   // A result command, a plain one, and one whose input fills the socket.
   const std::vector<std::function<ReturnStatus()>> commands = {
      [] {
         return State() == "status " + std::to_string(STATUS_FAILURE) ? STATUS_FAILURE : STATUS_OK;
      },
      [] { return DVSHYP_SwitchAdd("sw-new", "vswitch", 0, 7); },
      [&] { return Init(host); },
   };
   for (size_t i = 0; i < commands.size(); ++i) {
      const double start = killloop::MonotonicMs();
      testing::internal::CaptureStderr();
      EXPECT_EQ(commands[i](), STATUS_FAILURE) << "command " << i;
      const std::string messages = testing::internal::GetCapturedStderr();
      const double ms = killloop::MonotonicMs() - start;
      EXPECT_GE(ms, kTimeoutMs - 10) << "command " << i;
      EXPECT_LT(ms, kTimeoutMs + 1000) << "command " << i;
      EXPECT_EQ(messages,
                i == 0 ? "" : "ioctl failed: " + std::string(Err_Errno2String(ETIMEDOUT)) + "\n")
         << "command " << i;
   }
   sim.Kill();
   ASSERT_NO_FATAL_FAILURE(sim.Start());
   EXPECT_EQ(Init(host), STATUS_OK);
   EXPECT_EQ(State(), host);
}

}  // namespace
