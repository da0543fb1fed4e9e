#pragma once

#include "logging/Log.h"

/// Writes one log line made of `parts`, streamed one after the other, if the logger's level lets `level`
/// through; no line, stream or thread is made otherwise. Returns when the line is written. Any thread.
template <typename... Parts>
void logLine(Logging::Level level, const Parts&... parts) {
    if (Logging::isLogged(level)) {
        Logging::Logger::Helper helper(level);
        (helper.stream_std() << ... << parts);
    }
}
