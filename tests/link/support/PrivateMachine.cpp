#include "link/support/PrivateMachine.h"

#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <system_error>

namespace link_tests {
namespace {

// What the C library and libsystemd read of /etc and /dev for a program like this one.
constexpr std::array<const char*, 5> configurationFiles{"passwd", "group", "nsswitch.conf", "ld.so.cache",
                                                        "machine-id"};
constexpr std::array<const char*, 6> devices{"null", "zero", "full", "random", "urandom", "tty"};

void mustBeZero(int result, const std::string& what) {
    if (result != 0) {
        throw std::system_error(errno, std::generic_category(), what);
    }
}

void bindOver(const std::string& source, const std::string& target) {
    mustBeZero(::mount(source.c_str(), target.c_str(), nullptr, MS_BIND | MS_REC, nullptr),
               "bind " + source + " over " + target);
}

}  // namespace

PrivateMachine::PrivateMachine(uid_t user) : m_user(user) {
    namespace fs = std::filesystem;
    for (const char* directory : {"etc", "dev", "zoneinfo", "home", "home/Library", "home/Library/Logs"}) {
        fs::create_directory(pathOf(directory));
    }
    for (const char* file : configurationFiles) {
        if (fs::exists(fs::path("/etc") / file)) {
            fs::copy_file(fs::path("/etc") / file, pathOf("etc/") + file);
        }
    }
    for (const char* device : devices) {
        std::ofstream(pathOf("dev/") + device).flush();
    }
    fs::create_directory(pathOf("dev/shm"));
    std::ofstream(programPath()).flush();
    for (const char* directory : {"home", "home/Library", "home/Library/Logs"}) {
        mustBeZero(::chown(pathOf(directory).c_str(), m_user, m_user), directory);
    }
    m_timeZones = std::make_unique<TimeZones>(pathOf("zoneinfo"), pathOf("etc"));
    m_systemLog = std::make_unique<SystemLogSocket>(pathOf("dev/log"));
}

void PrivateMachine::removeSystemLog() {
    m_systemLog.reset();
    mustBeZero(::unlink(pathOf("dev/log").c_str()), "unlink /dev/log");
}

void PrivateMachine::removeLogDirectory() {
    mustBeZero(::rmdir(pathOf("home/Library/Logs").c_str()), "rmdir Logs");
}

void PrivateMachine::touchInEtc(const std::string& name) const {
    std::ofstream(pathOf("etc/") + name) << "text\n";
}

void PrivateMachine::enter(const std::string& program) const {
    mustBeZero(::unshare(CLONE_NEWNS), "unshare");
    mustBeZero(::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr), "make mounts private");
    bindOver(program, programPath());
    for (const char* device : devices) {
        const std::string source = std::string("/dev/") + device;
        if (::access(source.c_str(), F_OK) == 0) {
            bindOver(source, pathOf("dev/") + device);
        }
    }
    if (::access("/dev/shm", F_OK) == 0) {
        bindOver("/dev/shm", pathOf("dev/shm"));
    }
    bindOver(pathOf("dev"), "/dev");
    bindOver(pathOf("etc"), "/etc");
}

}  // namespace link_tests
