// Test scaffolding shared across suites: a temporary directory removed with
// everything in it, and standard output captured around a call.
#ifndef TESTS_SUPPORT_TEMP_DIR_H
#define TESTS_SUPPORT_TEMP_DIR_H

#include <stdlib.h>

#include <cstdio>
#include <filesystem>
#include <string>
#include <system_error>

#include <gtest/gtest.h>

namespace testsupport {

// A fresh directory /tmp/<prefix>-XXXXXX; empty path() (and a test
// failure) when it cannot be made.
class TempDir {
  public:
   explicit TempDir(const std::string &prefix = "dvs-test") {
      std::string templ = "/tmp/" + prefix + "-XXXXXX";
      if (mkdtemp(templ.data()) != nullptr) {
         path_ = templ;
      } else {
         ADD_FAILURE() << "cannot make a directory from " << templ;
      }
   }
   ~TempDir() {
      std::error_code ec;
      if (!path_.empty())
         std::filesystem::remove_all(path_, ec);
   }
   TempDir(const TempDir &) = delete;
   TempDir &operator=(const TempDir &) = delete;

   const std::string &path() const { return path_; }
   std::string operator/(const std::string &name) const { return path_ + "/" + name; }

  private:
   std::string path_;
};

// Standard output written while f() runs.
template <class F>
std::string CapturedStdout(F f) {
   std::fflush(stdout);
   testing::internal::CaptureStdout();
   f();
   std::fflush(stdout);
   return testing::internal::GetCapturedStdout();
}

}  // namespace testsupport

#endif  // TESTS_SUPPORT_TEMP_DIR_H
