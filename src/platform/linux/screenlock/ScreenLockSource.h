#pragma once

#include <functional>

#include "platform/linux/bus/BusConnection.h"
#include "platform/linux/screenlock/LogindSessions.h"
#include "platform/linux/screenlock/ScreenLockState.h"
#include "platform/linux/screenlock/ScreenSaverSignals.h"
#include "platform/linux/screenlock/SessionBusSocket.h"

namespace platform {

/// Watches whether the user's screen is locked: through logind on the system bus and, for desktops that do
/// not tell logind, through the savers on the session bus. Either bus, and logind, may be absent, come and
/// go; nothing is logged. Everything on the loop's thread.
class ScreenLockSource {
public:
    /// Starts watching on `loop`, which must outlive this object. `report` is told each edge, true when
    /// locked.
    ScreenLockSource(sd_event* loop, std::function<void(bool locked)> report);
    ~ScreenLockSource() = default;
    ScreenLockSource(const ScreenLockSource&) = delete;
    ScreenLockSource& operator=(const ScreenLockSource&) = delete;

private:
    void sessionBusOpened(sd_bus* bus);
    void sessionBusLost();
    void sessionBusAppeared();
    bool awaitSessionBus();

    ScreenLockState m_state;
    LogindSessions m_sessions;
    ScreenSaverSignals m_savers;
    SessionBusSocket m_sessionBusSocket;
    BusConnection m_systemBus;
    BusConnection m_sessionBus;
    /// Attempts still to be made at intervals, before only the socket's appearance starts another.
    int m_attemptsLeft;
};

}  // namespace platform
