// The socket transport: the device path names a Unix socket, and a thread
// of this test plays the simulator's side of kernel/wire_protocol.h.
#include <dvshyp.h>
#include <gtest/gtest.h>
#include <hostlibs.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "kernel/wire_protocol.h"

namespace {

using namespace dvs::wire;

std::string sockPath;  // one per process: the library reads it once

struct DeviceSocket : testing::Environment {
   void SetUp() override {
      char dir[] = "/tmp/dvs-channel-XXXXXX";
      ASSERT_NE(mkdtemp(dir), nullptr);
      sockPath = std::string(dir) + "/sim.sock";
      setenv(DVSHYP_DEVICE_PATH_ENV, sockPath.c_str(), 1);
   }
   void TearDown() override {
      std::filesystem::remove_all(std::filesystem::path(sockPath).parent_path());
   }
};
testing::Environment *const kEnvironment = testing::AddGlobalTestEnvironment(new DeviceSocket);

struct Request {
   uint32_t code;
   DVSHYPCmd rec;
   std::string input;
};

// An answer; `raw`, when set, is sent instead of a well-formed one, and
// `hangUp` closes the connection after it (or instead of any answer).
struct Reply {
   uint32_t result = 0, status = 0, dataLen = 0, cmdOutLen = 0;
   std::string output, raw;
   bool hangUp = false;
};

bool ReadAll(int fd, void *p, size_t n) {
   for (size_t got = 0; got < n;) {
      const ssize_t r = read(fd, static_cast<char *>(p) + got, n - got);
      if (r <= 0)
         return false;
      got += static_cast<size_t>(r);
   }
   return true;
}

// Serves each connection on a thread of its own, answering each exchange
// with `answer`.
class FakeSimulator {
  public:
   explicit FakeSimulator(std::function<Reply(const Request &)> answer) : answer_(answer) {
      listen_ = socket(AF_UNIX, SOCK_STREAM, 0);
      sockaddr_un addr{};
      addr.sun_family = AF_UNIX;
      std::strcpy(addr.sun_path, sockPath.c_str());
      unlink(sockPath.c_str());
      EXPECT_EQ(bind(listen_, reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);
      EXPECT_EQ(listen(listen_, 8), 0);
      acceptor_ = std::thread([this] {
         for (int c; (c = accept(listen_, nullptr, nullptr)) >= 0;) {
            std::lock_guard<std::mutex> lock(mutex_);
            conns_.push_back(c);
            servers_.emplace_back([this, c] {
               while (ServeOne(c)) {
               }
               shutdown(c, SHUT_RDWR);
            });
         }
      });
   }
   ~FakeSimulator() {
      shutdown(listen_, SHUT_RDWR);
      acceptor_.join();
      for (int c : conns_)
         shutdown(c, SHUT_RDWR);
      for (std::thread &t : servers_)
         t.join();
      for (int c : conns_)
         close(c);
      close(listen_);
      unlink(sockPath.c_str());
   }
   std::vector<Request> Requests() {
      std::lock_guard<std::mutex> lock(mutex_);
      return requests_;
   }

  private:
   bool ServeOne(int c) {
      WireRequest hdr;
      Request req;
      if (!ReadAll(c, &hdr, sizeof hdr) || !ReadAll(c, &req.rec, sizeof req.rec))
         return false;
      EXPECT_EQ(hdr.magic, kRequestMagic);
      req.code = hdr.code;
      req.input.resize(hdr.inLen);
      if (!ReadAll(c, req.input.data(), hdr.inLen))
         return false;
      {
         std::lock_guard<std::mutex> lock(mutex_);
         requests_.push_back(req);
      }
      Reply r = answer_(req);
      std::string out = r.raw;
      if (out.empty() && !r.hangUp) {
         const WireResponse resp{kResponseMagic, r.result, static_cast<uint32_t>(r.output.size())};
         req.rec.status = r.status;
         req.rec.dataLen = r.dataLen;
         req.rec.cmdOutLen = r.cmdOutLen;
         out.append(reinterpret_cast<const char *>(&resp), sizeof resp);
         out.append(reinterpret_cast<const char *>(&req.rec), sizeof req.rec);
         out += r.output;
      }
      return send(c, out.data(), out.size(), MSG_NOSIGNAL) == ssize_t(out.size()) && !r.hangUp;
   }

   std::function<Reply(const Request &)> answer_;
   int listen_ = -1;
   std::mutex mutex_;
   std::vector<Request> requests_;
   std::vector<int> conns_;
   std::vector<std::thread> servers_;
   std::thread acceptor_;
};

Reply Answer(uint32_t result, uint32_t status, uint32_t dataLen, uint32_t cmdOutLen = 0,
             std::string output = "") {
   Reply r;
   r.result = result;
   r.status = status;
   r.dataLen = dataLen;
   r.cmdOutLen = cmdOutLen;
   r.output = std::move(output);
   return r;
}

Reply Ok(const Request &) {
   return Reply{};
}

std::string Stderr(const std::function<void()> &f) {
   testing::internal::CaptureStderr();
   f();
   return testing::internal::GetCapturedStderr();
}

TEST(ChannelSocket, OpenFailsWhileNoSimulatorListens) {
   void *buf = &buf;
   uint32_t len = 0;
   EXPECT_EQ(Stderr([&] { EXPECT_EQ(DVSHYP_StateGet(&buf, &len), STATUS_FAILURE); }),
             "failed to open dvsdev device " + sockPath + "\n");
   EXPECT_EQ(buf, nullptr);
}

TEST(ChannelSocket, RecordsAndBuffersCrossTheSocket) {
   const std::string big(40000, 'b');
   FakeSimulator sim([&](const Request &q) {
      Reply r;
      if (q.code == DVSHYP_CMD_STATE_GET && q.rec.dataLen < big.size())
         r = Answer(ENOSPC, STATUS_LIMIT_EXCEEDED, 40000);
      else if (q.code == DVSHYP_CMD_STATE_GET)
         r = Answer(0, 0, 40000, 0, big);
      else if (q.code == DVSHYP_CMD_EXEC)
         r = Answer(0, 0, 0, 3, "out");
      else if (q.code == DVSHYP_CMD_SWITCH_REMOVE)
         r = Answer(EPERM, STATUS_NOT_FOUND, 0);
      return r;
   });
   const std::string sw70(70, 's'), port50(50, 'p');
   ASSERT_EQ(DVSHYP_PortDataSet(sw70.c_str(), port50.c_str(), "com.ostrel.x", "value", 6, 0x24),
             STATUS_OK);
   void *buf = nullptr;
   uint32_t len = 0;
   ASSERT_EQ(DVSHYP_StateGet(&buf, &len), STATUS_OK);
   EXPECT_EQ(std::string(static_cast<char *>(buf), len), big);
   DVSHYP_DataFree(buf);
   ASSERT_EQ(DVSHYP_CmdExec("sw", "show", "in", 2, &buf, &len), STATUS_OK);
   EXPECT_EQ(std::string(static_cast<char *>(buf), len), "out");
   DVSHYP_DataFree(buf);
   EXPECT_EQ(Stderr([] { EXPECT_EQ(DVSHYP_SwitchRemove("sw"), STATUS_NOT_FOUND); }),
             std::string("ioctl failed: ") + Err_Errno2String(EPERM) + "\n");

   const std::vector<Request> q = sim.Requests();
   ASSERT_EQ(q.size(), 5u);
   // The record's fields themselves are checked in channel_device_test.
   EXPECT_EQ(q[0].code, DVSHYP_CMD_PORT_DATA_SET);
   EXPECT_EQ(q[0].input, std::string("value", 6));
   EXPECT_EQ(q[1].rec.dataLen, 32768u);
   EXPECT_EQ(q[2].rec.dataLen, 40000u);
   EXPECT_EQ(q[1].input, "");  // a result buffer is not sent along
   EXPECT_EQ(q[3].input, "in");
   EXPECT_STREQ(q[3].rec.cmdText, "show");
   EXPECT_EQ(q[3].rec.cmdOutLen, 32768u);
}

TEST(ChannelSocket, AnswersNeverWriteBeyondTheCapacityOffered) {
   std::atomic<int> step{0};
   FakeSimulator sim([&](const Request &) {
      Reply r;
      WireResponse good{kResponseMagic, 0, 0}, bad{0x12345678, 0, 0};
      switch (step++) {
         case 0:
            return Answer(0, 0, 8, 0, "12345678");
         case 1:
            return Answer(0, 0, 32, 0, std::string(32, 'x'));  // over the 16 offered
         case 2:
            r.raw.assign(reinterpret_cast<char *>(&bad), sizeof bad);
            break;
         case 3:  // cut off inside the record
            r.raw.assign(reinterpret_cast<char *>(&good), sizeof good).append(100, 'r');
            r.hangUp = true;
            break;
      }
      return r;
   });
   char mem[64];
   std::memset(mem, 0xee, sizeof mem);
   DVSHYPCmd rec{};
   rec.dataAddr = reinterpret_cast<uintptr_t>(mem);
   rec.dataLen = 16;
   ASSERT_EQ(DVSHYP_Ioctl(DVSHYP_CMD_GLOBAL_PROP_GET, &rec), STATUS_OK);
   EXPECT_EQ(std::string(mem, 10), "12345678\xee\xee");
   EXPECT_EQ(rec.dataLen, 8u);
   const int errs[] = {EPROTO, EPROTO, EIO};
   for (int err : errs) {
      std::memset(mem, 0xee, sizeof mem);
      rec.dataLen = 16;
      EXPECT_EQ(
         Stderr([&] { EXPECT_EQ(DVSHYP_Ioctl(DVSHYP_CMD_GLOBAL_PROP_GET, &rec), STATUS_FAILURE); }),
         std::string("ioctl failed: ") + Err_Errno2String(err) + "\n");
      EXPECT_EQ(std::string(mem, sizeof mem), std::string(sizeof mem, '\xee'));
      EXPECT_EQ(rec.dataLen, 16u);  // the record is untouched too
   }
   // The stream left mid-message is dropped, not read out of step.
   EXPECT_EQ(DVSHYP_SwitchRemove("sw"), STATUS_OK);
   EXPECT_EQ(sim.Requests().back().code, DVSHYP_CMD_SWITCH_REMOVE);
}

TEST(ChannelSocket, KeptDescriptorSurvivesSimulatorRestarts) {
   auto openFds = [] {
      auto it = std::filesystem::directory_iterator("/proc/self/fd");
      return std::distance(begin(it), end(it));
   };
   {
      FakeSimulator first(Ok);
      ASSERT_EQ(DVSHYP_SwitchAdd("sw", "etherswitch", 8, 6), STATUS_OK);
   }
   const auto fds = openFds();
   {
      // The restarted simulator also dies once more before answering its
      // second request: the command goes once more on a new connection,
      // and only once.
      std::atomic<int> seen{0};
      FakeSimulator second([&](const Request &q) {
         // Each thread below gets its own switch's number back as status.
         Reply r = Answer(EPERM, 0x100 + std::atoi(q.rec.switchName), 0);
         if (q.code != DVSHYP_CMD_SWITCH_ASSOCIATE)
            r = Reply{};
         r.hangUp = seen++ == 1 || q.code == DVSHYP_CMD_PORT_FIND;
         return r;
      });
      EXPECT_EQ(DVSHYP_SwitchRemove("sw"), STATUS_OK);
      EXPECT_EQ(DVSHYP_SwitchRemove("sw"), STATUS_OK);
      EXPECT_EQ(seen, 3);
      EXPECT_NE(Stderr([] { EXPECT_EQ(DVSHYP_PortFind("sw", "p"), STATUS_FAILURE); }), "");
      EXPECT_EQ(seen, 5);

      // Threads share the kept connection one exchange at a time: each
      // gets its own answer.
      std::atomic<int> wrong{0};
      Stderr([&] {
         std::vector<std::thread> threads;
         for (uint32_t t = 0; t < 4; ++t)
            threads.emplace_back([&wrong, t] {
               for (int i = 0; i < 50; ++i)
                  wrong += DVSHYP_SwitchAssociate(std::to_string(t).c_str()) != 0x100 + t;
            });
         for (std::thread &t : threads)
            t.join();
      });
      EXPECT_EQ(wrong, 0);
      EXPECT_EQ(seen, 205);
   }
   // Reconnecting reused the kept descriptor's number and leaked nothing.
   EXPECT_EQ(openFds(), fds);
}

}  // namespace
