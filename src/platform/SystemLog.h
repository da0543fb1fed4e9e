#pragma once

namespace platform {

/// Writes one line to the system's own log: `text` directly followed by `path`, both UTF-8. Any thread;
/// reports no failure.
void writeSystemLog(const char* text, const char* path);

}  // namespace platform
