#pragma once

#include <optional>
#include <string>

namespace platform {

/// The path of `component` inside the user's home directory as UTF-8 bytes, or nothing where the platform
/// cannot give it. Touches no file. Any thread.
std::optional<std::string> pathInHomeDirectory(const std::string& component);

}  // namespace platform
