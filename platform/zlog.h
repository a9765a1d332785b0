// Logging contract: the part of zlog that the daemon calls. The categories come from the
// middleware (vqmw_trace_register_category); the element implements these functions.
#pragma once

#include <cstddef>

extern "C" {

typedef struct zlog_category_s zlog_category_t;

// Writes one record on `category` if `level` is enabled for it. `file` and `func` are not
// NUL-terminated necessarily: their lengths are passed alongside, as zlog's macros do.
void zlog(zlog_category_t* category, const char* file, size_t filelen, const char* func,
          size_t funclen, long line, int level, const char* format, ...)
    __attribute__((format(printf, 8, 9)));

// Non-zero when records of `level` on `category` would be written. Cheap: callers use it to
// skip formatting work for disabled records.
int zlog_level_enabled(zlog_category_t* category, int level);

}  // extern "C"
