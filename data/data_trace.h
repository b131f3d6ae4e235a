// Messages of the property family, gated by dvsdata_debug.
#ifndef DVS_DATA_DATA_TRACE_H
#define DVS_DATA_DATA_TRACE_H

#include <dvsdata.h>

#include "common/debug_log.h"

// The level is tested here, so that a silent trace in a per-record loop
// costs a compare rather than a call.
#define DATA_TRACE(level, ...)                                 \
   do {                                                        \
      if (dvsdata_debug >= (level)) {                          \
         ::dvs::DebugLog(dvsdata_debug, (level), __VA_ARGS__); \
      }                                                        \
   } while (0)

#endif  // DVS_DATA_DATA_TRACE_H
