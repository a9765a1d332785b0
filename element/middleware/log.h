// The element's own log: where zlog records, fault reports and the element libraries' messages
// go. Configured from PBR_ELEMENT_LOG (a file path, or "stderr", the default) and
// PBR_ELEMENT_TRACE (trace_config.h). Single-threaded, like the rest of the element.
#pragma once

#include <spdlog/logger.h>

#include <string>
#include <string_view>

namespace vqmw {

// The element's logger. Its level lets everything through: zlog records are filtered per
// category before they reach it, and the element's own warnings and errors are always written.
spdlog::logger& Logger();

// Reads PBR_ELEMENT_LOG and PBR_ELEMENT_TRACE again and applies them to the logger and to every
// category registered so far. vqmw_init calls it, so a process is configured as it registers.
void ReloadLogConfig();

// Opens the log file again under its configured name, for log rotation (SIGHUP); trace levels
// stay as they are.
void ReopenLog();

// Changes trace levels at run time, in PBR_ELEMENT_TRACE's syntax ("pbr-app_cache=10", "*=off");
// a "*" entry sets every category. False with *error, changing nothing, when an entry is
// malformed.
bool ChangeTrace(std::string_view text, std::string* error);

// The trace levels in force: the default and every category registered or named.
std::string TraceText();

// The last component of a source file path: records name files, not build directories.
std::string_view BaseName(std::string_view file);

}  // namespace vqmw
