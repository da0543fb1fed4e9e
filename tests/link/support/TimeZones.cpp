#include "link/support/TimeZones.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "link/support/ChildProcess.h"
#include "support/ZoneRules.h"

namespace link_tests {
namespace {

std::string contentsOf(const Zone& zone) {
    return zoneRules(zone.name, zone.minutesEast);
}

void mustBeZero(int result, const std::string& what) {
    if (result != 0) {
        throw std::system_error(errno, std::generic_category(), what);
    }
}

}  // namespace

TimeZones::TimeZones(std::string directory, const std::string& etc)
    : m_directory(std::move(directory)), m_localtime(etc + "/localtime") {
    for (const Zone& zone : {utcZone, eastZone, westZone}) {
        std::ofstream(fileOf(zone), std::ios::binary) << contentsOf(zone);
    }
    mustBeZero(::symlink(fileOf(utcZone).c_str(), m_localtime.c_str()), m_localtime);
}

void TimeZones::setByRename(const Zone& zone) const {
    const std::string aside = m_localtime.substr(0, m_localtime.rfind('/')) + "/.#localtimeaF3x";
    mustBeZero(::symlink(fileOf(zone).c_str(), aside.c_str()), aside);
    mustBeZero(::rename(aside.c_str(), m_localtime.c_str()), m_localtime);
}

void TimeZones::setByLinking(const Zone& zone) const {
    ChildProcess linking({"/bin/ln", "-sf", fileOf(zone), m_localtime}, {});
    if (linking.awaitEnd() != "exit 0") {
        throw std::runtime_error("ln -sf fails");
    }
}

void TimeZones::makeRegularFile(const Zone& zone) const {
    remove();
    std::ofstream(m_localtime, std::ios::binary) << contentsOf(zone);
    using std::filesystem::last_write_time;
    last_write_time(m_localtime, last_write_time(m_localtime) - std::chrono::hours(1));
}

void TimeZones::rewrite(const Zone& zone) const {
    std::fstream file(m_localtime, std::ios::binary | std::ios::in | std::ios::out);
    file << contentsOf(zone);
    if (!file.flush()) {
        throw std::runtime_error("cannot rewrite " + m_localtime);
    }
}

void TimeZones::rewriteKeepingTheTime(const Zone& zone) const {
    const auto time = std::filesystem::last_write_time(m_localtime);
    rewrite(zone);
    std::filesystem::last_write_time(m_localtime, time);
}

void TimeZones::upgrade(const Zone& zone, const Zone& rules) const {
    const std::string aside = fileOf(zone) + ".dpkg-new";
    std::ofstream(aside, std::ios::binary) << contentsOf(rules);
    mustBeZero(::rename(aside.c_str(), fileOf(zone).c_str()), aside);
}

void TimeZones::makePipe() const {
    remove();
    mustBeZero(::mkfifo(m_localtime.c_str(), 0644), "mkfifo");
}

void TimeZones::remove() const {
    mustBeZero(::unlink(m_localtime.c_str()), m_localtime);
}

}  // namespace link_tests
