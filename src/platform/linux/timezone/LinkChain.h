#pragma once

#include <map>
#include <set>
#include <string>

namespace platform {

/// The way from a path to the file that it stands for.
struct LinkChain {
    /// Each directory that the way leads through, by its path without links, and the names in it on which the
    /// way depends: those that are links, that are missing, and that of the file itself. A directory without
    /// such a name is only passed through.
    std::map<std::string, std::set<std::string>> directories;
    /// The path of the file, without links; empty where the way ends at something that is missing, at a file
    /// in a directory's place or in a circle.
    std::string file;
    /// The zone that the first link into a directory "zoneinfo" names, "Europe/Berlin"; empty if none does. A
    /// link of the zone data's own, from one name of a zone to another, is not looked at for it.
    std::string zone;
};

/// Follows `path`, which is absolute. What it reads of the file system is a snapshot only if nothing changes
/// meanwhile.
LinkChain followLinks(const std::string& path);

}  // namespace platform
