// The element's own log: where zlog records, fault reports and the element libraries' messages
// go. Configured from PBR_ELEMENT_LOG (a file path, or "stderr", the default) and
// PBR_ELEMENT_TRACE (trace_config.h). Single-threaded, like the rest of the element.
#pragma once

#include <spdlog/logger.h>

namespace vqmw {

// The element's logger. Its level lets everything through: zlog records are filtered per
// category before they reach it, and the element's own warnings and errors are always written.
spdlog::logger& Logger();

// Reads PBR_ELEMENT_LOG and PBR_ELEMENT_TRACE again and applies them to the logger and to every
// category registered so far. vqmw_init calls it, so a process is configured as it registers.
void ReloadLogConfig();

}  // namespace vqmw
