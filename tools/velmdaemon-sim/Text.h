#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "Value.h"

/// Values as one line shows them. All functions are pure; any thread.
namespace sim {

/// `text` with blanks behind it up to `width`, and at least one.
std::string padded(std::string_view text, std::size_t width);

/// `text` in double quotes with control characters escaped; of a long text the beginning and its length in
/// bytes. Bytes beyond ASCII are passed on, so that UTF-8 stays readable.
std::string inQuotes(std::string_view text);

/// YES or NO.
std::string describe(bool flag);

/// The length and, if there are any bytes, the first of them in hexadecimal and as text.
std::string describe(const XpcData& data);

/// Any value: data as above, text in quotes, numbers in decimal.
std::string describe(const Value& value);

/// The arguments of a method in one line, each but the first with its label in `selector`.
std::string describe(std::string_view selector, const Values& arguments);

/// The byte as two hexadecimal digits.
std::string inHex(char byte);

}  // namespace sim
