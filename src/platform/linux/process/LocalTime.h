#pragma once

#include <optional>
#include <string>

namespace platform {

/// The rules in the file at `path`, up to a bound far above any zone's; nothing when there is no regular
/// file. Waits for no writer, as it would at a pipe. Any thread.
std::optional<std::string> readZoneRules(const std::string& path);

/// Takes local time into our own hands, and has it follow /etc/localtime as it is now. A variable TZ is
/// forgotten. Call once, before the process has a second thread.
void prepareLocalTime() noexcept;

/// Has the C library's local time follow `rules`, the text of a zone file; without them, and with a text that
/// is none, it is UTC. All threads see the change at once, none sees anything between. False if the process
/// has no descriptor or memory left for it, and then nothing has changed. On one thread only, after
/// prepareLocalTime().
bool setLocalTime(const std::optional<std::string>& rules) noexcept;

}  // namespace platform
