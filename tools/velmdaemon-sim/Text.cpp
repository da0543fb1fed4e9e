#include "Text.h"

#include <algorithm>
#include <cstdint>
#include <sstream>

namespace sim {
namespace {

constexpr std::size_t shownTextBytes = 80;
constexpr std::size_t shownDataBytes = 16;

constexpr std::string_view hexDigits = "0123456789abcdef";

bool isControl(char c) {
    return static_cast<unsigned char>(c) < 0x20 || c == 0x7f;
}

bool isPrintableAscii(char c) {
    return c >= 0x20 && c < 0x7f;
}

// Where to cut so that no UTF-8 sequence is torn.
std::size_t cutBefore(std::string_view text, std::size_t end) {
    while (end > 0 && end < text.size() && (static_cast<unsigned char>(text[end]) & 0xC0U) == 0x80) {
        --end;
    }
    return std::min(end, text.size());
}

void appendEscaped(std::string& out, char c) {
    switch (c) {
        case '\n':
            out += "\\n";
            break;
        case '\r':
            out += "\\r";
            break;
        case '\t':
            out += "\\t";
            break;
        default:
            out += "\\x" + inHex(c);
    }
}

}  // namespace

std::string inHex(char byte) {
    const auto value = static_cast<unsigned char>(byte);
    return {hexDigits[value >> 4U], hexDigits[value & 0x0FU]};
}

std::string padded(std::string_view text, std::size_t width) {
    std::string out(text);
    out.append(std::max(width, text.size() + 1) - text.size(), ' ');
    return out;
}

std::string inQuotes(std::string_view text) {
    const std::size_t shown = cutBefore(text, shownTextBytes);
    std::string out = "\"";
    for (const char c : text.substr(0, shown)) {
        if (isControl(c)) {
            appendEscaped(out, c);
        } else {
            out.push_back(c);
        }
    }
    out += '"';
    if (shown < text.size()) {
        out += "... (" + std::to_string(text.size()) + " bytes)";
    }
    return out;
}

std::string describe(bool flag) {
    return flag ? "YES" : "NO";
}

std::string describe(const XpcData& data) {
    std::string out = std::to_string(data.length) + (data.length == 1 ? " byte" : " bytes");
    if (data.length == 0) {
        return out;
    }
    const std::string_view shown(data.bytes, std::min(data.length, shownDataBytes));
    std::string text;
    out += ' ';
    for (const char byte : shown) {
        out += ' ' + inHex(byte);
        text.push_back(isPrintableAscii(byte) ? byte : '.');
    }
    const char* more = shown.size() < data.length ? "..." : "";
    return out + more + "  |" + text + "|" + more;
}

std::string describe(const Value& value) {
    if (const bool* flag = std::get_if<bool>(&value)) {
        return describe(*flag);
    }
    if (const auto* text = std::get_if<std::string_view>(&value)) {
        return inQuotes(*text);
    }
    if (const auto* data = std::get_if<XpcData>(&value)) {
        return describe(*data);
    }
    std::ostringstream out;
    if (const auto* integer = std::get_if<std::int64_t>(&value)) {
        out << *integer;
    } else if (const auto* natural = std::get_if<std::uint64_t>(&value)) {
        out << *natural;
    } else if (const auto* real = std::get_if<double>(&value)) {
        out << *real;
    }
    return out.str();
}

std::string describe(std::string_view selector, const Values& arguments) {
    std::string out;
    for (const Value& argument : arguments) {
        const std::size_t colon = std::min(selector.find(':'), selector.size());
        if (!out.empty()) {
            out.append(" ").append(selector.substr(0, colon)).append("=");
        }
        out.append(describe(argument));
        selector.remove_prefix(std::min(colon + 1, selector.size()));
    }
    return out;
}

}  // namespace sim
