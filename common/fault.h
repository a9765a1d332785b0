// Fatal faults and the type checks of ConfD values.
#pragma once

#include <cassert>

namespace pbr {

inline constexpr int kFaultMessageSize = 350;

// Reports a fatal fault and ends the process: backtrace, the message formatted into a zero-filled
// buffer of kFaultMessageSize characters (cut to fit), a severity-1 fault report naming `func`,
// `file` and `line`, then exit(1). `line` identifies the fault site to the element's fault
// management and is fixed per site, not taken from __LINE__. A null `format` gives an empty
// message.
[[noreturn]] void FatalFault(const char* func, const char* file, int line, const char* format, ...)
    __attribute__((format(printf, 4, 5)));

}  // namespace pbr

// Checks the ConfD type of a value the schema guarantees; the assertion text reads
// "(<value>)->type == <type>", for example "(&value)->type == C_UINT32".
#define PBR_ASSERT_TYPE(value, vtype) assert((value)->type == vtype)
