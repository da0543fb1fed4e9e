#pragma once

#include <cstdint>
#include <string>

/// The text of a zone file (RFC 8536, version 1) with one type of local time and no transitions, so that no
/// test depends on which zones are installed.
inline std::string zoneRules(const std::string& name, int minutesEast) {
    const auto bigEndian = [](std::uint32_t value) {
        std::string text;
        for (int shift = 24; shift >= 0; shift -= 8) {
            text += static_cast<char>((value >> shift) & 0xFFU);
        }
        return text;
    };
    std::string file = "TZif" + std::string(16, '\0');
    for (const std::uint32_t count : {0U, 0U, 0U, 0U, 1U, static_cast<std::uint32_t>(name.size() + 1)}) {
        file += bigEndian(count);
    }
    file += bigEndian(static_cast<std::uint32_t>(minutesEast * 60)) + std::string(2, '\0');
    return file + name + '\0';
}
