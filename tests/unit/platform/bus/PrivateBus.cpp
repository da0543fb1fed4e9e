#include "unit/platform/bus/PrivateBus.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>

namespace {

[[noreturn]] void runDaemon(const std::string& address, int readyEnd) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    // What the bus says of its own limits is no part of the test's output.
    dup2(open("/dev/null", O_WRONLY | O_CLOEXEC), STDERR_FILENO);
    const std::string listen = "--address=" + address;
    const std::string ready = "--print-address=" + std::to_string(readyEnd);
    execlp("dbus-daemon", "dbus-daemon", "--session", "--nofork", "--nopidfile", listen.c_str(),
           ready.c_str(), nullptr);
    _exit(127);
}

}  // namespace

PrivateBus::PrivateBus() {
    std::string pattern = (std::filesystem::temp_directory_path() / "velm-bus-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) {
        throw std::runtime_error("no directory for the bus");
    }
    m_directory = pattern;
}

PrivateBus::~PrivateBus() {
    stop();
    std::error_code ignored;
    std::filesystem::remove_all(m_directory, ignored);
}

void PrivateBus::start() {
    std::array<int, 2> ends{};
    if (pipe(ends.data()) != 0) {
        throw std::runtime_error("no pipe");
    }
    fcntl(ends[0], F_SETFD, FD_CLOEXEC);
    m_daemon = fork();
    if (m_daemon == 0) {
        runDaemon(address(), ends[1]);
    }
    close(ends[1]);
    char first = 0;
    const bool ready = read(ends[0], &first, 1) == 1;
    close(ends[0]);
    if (!ready) {
        throw std::runtime_error("dbus-daemon does not start");
    }
}

void PrivateBus::stop() {
    if (m_daemon > 0) {
        kill(m_daemon, SIGKILL);
        waitpid(m_daemon, nullptr, 0);
        m_daemon = 0;
    }
    unlink((m_directory + "/bus").c_str());
}

std::string PrivateBus::address() const {
    return "unix:path=" + m_directory + "/bus";
}
