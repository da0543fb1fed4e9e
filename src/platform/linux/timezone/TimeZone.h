#pragma once

#include <optional>
#include <string>

namespace platform {

/// The machine's time zone at one moment.
struct TimeZone {
    /// Its name, "Europe/Berlin"; empty where none is to be had: the file is no link into the zone data, or
    /// something is mounted over it.
    std::string name;
    /// The text of its file; nothing without a regular file, which stands for UTC.
    std::optional<std::string> rules;
};

/// Reads the zone that the file or link at `path`, which is absolute, stands for. Reads a bounded amount and
/// waits for nobody.
TimeZone readTimeZone(const std::string& path);

/// Whether both are the same zone. Where both have a name the name decides, so that new rules make no other
/// zone; a plain copy of a zone's file is that zone.
bool isSameZone(const TimeZone& one, const TimeZone& other);

}  // namespace platform
