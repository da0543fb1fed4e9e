#include "Json.h"

#include <array>
#include <cmath>
#include <cstdint>
#include <sstream>

#include "Text.h"

namespace sim {
namespace {

// The shortest sequences only, no surrogates, nothing beyond U+10FFFF (RFC 3629, section 4).
struct Sequence {
    unsigned char firstLow;
    unsigned char firstHigh;
    std::size_t length;
    unsigned char secondLow;
    unsigned char secondHigh;
};

constexpr std::array<Sequence, 8> sequences{{
    {0x00, 0x7f, 1, 0x80, 0xbf},
    {0xc2, 0xdf, 2, 0x80, 0xbf},
    {0xe0, 0xe0, 3, 0xa0, 0xbf},
    {0xe1, 0xec, 3, 0x80, 0xbf},
    {0xed, 0xed, 3, 0x80, 0x9f},
    {0xee, 0xef, 3, 0x80, 0xbf},
    {0xf0, 0xf0, 4, 0x90, 0xbf},
    {0xf1, 0xf4, 4, 0x80, 0xbf},
}};

unsigned char byteAt(std::string_view text, std::size_t index) {
    return static_cast<unsigned char>(text[index]);
}

bool continues(std::string_view text, const Sequence& sequence) {
    if (text.size() < sequence.length) {
        return false;
    }
    for (std::size_t index = 1; index < sequence.length; ++index) {
        const unsigned char low = index == 1 ? sequence.secondLow : 0x80;
        const unsigned char high = index == 1 ? sequence.secondHigh : 0xbf;
        if (byteAt(text, index) < low || byteAt(text, index) > high) {
            return false;
        }
    }
    // The four-byte sequences from F4 90 on lie beyond the last character.
    return byteAt(text, 0) != 0xf4 || byteAt(text, 1) < 0x90;
}

// How many bytes the character that `text` begins with has; 0 if it begins with none.
std::size_t lengthOfCharacter(std::string_view text) {
    for (const Sequence& sequence : sequences) {
        if (byteAt(text, 0) >= sequence.firstLow && byteAt(text, 0) <= sequence.firstHigh) {
            return continues(text, sequence) ? sequence.length : 0;
        }
    }
    return 0;
}

void appendCharacter(std::string& out, std::string_view character) {
    const char c = character.front();
    if (c == '"' || c == '\\') {
        out.append("\\").push_back(c);
    } else if (byteAt(character, 0) < 0x20) {
        out.append("\\u00").append(inHex(c));
    } else {
        out.append(character);
    }
}

std::string jsonHex(const XpcData& data) {
    std::string out = "\"";
    out.reserve(2 * data.length + 2);
    for (std::size_t index = 0; index < data.length; ++index) {
        out.append(inHex(data.bytes[index]));
    }
    return out + "\"";
}

std::string jsonReal(double number) {
    if (!std::isfinite(number)) {
        return "null";  // JSON has no such number
    }
    std::ostringstream out;
    out.precision(17);
    out << number;
    return out.str();
}

}  // namespace

std::string jsonText(std::string_view text) {
    std::string out = "\"";
    while (!text.empty()) {
        const std::size_t length = lengthOfCharacter(text);
        if (length == 0) {
            out.append("\\ufffd");
            text.remove_prefix(1);
        } else {
            appendCharacter(out, text.substr(0, length));
            text.remove_prefix(length);
        }
    }
    return out + "\"";
}

std::string jsonValue(const Value& value) {
    if (const bool* flag = std::get_if<bool>(&value)) {
        return *flag ? "true" : "false";
    }
    if (const auto* integer = std::get_if<std::int64_t>(&value)) {
        return std::to_string(*integer);
    }
    if (const auto* natural = std::get_if<std::uint64_t>(&value)) {
        return std::to_string(*natural);
    }
    if (const auto* real = std::get_if<double>(&value)) {
        return jsonReal(*real);
    }
    if (const auto* text = std::get_if<std::string_view>(&value)) {
        return jsonText(*text);
    }
    const auto* data = std::get_if<XpcData>(&value);
    return jsonHex(data == nullptr ? XpcData{} : *data);
}

std::string jsonArray(const Values& values) {
    std::string out = "[";
    for (const Value& value : values) {
        out.append(out.size() == 1 ? "" : ",").append(jsonValue(value));
    }
    return out + "]";
}

}  // namespace sim
