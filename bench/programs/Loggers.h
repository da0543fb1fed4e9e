#pragma once

#include <functional>
#include <string>

namespace bench {

/// A statement of each other logger, set up as its own manual shows: a file flushed line by line, and
/// standard output (standard error for the one that knows no other).
std::function<void(int)> spdlogStatement(const std::string& file);
std::function<void(int)> glogStatement(const std::string& file);
std::function<void(int)> boostLogStatement(const std::string& file);

}  // namespace bench
