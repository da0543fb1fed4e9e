#pragma once

#include <sys/inotify.h>

#include <functional>
#include <string>

#include "platform/linux/runloop/EventHandles.h"

namespace platform {

/// Tells when the session bus's socket appears: a desktop may start its bus long after the agent was started,
/// and a user without a desktop never has one, for which an idle agent should not wake up. Everything on the
/// loop's thread.
class SessionBusSocket {
public:
    /// `appeared` is called whenever the socket was made while it is awaited; nobody may be listening on it
    /// yet. `loop` must outlive this object.
    SessionBusSocket(sd_event* loop, std::function<void()> appeared);
    ~SessionBusSocket() = default;
    SessionBusSocket(const SessionBusSocket&) = delete;
    SessionBusSocket& operator=(const SessionBusSocket&) = delete;

    /// Begins to wait for the socket. No effect where the address of the bus is no path or its directory
    /// cannot be watched.
    void await();
    bool awaited() const { return m_watch != nullptr; }
    /// Ends waiting.
    void stop() { m_watch.reset(); }

private:
    void happened(const inotify_event& event);

    sd_event* m_loop;
    std::function<void()> m_appeared;
    std::string m_path;
    SourceHandle m_watch;
};

/// The path of the session bus's socket, as sd_bus_open_user(3) finds it: from DBUS_SESSION_BUS_ADDRESS or
/// XDG_RUNTIME_DIR. Empty if it is none, or one of several addresses.
std::string sessionBusSocketPath();

}  // namespace platform
