// Shared by the crash loops: child processes killed at random moments while
// they write durable state.  A loop runs a small number of rounds by
// default (make test) and its long count when DVS_KILL_LOOPS=long; a number
// there runs that many rounds of every loop.  Under AddressSanitizer the
// default counts shrink, since every round forks a sanitized process.
// Every loop also stops at a deadline, so that a slow machine shortens it
// instead of hanging the suite.
#ifndef TESTS_KILL_LOOP_SUPPORT_H
#define TESTS_KILL_LOOP_SUPPORT_H

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>

#if defined(__SANITIZE_ADDRESS__)
#define KILL_LOOP_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define KILL_LOOP_SANITIZED 1
#endif
#endif

namespace killloop {

constexpr const char *kEnv = "DVS_KILL_LOOPS";

inline bool LongMode() {
   const char *v = std::getenv(kEnv);
   return v != nullptr && std::strcmp(v, "long") == 0;
}

// The rounds to run: DVS_KILL_LOOPS=long gives `longRounds`, a positive
// number gives itself, anything else the default.
inline int Rounds(int defaultRounds, int longRounds) {
   const char *v = std::getenv(kEnv);
   if (LongMode()) {
      return longRounds;
   }
   if (v != nullptr && std::atoi(v) > 0) {
      return std::atoi(v);
   }
#ifdef KILL_LOOP_SANITIZED
   return defaultRounds / 4 > 1 ? defaultRounds / 4 : 1;
#else
   return defaultRounds;
#endif
}

// The time a loop may take: `defaultLimit` by default, half an hour in
// long mode.
inline std::chrono::steady_clock::time_point Deadline(std::chrono::seconds defaultLimit) {
   const auto limit = std::getenv(kEnv) != nullptr ? std::chrono::seconds(1800) : defaultLimit;
   return std::chrono::steady_clock::now() + limit;
}

inline double Seconds(std::chrono::steady_clock::time_point since) {
   return std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
}

inline double MonotonicMs() {
   timespec ts;
   clock_gettime(CLOCK_MONOTONIC, &ts);
   return ts.tv_sec * 1000.0 + ts.tv_nsec / 1e6;
}

// A generator seeded at random; the seed goes into every failure message.
struct Random {
   Random() : seed(std::random_device{}()), rng(seed), trace(__FILE__, __LINE__, Seed()) {}
   std::string Seed() const { return "seed " + std::to_string(seed); }
   // A whole number of microseconds in [0, maxUs].
   useconds_t Micros(double maxUs) {
      return static_cast<useconds_t>(std::uniform_real_distribution<double>(0, maxUs)(rng));
   }
   unsigned seed;
   std::mt19937 rng;
   testing::ScopedTrace trace;
};

// SIGKILLs `child` and reaps it; true when the kill ended it (it had not
// exited on its own before).
inline bool KillAndReap(pid_t child) {
   kill(child, SIGKILL);
   int status = 0;
   while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
   }
   return WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
}

// The figure a loop reports, also kept as a test property.
inline void Report(const std::string &loop, const std::string &figures) {
   std::printf("[kill loop] %s: %s\n", loop.c_str(), figures.c_str());
   std::fflush(stdout);
   testing::Test::RecordProperty(loop, figures);
}

}  // namespace killloop

#endif  // TESTS_KILL_LOOP_SUPPORT_H
