#include "platform/linux/screenlock/SessionBusSocket.h"

#include <cstdint>
#include <cstdlib>
#include <utility>

#include "platform/linux/process/OutHandle.h"
#include "platform/linux/runloop/EventCallback.h"

namespace platform {

SessionBusSocket::SessionBusSocket(sd_event* loop, std::function<void()> appeared)
    : m_loop(loop), m_appeared(std::move(appeared)), m_path(sessionBusSocketPath()) {}

void SessionBusSocket::await() {
    if (m_path.empty() || m_watch) {
        return;
    }
    const std::string directory = m_path.substr(0, m_path.rfind('/') + 1);
    constexpr std::uint32_t events = IN_CREATE | IN_MOVED_TO | IN_MOVE_SELF | IN_ONLYDIR;
    sd_event_add_inotify(m_loop, OutHandle(m_watch), directory.c_str(), events,
                         &eventCallback<&SessionBusSocket::happened, SessionBusSocket>, this);
}

void SessionBusSocket::happened(const inotify_event& event) {
    constexpr std::uint32_t watchIsLost = IN_IGNORED | IN_MOVE_SELF | IN_UNMOUNT;
    if ((event.mask & watchIsLost) != 0) {
        // Whoever tries now finds nothing, and has to try again by itself.
        m_watch.reset();
        m_appeared();
    } else if ((event.mask & IN_Q_OVERFLOW) != 0 ||
               (event.len > 0 && m_path.substr(m_path.rfind('/') + 1) == event.name)) {
        m_appeared();
    }
}

std::string sessionBusSocketPath() {
    if (const char* const variable = std::getenv("DBUS_SESSION_BUS_ADDRESS")) {
        const std::string address = variable;
        const std::string scheme = "unix:path=";
        // A path with escapes, or beside other addresses, is nobody's default.
        const bool isPlain =
            address.rfind(scheme, 0) == 0 && address.find_first_of("%;") == std::string::npos;
        return isPlain ? address.substr(scheme.size(), address.find(',') - scheme.size()) : std::string();
    }
    const char* const directory = std::getenv("XDG_RUNTIME_DIR");
    return directory == nullptr || directory[0] != '/' ? std::string() : std::string(directory) + "/bus";
}

}  // namespace platform
