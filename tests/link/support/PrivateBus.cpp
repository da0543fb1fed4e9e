#include "link/support/PrivateBus.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <stdexcept>

#include "link/support/Await.h"
#include "link/support/UnixAddress.h"

namespace link_tests {
namespace {

bool accepts(const std::string& socketPath) {
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

}  // namespace

PrivateBus::PrivateBus()
    : m_socketPath(m_directory.path() + "/bus"),
      m_address("unix:path=" + m_socketPath),
      m_configPath(m_directory.path() + "/bus.conf") {
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
           "  <limit name=\"auth_timeout\">60000</limit>\n"
           "  <policy context=\"default\">\n"
           "    <allow user=\"*\"/>\n"
           "    <allow own=\"*\"/>\n"
           "    <allow send_destination=\"*\"/>\n"
           "    <allow receive_sender=\"*\"/>\n"
           "  </policy>\n"
           "</busconfig>\n";
}

void PrivateBus::start() {
    m_process = std::make_unique<ChildProcess>(
        std::vector<std::string>{"/usr/bin/dbus-daemon", "--nofork", "--nopidfile", "--nosyslog",
                                 "--config-file=" + m_configPath},
        std::vector<std::string>{"PATH=/usr/bin:/bin"},
        [this] { writeErrorsTo(m_directory.path() + "/errors"); });
    if (!await([this] { return accepts(m_socketPath) || !m_process->running(); }) || !m_process->running()) {
        throw std::runtime_error("dbus-daemon does not listen");
    }
}

void PrivateBus::stop() {
    m_process.reset();
    ::unlink(m_socketPath.c_str());
}

void PrivateBus::freeze() {
    m_process->signal(SIGSTOP);
}

void PrivateBus::thaw() {
    m_process->signal(SIGCONT);
}

}  // namespace link_tests
