/*
 * strings.cc -- formatted allocation, bounded copy and errno texts.
 */
#include "hostlibs.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

/* glibc with _GNU_SOURCE returns a char * that may or may not be `buf`;
 * the XSI variant returns 0 and always fills `buf`.  Overloading on the
 * return type handles whichever one the C library declares. */
[[maybe_unused]] const char *StrerrorResult(char *result, char *) {
   return result;
}

[[maybe_unused]] const char *StrerrorResult(int rc, char *buf) {
   return rc == 0 ? buf : nullptr;
}

}  // namespace

extern "C" {

HOSTLIBS_EXPORT char *Str_SafeAsprintf(size_t *length, const char *fmt, ...) {
   if (fmt == nullptr) {
      return nullptr;
   }
   va_list ap;
   va_start(ap, fmt);
   va_list measure;
   va_copy(measure, ap);
   const int needed = std::vsnprintf(nullptr, 0, fmt, measure);
   va_end(measure);

   char *result = nullptr;
   if (needed >= 0) {
      const size_t size = static_cast<size_t>(needed) + 1;
      result = static_cast<char *>(std::malloc(size));
      if (result != nullptr && std::vsnprintf(result, size, fmt, ap) != needed) {
         std::free(result);
         result = nullptr;
      }
   }
   va_end(ap);

   if (result != nullptr && length != nullptr) {
      *length = static_cast<size_t>(needed);
   }
   return result;
}

HOSTLIBS_EXPORT char *Str_Strcpy(char *dst, const char *src, size_t size) {
   if (dst == nullptr || size == 0) {
      return dst;
   }
   const size_t n = src != nullptr ? strnlen(src, size - 1) : 0;
   if (n > 0) {
      std::memmove(dst, src, n);
   }
   dst[n] = '\0';
   return dst;
}

HOSTLIBS_EXPORT const char *Err_Errno2String(int err) {
   thread_local char buf[128];
   buf[0] = '\0';
   const char *text = StrerrorResult(strerror_r(err, buf, sizeof buf), buf);
   if (text == nullptr || text[0] == '\0') {
      std::snprintf(buf, sizeof buf, "Unknown error %d", err);
      return buf;
   }
   return text;
}

}  // extern "C"
