#pragma once

#include <array>
#include <memory>
#include <string>

#include "platform/linux/bus/BusHandles.h"
#include "platform/linux/bus/BusNameOwner.h"
#include "platform/linux/screenlock/ScreenLockState.h"

namespace platform {

/// Follows the screen savers of desktops that keep no locked hint (MATE, Xfce, Cinnamon up to 6.6), and tells
/// a ScreenLockState. GNOME and KDE keep the hint, and their savers' "active" may mean a blank screen only,
/// so they are left out. Everything on the bus's thread.
class ScreenSaverSignals {
public:
    /// `state` must outlive this object.
    explicit ScreenSaverSignals(ScreenLockState& state);
    ~ScreenSaverSignals();
    ScreenSaverSignals(const ScreenSaverSignals&) = delete;
    ScreenSaverSignals& operator=(const ScreenSaverSignals&) = delete;

    /// Starts following on `bus`, a connection to the session bus that is at least being made.
    void open(sd_bus* bus);
    /// Releases everything made from the bus; what was known of the savers is forgotten.
    void close();

private:
    class Saver;

    ScreenLockState& m_state;
    std::array<std::unique_ptr<Saver>, 3> m_savers;
};

}  // namespace platform
