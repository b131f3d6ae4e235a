// Debug-level gated messages on standard output.
//
// Each module of the library has an exported signed debug level; a message
// is printed when that level is at least the message's own level.  Lines
// are flushed at once so that a process that dies right after still shows
// them and so that tests capturing standard output see every line.
#ifndef DVS_COMMON_DEBUG_LOG_H
#define DVS_COMMON_DEBUG_LOG_H

#include <cstdarg>
#include <cstdint>
#include <cstdio>

namespace dvs {

__attribute__((format(printf, 3, 4))) inline void DebugLog(int32_t moduleLevel,
                                                           int32_t messageLevel, const char *fmt,
                                                           ...) {
   if (moduleLevel < messageLevel) {
      return;
   }
   va_list ap;
   va_start(ap, fmt);
   std::vfprintf(stdout, fmt, ap);
   va_end(ap);
   std::fflush(stdout);
}

}  // namespace dvs

#endif  // DVS_COMMON_DEBUG_LOG_H
