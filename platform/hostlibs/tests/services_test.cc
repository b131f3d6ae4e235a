#include "hostlibs.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <thread>

namespace {

/* Restores an environment variable when the test ends. */
struct EnvGuard {
   explicit EnvGuard(const char *n) : name(n) {
      if (const char *v = getenv(n))
         saved = v;
   }
   ~EnvGuard() { saved ? setenv(name, saved->c_str(), 1) : unsetenv(name); }
   const char *name;
   std::optional<std::string> saved;
};

TEST(Ksi, MaxPortsFromEnvironment) {
   EnvGuard guard(KSI_MAX_PORTS_ENV);
   const uint16_t node = KSI_NODE_net_maxPortsSystemWide;
   uint32_t v = 0;
   unsetenv(KSI_MAX_PORTS_ENV);
   EXPECT_EQ(KSI_Get(node, 0, &v, 4), STATUS_OK);
   EXPECT_EQ(v, 4096u);
   for (auto [text, want] : {std::pair{"1", 1u}, {"65536", 65536u}, {"0100", 100u}}) {
      setenv(KSI_MAX_PORTS_ENV, text, 1);
      EXPECT_EQ(KSI_Get(node, 0, &v, 4), STATUS_OK) << text;
      EXPECT_EQ(v, want) << text;
   }
   for (const char *bad : {"0", "65537", "99999999999", "abc", "12x", "", "-5", " 7", "0x10"}) {
      setenv(KSI_MAX_PORTS_ENV, bad, 1);
      EXPECT_EQ(KSI_Get(node, 0, &v, 4), STATUS_BAD_PARAM) << '"' << bad << '"';
   }
   uint64_t wide = 0;
   EXPECT_EQ(KSI_Get(node + 1, 0, &v, 4), STATUS_NOT_FOUND);
   EXPECT_EQ(KSI_Get(node, 1, &v, 4), STATUS_NOT_FOUND);
   EXPECT_EQ(KSI_Get(node, 0, &wide, 8), STATUS_BAD_PARAM);
   EXPECT_EQ(KSI_Get(node, 0, nullptr, 4), STATUS_BAD_PARAM);
   EXPECT_EQ(KSI_CheckSig("test", KSI_SIGNATURE_VERSION), STATUS_OK);
   EXPECT_EQ(KSI_CheckSig("test", KSI_SIGNATURE_VERSION + 1), STATUS_NOT_SUPPORTED);
}

TEST(Strings, CopyFormatAndErrnoText) {
   char buf[4];
   EXPECT_STREQ(Str_Strcpy(buf, "hello", sizeof buf), "hel");
   EXPECT_STREQ(Str_Strcpy(buf, "abc", sizeof buf), "abc");
   EXPECT_STREQ(Str_Strcpy(buf, "zzz", 1), "");

   size_t len = 0;
   char *s = Str_SafeAsprintf(&len, "%s-%d|%3000s", "ab", 42, "end");
   ASSERT_NE(s, nullptr);
   EXPECT_EQ(len, 3006u);
   EXPECT_EQ(std::string(s, 6), "ab-42|");
   EXPECT_STREQ(s + len - 3, "end");
   free(s);

   EXPECT_GT(strlen(Err_Errno2String(ENOENT)), 0u);
   // Unknown errno values are formatted into the buffer, so two threads
   // would see each other's text if the buffer were shared.
   std::atomic<int> ready{0};
   std::string texts[2];
   auto worker = [&](int i) {
      const char *t = Err_Errno2String(10001 + i);
      for (ready++; ready.load() < 2;)
         std::this_thread::yield();
      texts[i] = t;
   };
   std::thread a(worker, 0), b(worker, 1);
   a.join(), b.join();
   EXPECT_NE(texts[0].find("10001"), std::string::npos) << texts[0];
   EXPECT_NE(texts[1].find("10002"), std::string::npos) << texts[1];
}

TEST(Strings, StatusTexts) {
   const std::pair<ReturnStatus, const char *> known[] = {{STATUS_OK, "Success"},
                                                          {STATUS_FAILURE, "Failure"},
                                                          {STATUS_NOT_FOUND, "Not found"},
                                                          {STATUS_EXISTS, "Already exists"},
                                                          {STATUS_LIMIT_EXCEEDED, "Limit exceeded"},
                                                          {STATUS_BAD_PARAM, "Bad parameter"},
                                                          {STATUS_EMPTY, "Empty"},
                                                          {STATUS_IO_ERROR, "I/O error"},
                                                          {STATUS_READ_ERROR, "Read error"},
                                                          {STATUS_WRITE_ERROR, "Write error"},
                                                          {STATUS_NO_MEMORY, "Out of memory"},
                                                          {STATUS_NOT_SUPPORTED, "Not supported"},
                                                          {STATUS_BAD_CHECKSUM, "Bad checksum"}};
   for (const auto &[code, text] : known)
      EXPECT_STREQ(HYP_ReturnStatusToString(code), text);
   EXPECT_STREQ(HYP_ReturnStatusToString(0xbad0099u), "Unknown status 0xbad0099");
}

TEST(Log, StderrOnlyWhenRequested) {
   EnvGuard guard(HOSTLIBS_LOG_STDERR_ENV);
   setenv(HOSTLIBS_LOG_STDERR_ENV, "1", 1);
   testing::internal::CaptureStderr();
   Log(LOG_LEVEL_INFO, "port %d of %s", 7, "sw0");
   Log(LOG_LEVEL_ERROR, "ends with newline\n");
   Log(-3, "%s", std::string(2000, 'L').c_str());  // longer than any stack buffer
   EXPECT_EQ(testing::internal::GetCapturedStderr(),
             "port 7 of sw0\nends with newline\n" + std::string(2000, 'L') + "\n");

   unsetenv(HOSTLIBS_LOG_STDERR_ENV);
   testing::internal::CaptureStderr();
   Log(LOG_LEVEL_DEBUG, "quiet");
   EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

}  // namespace
