// The records that leave the library over the switch character device.
// The device is /dev/null, opened by the library as usual; the ioctl calls
// on it land in this file's ioctl, which keeps a copy of each record and
// answers as the test scripts.
#include <dvshyp.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <hostlibs.h>
#include <sys/ioctl.h>

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <deque>
#include <functional>
#include <string>
#include <vector>

namespace {

struct Call {
   int fd;
   unsigned long code;
   DVSHYPCmd rec;
   std::string data;   // dataLen bytes at dataAddr
   std::string cmdIn;  // cmdInLen bytes at cmdInAddr
};

// The answer to one command: the ioctl fails with `err` unless it is 0;
// `len` goes to dataLen (cmdOutLen for execution); a successful answer
// fills `len` bytes of output with Pattern().
struct Answer {
   int err;
   uint32_t status;
   uint32_t len;
   bool writeStatus = true;
};

std::vector<Call> calls;
std::deque<Answer> script;  // empty: succeed and leave the record alone

std::string Bytes(uint64_t addr, uint32_t len) {
   return addr ? std::string(reinterpret_cast<const char *>(addr), len) : std::string();
}

std::string Pattern(size_t n) {
   std::string s(n, '\0');
   for (size_t i = 0; i < n; ++i)
      s[i] = static_cast<char>(i * 7 + i / 251);
   return s;
}

}  // namespace

// The tree builds with hidden visibility; this one must be seen by libdvs.
extern "C" __attribute__((visibility("default"))) int ioctl(int fd, unsigned long code,
                                                            ...) noexcept {
   va_list ap;
   va_start(ap, code);
   auto *rec = static_cast<DVSHYPCmd *>(va_arg(ap, void *));
   va_end(ap);
   if (code > DVSHYP_CMD_EXEC) {  // not ours (a terminal query, say)
      errno = ENOTTY;
      return -1;
   }
   calls.push_back(
      {fd, code, *rec, Bytes(rec->dataAddr, rec->dataLen), Bytes(rec->cmdInAddr, rec->cmdInLen)});
   if (script.empty())
      return 0;
   const Answer a = script.front();
   script.pop_front();
   if (a.writeStatus)
      rec->status = a.status;
   (code == DVSHYP_CMD_EXEC ? rec->cmdOutLen : rec->dataLen) = a.len;
   if (a.err != 0) {
      errno = a.err;
      return -1;
   }
   const uint64_t out = code == DVSHYP_CMD_EXEC ? rec->cmdOutAddr : rec->dataAddr;
   if (a.len > 0)
      std::memcpy(reinterpret_cast<void *>(out), Pattern(a.len).data(), a.len);
   return 0;
}

