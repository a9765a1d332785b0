// Middleware contract: process registration, log categories, the event loop and fault reports.
// Everything here is called on the process's one thread.
#pragma once

#include "platform/zlog.h"

extern "C" {

typedef struct vqmw_s vqmw_t;

// Registers the process under `app_name`; null when it cannot be registered (for example
// because another process holds the name).
vqmw_t* vqmw_init(const char* app_name);

// A log category by name; never released by the caller.
zlog_category_t* vqmw_trace_register_category(const char* name);

// Runs the loop while *running is true and the middleware has not been told to stop.
// timeout 0 runs until the middleware ends the loop. Returns 0 on a normal end, non-zero
// when the loop itself failed. Every callback of the element's libraries runs inside it.
int vqmw_loop_while_timeout(vqmw_t* mw, bool* running, int timeout);

// Records one fault report. Severity 1 is fatal (the caller exits), 0 is an error that the
// process survives.
void vqmw_gen_fault(int severity, const char* func, const char* file, int line,
                    const char* message);

// Prints a symbolised backtrace of the calling thread to the fault log.
void vqmw_print_backtrace(void);

// Releases everything vqmw_init set up and clears *mw.
void vqmw_finish(vqmw_t** mw);

}  // extern "C"
