#include "link/support/PrivateBus.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <system_error>

#include "link/support/Await.h"
#include "link/support/UnixAddress.h"

namespace link_tests {
namespace {

std::string limitLine(const std::string& name, std::size_t value) {
    return "  <limit name=\"" + name + "\">" + std::to_string(value) + "</limit>\n";
}

/// Everybody's connections: dbus-daemon listens before it lets others than its own user connect.
bool accepts(const std::string& socketPath) {
    struct stat file {};
    if (::stat(socketPath.c_str(), &file) != 0 || (file.st_mode & S_IWOTH) == 0) {
        return false;
    }
    const sockaddr_un address = unixAddress(socketPath);
    const int attempt = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const bool connected =
        ::connect(attempt, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    ::close(attempt);
    return connected;
}

/// It complains whenever the machine does not let it raise its limits, which a test never needs.
void writeErrorsTo(const std::string& path) {
    ::dup2(::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600), STDERR_FILENO);
}

void mustBeZero(int result, const std::string& what) {
    if (result != 0) {
        throw std::system_error(errno, std::generic_category(), what);
    }
}

/// dbus-broker ends at once where there is no journal.
void mountJournal(const std::string& socketPath) {
    mustBeZero(::unshare(CLONE_NEWNS), "unshare");
    mustBeZero(::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), "make mounts private");
    mustBeZero(::mount("tmpfs", "/run", "tmpfs", 0, nullptr), "mount /run");
    std::filesystem::create_directories("/run/systemd/journal");
    std::filesystem::create_symlink(socketPath, "/run/systemd/journal/socket");
}

/// Leaves a listening socket as the first descriptor after the standard ones (sd_listen_fds(3)).
void listenAsSystemdDoes(const std::string& socketPath) {
    const sockaddr_un address = unixAddress(socketPath);
    const int listening = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    mustBeZero(::bind(listening, reinterpret_cast<const sockaddr*>(&address), sizeof address), socketPath);
    mustBeZero(::chmod(socketPath.c_str(), 0666), socketPath);
    mustBeZero(::listen(listening, SOMAXCONN), socketPath);
    constexpr int firstPassed = 3;
    if (listening == firstPassed) {
        mustBeZero(::fcntl(listening, F_SETFD, 0), "keep the socket");
    } else {
        mustBeZero(::dup2(listening, firstPassed) == firstPassed ? 0 : -1, "dup2");
    }
}

}  // namespace

PrivateBus::PrivateBus()
    : m_socketPath(m_directory.path() + "/bus"),
      m_address("unix:path=" + m_socketPath),
      m_configPath(m_directory.path() + "/bus.conf") {}

PrivateBus::~PrivateBus() {
    stop();
}

void PrivateBus::limit(const std::string& name, std::size_t value) {
    m_limits += limitLine(name, value);
}

void PrivateBus::boundQueues(std::size_t bytes) {
    limit("max_incoming_bytes", bytes);
    limit("max_outgoing_bytes", bytes);
}

void PrivateBus::writeConfig() const {
    // Without limits of its own a bus has those of the system bus. A slow machine gets time to authenticate.
    std::ofstream(m_configPath)
        << "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0"
           "//EN\" \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
           "<busconfig>\n"
           "  <listen>"
        << m_address
        << "</listen>\n"
           "  <auth>EXTERNAL</auth>\n"
           "  <apparmor mode=\"disabled\"/>\n"
        << limitLine("auth_timeout", 60000) << m_limits
        << "  <policy context=\"default\">\n"
           "    <allow user=\"*\"/>\n"
           "    <"
        << m_namesAre
        << " own=\"*\"/>\n"
           "    <allow send_destination=\"*\"/>\n"
           "    <allow receive_sender=\"*\"/>\n"
           "    <"
        << m_signalsOfNamesAre
        << " receive_interface=\"org.freedesktop.DBus\" receive_member=\"NameOwnerChanged\"/>\n"
           "  </policy>\n"
           "</busconfig>\n";
}

bool PrivateBus::isBroker() {
    const char* const wanted = std::getenv("VELM_TEST_BUS");
    return wanted != nullptr && std::string(wanted) == "dbus-broker";
}

void PrivateBus::start() {
    writeConfig();
    isBroker() ? startBroker() : startDaemon();
    if (!await([this] { return accepts(m_socketPath) || !m_process->running(); }) || !m_process->running()) {
        throw std::runtime_error("the bus does not listen");
    }
}

void PrivateBus::startDaemon() {
    m_process = std::make_unique<ChildProcess>(
        std::vector<std::string>{"/usr/bin/dbus-daemon", "--nofork", "--nopidfile", "--nosyslog",
                                 "--config-file=" + m_configPath},
        std::vector<std::string>{"PATH=/usr/bin:/bin"},
        [this] { writeErrorsTo(m_directory.path() + "/errors"); });
}

void PrivateBus::startBroker() {
    const std::string journal = m_directory.path() + "/journal";
    m_journal = std::make_unique<SystemLogSocket>(journal);
    m_process = std::make_unique<ChildProcess>(
        // The shell is there to say its own process's number, which becomes the launcher's.
        std::vector<std::string>{"/bin/sh", "-c", "LISTEN_PID=$$ exec /usr/bin/dbus-broker-launch \"$@\"",
                                 "sh", "--scope", "system", "--config-file", m_configPath},
        std::vector<std::string>{"PATH=/usr/bin:/bin", "LISTEN_FDS=1",
                                 "DBUS_SYSTEM_BUS_ADDRESS=" + m_address},
        [this, journal] {
            writeErrorsTo(m_directory.path() + "/errors");
            mountJournal(journal);
            listenAsSystemdDoes(m_socketPath);
        });
    // It accepts before it runs, and a test may want to freeze it.
    if (!await([this] { return carrier() != m_process->pid() || !m_process->running(); })) {
        throw std::runtime_error("dbus-broker does not start");
    }
}

void PrivateBus::stop() {
    if (m_process && m_process->running()) {
        ::kill(carrier(), SIGKILL);
    }
    m_process.reset();
    m_journal.reset();
    ::unlink((m_directory.path() + "/journal").c_str());
    ::unlink(m_socketPath.c_str());
}

bool PrivateBus::holds(int descriptor) const {
    const std::filesystem::path own = "/proc/self/fd/" + std::to_string(descriptor);
    const std::filesystem::path file = std::filesystem::read_symlink(own);
    const std::filesystem::path files = "/proc/" + std::to_string(carrier()) + "/fd";
    for (const auto& entry : std::filesystem::directory_iterator(files)) {
        std::error_code closedMeanwhile;
        if (std::filesystem::read_symlink(entry.path(), closedMeanwhile) == file) {
            return true;
        }
    }
    return false;
}

pid_t PrivateBus::carrier() const {
    const std::string launcher = std::to_string(m_process->pid());
    std::ifstream children("/proc/" + launcher + "/task/" + launcher + "/children");
    pid_t child = 0;
    return children >> child ? child : m_process->pid();
}

void PrivateBus::freeze() {
    ::kill(carrier(), SIGSTOP);
}

void PrivateBus::thaw() {
    ::kill(carrier(), SIGCONT);
}

}  // namespace link_tests
