/*
 * status_text.cc -- short texts for ReturnStatus codes.
 */
#include "hostlibs.h"

#include <cstdio>

extern "C" {

HOSTLIBS_EXPORT const char *HYP_ReturnStatusToString(ReturnStatus status) {
   switch (status) {
      case STATUS_OK:
         return "Success";
      case STATUS_FAILURE:
         return "Failure";
      case STATUS_NOT_FOUND:
         return "Not found";
      case STATUS_EXISTS:
         return "Already exists";
      case STATUS_LIMIT_EXCEEDED:
         return "Limit exceeded";
      case STATUS_BAD_PARAM:
         return "Bad parameter";
      case STATUS_EMPTY:
         return "Empty";
      case STATUS_IO_ERROR:
         return "I/O error";
      case STATUS_READ_ERROR:
         return "Read error";
      case STATUS_WRITE_ERROR:
         return "Write error";
      case STATUS_NO_MEMORY:
         return "Out of memory";
      case STATUS_NOT_SUPPORTED:
         return "Not supported";
      case STATUS_BAD_CHECKSUM:
         return "Bad checksum";
      default:
         break;
   }
   /* Per-thread buffer: the text stays valid until this thread's next
    * unknown code, and other threads cannot overwrite it. */
   thread_local char unknown[32];
   std::snprintf(unknown, sizeof unknown, "Unknown status 0x%x", static_cast<unsigned>(status));
   return unknown;
}

}  // extern "C"