namespace {

struct DevNull : testing::Environment {
   void SetUp() override { setenv(DVSHYP_DEVICE_PATH_ENV, "/dev/null", 1); }
};
testing::Environment *const kEnvironment = testing::AddGlobalTestEnvironment(new DevNull);

class ChannelDeviceTest : public testing::Test {
  protected:
   void SetUp() override {
      calls.clear();
      script.clear();
   }
   void *buf_ = nullptr;
   uint32_t len_ = 0;
};

const std::string kSw70(70, 's'), kPort50(50, 'p');
const char kVal[] = "value";

// What each command must send.  Fields not listed stay zero; a result
// command offers a buffer of DVSHYP_RESULT_CAPACITY bytes.
struct Sent {
   uint32_t code;
   bool sw, port;
   const char *name;
   uint32_t maxPorts = 0, version = 0, flag = 0;
   bool input = false, result = false;
};

TEST_F(ChannelDeviceTest, EachCommandSendsExactlyItsFields) {
   const char *s = kSw70.c_str(), *p = kPort50.c_str(), *n = "com.ostrel.x";
   void **b = &buf_;
   uint32_t *l = &len_;
   const std::pair<Sent, std::function<ReturnStatus()>> cases[] = {
      {{0, false, false, "", 0, 0, 0, true}, [] { return DVSHYP_StateInit(kVal, 6); }},
      {{1, false, false, ""}, [] { return DVSHYP_StateCleanup(); }},
      {{2, false, false, ""}, [] { return DVSHYP_StateSanitize(); }},
      {{3, false, false, "", 0, 0, 0, false, true}, [=] { return DVSHYP_StateGet(b, l); }},
      {{4, true, false, "etherswitch", 512, 6},
       [=] { return DVSHYP_SwitchAdd(s, "etherswitch", 512, 6); }},
      {{5, true, false, ""}, [=] { return DVSHYP_SwitchRemove(s); }},
      {{6, true, false, ""}, [=] { return DVSHYP_SwitchAssociate(s); }},
      {{7, true, false, ""}, [=] { return DVSHYP_SwitchDissociate(s); }},
      {{8, true, false, n, 0, 0, 0, false, true}, [=] { return DVSHYP_GlobalPropGet(s, n, b, l); }},
      {{9, true, false, n, 0, 0, 0x24, true},
       [=] { return DVSHYP_GlobalPropSet(s, n, kVal, 6, 0x24); }},
      {{10, true, false, n}, [=] { return DVSHYP_GlobalPropClear(s, n); }},
      {{11, true, false, n, 0, 0, 0, false, true}, [=] { return DVSHYP_HostPropGet(s, n, b, l); }},
      {{12, true, false, n, 0, 0, 0x8, true},
       [=] { return DVSHYP_HostPropSet(s, n, kVal, 6, 0x8); }},
      {{13, true, false, n}, [=] { return DVSHYP_HostPropClear(s, n); }},
      {{14, true, true, "", 0, 0, 0, true}, [=] { return DVSHYP_PortAdd(s, p, kVal, 6); }},
      {{15, true, true, ""}, [=] { return DVSHYP_PortRemove(s, p); }},
      {{16, true, true, n, 0, 0, 0, false, true},
       [=] { return DVSHYP_PortDataGet(s, p, n, b, l); }},
      {{17, true, true, n, 0, 0, 0x24, true},
       [=] { return DVSHYP_PortDataSet(s, p, n, kVal, 6, 0x24); }},
      {{18, true, true, n}, [=] { return DVSHYP_PortDataClear(s, p, n); }},
      {{19, true, true, "", 0, 0, 0, false, true}, [=] { return DVSHYP_PortStateGet(s, p, b, l); }},
      {{20, true, true, ""}, [=] { return DVSHYP_PortFind(s, p); }},
      {{21, true, false, "", 77}, [=] { return DVSHYP_SwitchSetMaxPorts(s, 77); }},
      {{22, true, false, "", 0, 9}, [=] { return DVSHYP_SwitchSetVersion(s, 9); }},
      {{26, true, true, "-2", 0, 0, 0x4, true},
       [=] { return DVSHYP_UplinkDataSet(s, p, -2, kVal, 6, 0x4); }},
      {{27, true, true, "3", 0, 0, 0, false, true},
       [=] { return DVSHYP_UplinkDataGet(s, p, 3, b, l); }},
   };
   for (const auto &[sent, issue] : cases) {
      calls.clear();
      ASSERT_EQ(issue(), STATUS_OK) << sent.code;
      ASSERT_EQ(calls.size(), 1u) << sent.code;
      const Call &c = calls[0];
      DVSHYPCmd want;
      std::memset(&want, 0, sizeof want);
      if (sent.sw)  // the first 63 characters and the terminator
         std::memcpy(want.switchName, kSw70.data(), 63);
      if (sent.port)
         std::memcpy(want.portId, kPort50.data(), 47);
      std::strcpy(want.name, sent.name);
      want.maxPorts = sent.maxPorts;
      want.version = sent.version;
      want.flag = sent.flag;
      want.status = STATUS_FAILURE;
      if (sent.input) {
         want.dataAddr = reinterpret_cast<uintptr_t>(kVal);
         want.dataLen = 6;
         EXPECT_EQ(c.data, std::string(kVal, 6)) << sent.code;
      }
      if (sent.result) {
         EXPECT_NE(c.rec.dataAddr, 0u) << sent.code;
         want.dataAddr = c.rec.dataAddr;
         want.dataLen = DVSHYP_RESULT_CAPACITY;
         EXPECT_EQ(len_, DVSHYP_RESULT_CAPACITY);
         DVSHYP_DataFree(buf_);
      }
      EXPECT_EQ(c.code, sent.code);
      EXPECT_EQ(std::memcmp(&c.rec, &want, sizeof want), 0) << "command " << sent.code;
   }
   // Plain commands share one descriptor that stays open; each result
   // command opens its own and closes it.
   EXPECT_EQ(calls.size(), 1u);
   const int getFd = calls[0].fd;
   ASSERT_EQ(DVSHYP_StateCleanup(), STATUS_OK);
   ASSERT_EQ(DVSHYP_StateSanitize(), STATUS_OK);
   EXPECT_EQ(calls[1].fd, calls[2].fd);
   EXPECT_NE(calls[1].fd, getFd);
   EXPECT_NE(fcntl(calls[1].fd, F_GETFD), -1);
   EXPECT_EQ(fcntl(getFd, F_GETFD), -1);
}

TEST_F(ChannelDeviceTest, ResultBufferGrowsOnlyToALargerReportedNeed) {
   script = {{ENOSPC, STATUS_LIMIT_EXCEEDED, 40000}, {0, STATUS_OK, 40000}};
   ASSERT_EQ(DVSHYP_StateGet(&buf_, &len_), STATUS_OK);
   ASSERT_EQ(calls.size(), 2u);
   EXPECT_EQ(calls[0].rec.dataLen, 32768u);
   EXPECT_EQ(calls[1].rec.dataLen, 40000u);
   ASSERT_EQ(len_, 40000u);
   EXPECT_EQ(std::string(static_cast<char *>(buf_), len_), Pattern(40000));
   DVSHYP_DataFree(buf_);

   // A need not above the offer ends the get; so does any other refusal,
   // silently, with the kernel's status.
   for (const uint32_t need : {32768u, 100u}) {
      calls.clear();
      script = {{ENOSPC, STATUS_LIMIT_EXCEEDED, need}};
      buf_ = &len_;
      EXPECT_EQ(DVSHYP_PortStateGet("sw", "p", &buf_, &len_), STATUS_LIMIT_EXCEEDED);
      EXPECT_EQ(buf_, nullptr);
      EXPECT_EQ(calls.size(), 1u);
   }
   testing::internal::CaptureStderr();
   script = {{EINVAL, STATUS_NOT_FOUND, 0}};
   EXPECT_EQ(DVSHYP_GlobalPropGet("sw", "x", &buf_, &len_), STATUS_NOT_FOUND);
   EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
   EXPECT_EQ(buf_, nullptr);
}

TEST_F(ChannelDeviceTest, CmdExecRetriesWithEveryReportedNeed) {
   script = {{ENOSPC, STATUS_LIMIT_EXCEEDED, 100},
             {ENOSPC, STATUS_LIMIT_EXCEEDED, 100},
             {ENOSPC, STATUS_LIMIT_EXCEEDED, 50000},
             {0, STATUS_OK, 50000}};
   ASSERT_EQ(DVSHYP_CmdExec(kSw70.c_str(), "show ports", "abc", 3, &buf_, &len_), STATUS_OK);
   ASSERT_EQ(calls.size(), 4u);
   const uint32_t offered[] = {32768, 100, 100, 50000};
   for (size_t i = 0; i < 4; ++i) {
      EXPECT_EQ(calls[i].code, DVSHYP_CMD_EXEC);
      EXPECT_EQ(calls[i].rec.cmdOutLen, offered[i]) << i;
      EXPECT_EQ(calls[i].cmdIn, "abc");
      EXPECT_STREQ(calls[i].rec.cmdText, "show ports");
      EXPECT_EQ(calls[i].rec.status, STATUS_FAILURE);
      EXPECT_EQ(calls[i].rec.dataLen, 0u);
   }
   EXPECT_EQ(std::string(calls[0].rec.switchName), kSw70.substr(0, 63));
   ASSERT_EQ(len_, 50000u);
   EXPECT_EQ(std::string(static_cast<char *>(buf_), len_), Pattern(50000));
   DVSHYP_DataFree(buf_);

   script = {{EINVAL, STATUS_NOT_SUPPORTED, 0}};
   EXPECT_EQ(DVSHYP_CmdExec("sw", "x", nullptr, 0, &buf_, &len_), STATUS_NOT_SUPPORTED);
   EXPECT_EQ(buf_, nullptr);
}

TEST_F(ChannelDeviceTest, PlainCommandReportsTheKernelsStatus) {
   testing::internal::CaptureStderr();
   script = {{EPERM, STATUS_NOT_FOUND, 0}};
   EXPECT_EQ(DVSHYP_SwitchRemove("sw"), STATUS_NOT_FOUND);
   script = {{EIO, 0, 0, /*writeStatus=*/false}};  // the kernel never got to it
   EXPECT_EQ(DVSHYP_PortFind("sw", "p"), STATUS_FAILURE);
   EXPECT_EQ(testing::internal::GetCapturedStderr(),
             std::string("ioctl failed: ") + Err_Errno2String(EPERM) +
                "\nioctl failed: " + Err_Errno2String(EIO) + "\n");
   // A successful ioctl is success whatever the status field holds.
   script = {{0, STATUS_NOT_FOUND, 0}};
   EXPECT_EQ(DVSHYP_PortFind("sw", "p"), STATUS_OK);
}

}  // namespace
