#pragma once

#include <string>
#include <string_view>

#include "Value.h"

/// Values as JSON (RFC 8259). All functions are pure; any thread.
namespace sim {

/// A JSON string. What is not UTF-8 in `text` becomes U+FFFD, byte by byte, as JSON has no other text.
std::string jsonText(std::string_view text);

/// A number, true or false, or a string; of data all bytes, as a string of hexadecimal digits.
std::string jsonValue(const Value& value);

/// An array of the values.
std::string jsonArray(const Values& values);

}  // namespace sim
