#pragma once

#include <string>

namespace link_tests {

/// A time zone without daylight saving.
struct Zone {
    const char* name;
    int minutesEast;
};

// Far apart, and from zone to zone in both directions, so that no two can be confused.
inline constexpr Zone utcZone{"UTC", 0};
inline constexpr Zone eastZone{"VEA", 570};
inline constexpr Zone westZone{"VWE", -480};

/// The zone files of a private machine, made here so that no test depends on what is installed, and its
/// `localtime`.
class TimeZones {
public:
    /// Puts the zone files into `directory` and makes `etc` + "/localtime" a link to UTC's.
    TimeZones(std::string directory, const std::string& etc);

    std::string fileOf(const Zone& zone) const { return m_directory + "/" + zone.name; }

    /// As timedated does it: a new link under another name, renamed over the old one.
    void setByRename(const Zone& zone) const;
    /// With `ln -sf`.
    void setByLinking(const Zone& zone) const;
    /// Makes `localtime` a regular file that was last written a while ago.
    void makeRegularFile(const Zone& zone) const;
    /// Writes the zone into the regular file that `localtime` is.
    void rewrite(const Zone& zone) const;
    /// As `cp -p` over the regular file that `localtime` is: same inode, and the time of before.
    void rewriteKeepingTheTime(const Zone& zone) const;
    /// Gives `zone` the rules of `rules`, as an upgrade of the zone data does: a new file, renamed over the
    /// old.
    void upgrade(const Zone& zone, const Zone& rules) const;
    /// Puts a pipe that nobody writes to in the place of `localtime`.
    void makePipe() const;
    void remove() const;

private:
    std::string m_directory;
    std::string m_localtime;
};

}  // namespace link_tests
