// Every log record of the daemon goes through PBR_LOG: zlog at the trace level, with the source
// file's base name, the function and the line.
#pragma once

#include <cstring>

#include "platform/zlog.h"

namespace pbr {

inline constexpr int kTraceLevel = 10;

}  // namespace pbr

#define PBR_LOG(category, ...)                                                               \
  zlog((category), __FILE_NAME__, sizeof(__FILE_NAME__) - 1, __func__, sizeof(__func__) - 1, \
       __LINE__, ::pbr::kTraceLevel, __VA_ARGS__)

// True when trace records on `category` are written: callers skip building address texts
// for records that would be dropped.
#define PBR_LOG_ENABLED(category) (zlog_level_enabled((category), ::pbr::kTraceLevel) != 0)
