/*
 * log.cc -- the host log: syslog, plus standard error on request.
 *
 * The message is formatted once into a buffer and that text is sent to both
 * destinations, so the caller's va_list is walked by one formatting pass
 * only (plus a copy for measuring when the text outgrows the stack buffer).
 */
#include "hostlibs.h"

#include <syslog.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

int LevelToPriority(int level) {
   switch (level) {
      case LOG_LEVEL_ERROR:
         return LOG_ERR;
      case LOG_LEVEL_WARNING:
         return LOG_WARNING;
      case LOG_LEVEL_INFO:
         return LOG_INFO;
      default:
         return level < 0 ? LOG_ERR : LOG_DEBUG;
   }
}

void Emit(int priority, const char *text) {
   syslog(LOG_USER | priority, "%s", text);
   if (std::getenv(HOSTLIBS_LOG_STDERR_ENV) != nullptr) {
      const size_t len = std::strlen(text);
      const bool hasNewline = len > 0 && text[len - 1] == '\n';
      /* One call per line so that lines from several threads do not mix. */
      std::fprintf(stderr, "%s%s", text, hasNewline ? "" : "\n");
   }
}

}  // namespace

extern "C" {

HOSTLIBS_EXPORT void LogV(int level, const char *fmt, va_list ap) {
   if (fmt == nullptr) {
      return;
   }
   const int priority = LevelToPriority(level);

   char small[512];
   va_list measure;
   va_copy(measure, ap);
   const int needed = std::vsnprintf(small, sizeof small, fmt, measure);
   va_end(measure);
   if (needed < 0) {
      Emit(priority, fmt); /* unformattable: log the format itself */
      return;
   }
   if (static_cast<size_t>(needed) < sizeof small) {
      Emit(priority, small);
      return;
   }

   char *big = static_cast<char *>(std::malloc(static_cast<size_t>(needed) + 1));
   if (big == nullptr) {
      Emit(priority, small); /* short of memory: the truncated text will do */
      return;
   }
   va_list again;
   va_copy(again, ap);
   std::vsnprintf(big, static_cast<size_t>(needed) + 1, fmt, again);
   va_end(again);
   Emit(priority, big);
   std::free(big);
}

HOSTLIBS_EXPORT void Log(int level, const char *fmt, ...) {
   va_list ap;
   va_start(ap, fmt);
   LogV(level, fmt, ap);
   va_end(ap);
}

}  // extern "C"
