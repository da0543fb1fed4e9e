#pragma once

#include <functional>

#include "platform/linux/bus/BusConnection.h"
#include "platform/linux/screenlock/LogindSessions.h"
#include "platform/linux/screenlock/ScreenLockState.h"
#include "platform/linux/screenlock/ScreenSaverSignals.h"

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
    void dropSavers();

    ScreenLockState m_state;
    LogindSessions m_sessions;
    ScreenSaverSignals m_savers;
    BusConnection m_systemBus;
    std::unique_ptr<BusConnection> m_sessionBus;
};

}  // namespace platform
