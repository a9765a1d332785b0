#include "common/fault.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "platform/vqmw.h"

namespace pbr {

void FatalFault(const char* func, const char* file, int line, const char* format, ...) {
  vqmw_print_backtrace();
  char message[kFaultMessageSize] = {};
  if (format != nullptr) {
    va_list args;
    va_start(args, format);
    vsnprintf(message, sizeof(message), format, args);
    va_end(args);
  }
  vqmw_gen_fault(1, func, file, line, message);
  exit(1);
}

}  // namespace pbr
