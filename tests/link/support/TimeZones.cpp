#include "link/support/TimeZones.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "link/support/ChildProcess.h"

namespace link_tests {
namespace {

void appendBigEndian(std::string& text, std::uint32_t value) {
    for (int shift = 24; shift >= 0; shift -= 8) {
        text += static_cast<char>((value >> shift) & 0xFFU);
    }
}

/// A zone file (RFC 8536, version 1): one type of local time and no transitions.
std::string contentsOf(const Zone& zone) {
    const std::string name = zone.name;
    std::string file = "TZif" + std::string(16, '\0');
    for (const std::uint32_t count : {0U, 0U, 0U, 0U, 1U, static_cast<std::uint32_t>(name.size() + 1)}) {
        appendBigEndian(file, count);
    }
    appendBigEndian(file, static_cast<std::uint32_t>(zone.minutesEast * 60));
    file += std::string(2, '\0');
    file += name + '\0';
    return file;
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

void TimeZones::remove() const {
    mustBeZero(::unlink(m_localtime.c_str()), m_localtime);
}

}  // namespace link_tests
