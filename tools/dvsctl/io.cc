// io.cc -- whole-file input and output for dvsctl.
#include "io.h"

#include <cerrno>
#include <cstdio>
#include <memory>
#include <ostream>

#include <hostlibs.h>

#include "error.h"

namespace dvsctl {
namespace {

struct FileCloser {
   void operator()(std::FILE *f) const noexcept { std::fclose(f); }
};
using FilePtr = std::unique_ptr<std::FILE, FileCloser>;

[[noreturn]] void Fail(const std::string &what, const std::string &name, int err) {
   throw Error(name + ": " + what + ": " + Err_Errno2String(err));
}

}  // namespace

std::string DisplayName(const std::string &path, bool writing) {
   if (path == "-") {
      return writing ? "<stdout>" : "<stdin>";
   }
   return path;
}

void FlushOutput(std::ostream &out) {
   out.flush();
   if (!out) {
      throw Error("<stdout>: cannot write output");
   }
}

Bytes ReadAll(const std::string &path) {
   const std::string name = DisplayName(path);
   FilePtr owned;
   std::FILE *in = stdin;
   if (path != "-") {
      owned.reset(std::fopen(path.c_str(), "rb"));
      if (!owned) {
         Fail("cannot open", name, errno);
      }
      in = owned.get();
   }

   Bytes data;
   uint8_t chunk[64 * 1024];
   for (;;) {
      const size_t n = std::fread(chunk, 1, sizeof chunk, in);
      data.insert(data.end(), chunk, chunk + n);
      if (n < sizeof chunk) {
         break;
      }
   }
   // fread gives no reason of its own; errno still holds the one from the
   // failed read (EISDIR for a directory, EIO, ...).
   if (std::ferror(in)) {
      Fail("cannot read", name, errno);
   }
   return data;
}

void WriteAll(const std::string &path, const Bytes &data) {
   const std::string name = DisplayName(path, true);
   if (path == "-") {
      if (std::fwrite(data.data(), 1, data.size(), stdout) != data.size() ||
          std::fflush(stdout) != 0) {
         Fail("cannot write", name, errno);
      }
      return;
   }

   FilePtr out(std::fopen(path.c_str(), "wb"));
   if (!out) {
      Fail("cannot create", name, errno);
   }
   if (std::fwrite(data.data(), 1, data.size(), out.get()) != data.size()) {
      Fail("cannot write", name, errno);
   }
   // Buffered data reaches the file only at close: a full disk shows here.
   if (std::fclose(out.release()) != 0) {
      Fail("cannot write", name, errno);
   }
}

}  // namespace dvsctl
