#pragma once

#include <sys/types.h>

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>

namespace platform {

/// What the system's local time rests on at one moment.
struct TimeZoneFile {
    /// What the link names, absolute and without ".." or doubled slashes; empty when it is no link, or
    /// missing.
    std::string zone;
    /// The file's content up to a bound far above any zone's, nothing when there is no regular file.
    std::optional<std::string> content;
    /// When the content was last written to; zero without a content.
    std::time_t modified = 0;
};

/// Reads `directory`/localtime. `directory` is absolute. Reads a bounded amount and never waits for a writer.
TimeZoneFile readTimeZoneFile(const std::string& directory);

/// `path` without ".", ".." and doubled slashes, made absolute against the absolute `directory` by the text
/// alone, whatever the file system has there.
std::string absoluteNormalPath(const std::string& directory, const std::string& path);

/// Remembers the zone that was seen last. No input or output of its own; one thread.
class TimeZoneState {
public:
    explicit TimeZoneState(TimeZoneFile file);

    /// Whether `file` stands for another zone than the last one seen: another content, or another name where
    /// both have one. A plain file has no name, so that copying the present zone over its link changes
    /// nothing.
    bool differs(const TimeZoneFile& file) const;
    /// Makes `file` the one seen last.
    void take(TimeZoneFile file);

private:
    TimeZoneFile m_last;
};

}  // namespace platform
