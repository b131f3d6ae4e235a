// property_list.cc -- owning wrappers around the libdvs property-list API.
#include "property_list.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <limits>

#include <hostlibs.h>

#include "error.h"

namespace dvsctl {

std::string DescribeStatus(ReturnStatus status) {
   char code[16];
   std::snprintf(code, sizeof code, "0x%x", static_cast<unsigned>(status));
   return std::string(HYP_ReturnStatusToString(status)) + " (" + code + ")";
}

std::string DescribeStatus(ReturnStatus status, const std::string &reason) {
   char code[16];
   std::snprintf(code, sizeof code, "0x%x", static_cast<unsigned>(status));
   return reason + " (" + HYP_ReturnStatusToString(status) + ", " + code + ")";
}

void CheckStatus(ReturnStatus status, const std::string &what) {
   if (status != STATUS_OK) {
      throw Error(what + ": " + DescribeStatus(status));
   }
}

PropertyListBuilder::PropertyListBuilder() {
   DVSDataHandle h = nullptr;
   const ReturnStatus status = DVSData_Alloc(&h, std::malloc, std::free);
   if (status != STATUS_OK) {
      throw Error("cannot create property list: " + DescribeStatus(status));
   }
   list_.reset(h);
}

PropertyListBuilder &PropertyListBuilder::Append(std::string_view name, const void *data,
                                                 uint32_t len, uint32_t flag) {
   // The library wants a NUL-terminated name.
   const std::string cname(name);
   const ReturnStatus status = DVSData_Append(list_.get(), cname.c_str(), data, len, flag);
   if (status != STATUS_OK) {
      throw Error("cannot add property \"" + cname + "\": " + DescribeStatus(status));
   }
   return *this;
}

PropertyListBuilder &PropertyListBuilder::Append(std::string_view name, const Bytes &value,
                                                 uint32_t flag) {
   if (value.size() > std::numeric_limits<uint32_t>::max()) {
      throw Error("property \"" + std::string(name) + "\" is too large");
   }
   return Append(name, value.data(), static_cast<uint32_t>(value.size()), flag);
}

PropertyListBuilder &PropertyListBuilder::AppendString(std::string_view name,
                                                       std::string_view value, uint32_t flag) {
   Bytes bytes(value.begin(), value.end());
   bytes.push_back(0);
   return Append(name, bytes, flag);
}

PropertyListBuilder &PropertyListBuilder::AppendU32(std::string_view name, uint32_t value,
                                                    uint32_t flag) {
   return Append(name, &value, sizeof value, flag);
}

Bytes PropertyListBuilder::Serialize() const {
   void *raw = nullptr;
   uint32_t len = 0;
   const ReturnStatus status = DVSData_Serialize(list_.get(), &raw, &len, DVSDATA_BLOB_VERSION);
   AssocDataPtr blob(raw, AssocDataDeleter{list_.get()});
   if (status != STATUS_OK) {
      throw Error("cannot serialize property list: " + DescribeStatus(status));
   }
   const auto *bytes = static_cast<const uint8_t *>(blob.get());
   return Bytes(bytes, bytes + len);
}

ReturnStatus DecodeList(const Bytes &blob, uint32_t typeMask, ListPtr &out) {
   out.reset();
   if (blob.size() > std::numeric_limits<uint32_t>::max()) {
      return STATUS_LIMIT_EXCEEDED;
   }
   DVSDataHandle h = nullptr;
   const ReturnStatus status = DVSData_DeserializeWithPropType(
      &h, blob.data(), static_cast<uint32_t>(blob.size()), std::malloc, std::free, typeMask);
   if (status == STATUS_OK) {
      out.reset(h);
   }
   return status;
}

namespace {

// Standard output sent into a temporary file for the guard's lifetime;
// Text() is what was written there.  A guard that could not redirect
// captures nothing and leaves standard output alone.
class CapturedStdout {
  public:
   CapturedStdout() {
      std::cout.flush();
      std::fflush(stdout);
      file_ = std::tmpfile();
      if (file_ == nullptr) {
         return;
      }
      saved_ = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3);
      if (saved_ >= 0 && dup2(fileno(file_), STDOUT_FILENO) < 0) {
         close(saved_);
         saved_ = -1;
      }
   }
   ~CapturedStdout() {
      Restore();
      if (file_ != nullptr) {
         std::fclose(file_);
      }
   }
   CapturedStdout(const CapturedStdout &) = delete;
   CapturedStdout &operator=(const CapturedStdout &) = delete;

   bool Active() const { return saved_ >= 0; }

   std::string Text() {
      if (!Active()) {
         return {};
      }
      Restore();
      std::string text;
      std::rewind(file_);
      char chunk[512];
      size_t n;
      while ((n = std::fread(chunk, 1, sizeof chunk, file_)) > 0) {
         text.append(chunk, n);
      }
      return text;
   }

  private:
   void Restore() {
      if (saved_ < 0) {
         return;
      }
      std::fflush(stdout);
      dup2(saved_, STDOUT_FILENO);
      close(saved_);
      saved_ = -1;
   }

   std::FILE *file_ = nullptr;
   int saved_ = -1;
};

// The reader's last message for `blob`, without its newline; "" when it
// gave none.
std::string ReaderReason(const Bytes &blob) {
   if (blob.size() > std::numeric_limits<uint32_t>::max()) {
      return {};
   }
   std::string text;
   {
      CapturedStdout captured;
      if (!captured.Active()) {
         return {};
      }
      const int32_t level = dvsdata_debug;
      dvsdata_debug = 0;  // failures only
      DVSDataHandle h = nullptr;
      if (DVSData_DeserializeWithPropType(&h, blob.data(), static_cast<uint32_t>(blob.size()),
                                          std::malloc, std::free, 0xffffffffu) == STATUS_OK) {
         DVSData_Free(h);
      }
      dvsdata_debug = level;
      text = captured.Text();
   }
   while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) {
      text.pop_back();
   }
   const size_t lastLine = text.rfind('\n');
   return lastLine == std::string::npos ? text : text.substr(lastLine + 1);
}

}  // namespace

Error DecodeError(const std::string &name, const Bytes &blob, ReturnStatus status) {
   const std::string reason = ReaderReason(blob);
   return Error(name + ": cannot decode blob: " +
                (reason.empty() ? DescribeStatus(status) : DescribeStatus(status, reason)));
}

}  // namespace dvsctl
