// Messages of the property family, gated by dvsdata_debug.
#ifndef DVS_DATA_DATA_TRACE_H
#define DVS_DATA_DATA_TRACE_H

#include <dvsdata.h>

#include "common/debug_log.h"

#define DATA_TRACE(level, ...) ::dvs::DebugLog(dvsdata_debug, (level), __VA_ARGS__)

#endif  // DVS_DATA_DATA_TRACE_H
