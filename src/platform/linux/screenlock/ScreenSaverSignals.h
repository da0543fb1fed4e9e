#pragma once

#include <memory>
#include <set>
#include <string>
#include <vector>

#include "platform/linux/bus/BusHandles.h"
#include "platform/linux/bus/BusNameOwner.h"
#include "platform/linux/screenlock/ScreenLockState.h"

namespace platform {

/// Follows the screen savers of desktops that keep no locked hint, and tells a ScreenLockState: those of
/// MATE, Xfce and Cinnamon up to 6.6, GNOME's name where GNOME Shell has no screen shield (as on Budgie), and
/// the common name where none of these nor KDE's locker is there. Everything on the bus's thread.
class ScreenSaverSignals {
public:
    /// `state` must outlive this object.
    explicit ScreenSaverSignals(ScreenLockState& state);
    ~ScreenSaverSignals();
    ScreenSaverSignals(const ScreenSaverSignals&) = delete;
    ScreenSaverSignals& operator=(const ScreenSaverSignals&) = delete;

    /// Starts following on `bus`, a connection to the session bus that is at least being made, on an event
    /// loop.
    void open(sd_bus* bus);
    /// Releases everything made from the bus; what was known of the savers is forgotten.
    void close();

private:
    class Saver;

    void ownedNow(const std::string& name, bool owned);

    ScreenLockState& m_state;
    std::vector<std::unique_ptr<BusNameOwner>> m_lockers;
    std::vector<std::unique_ptr<Saver>> m_savers;
    /// Of all names that are followed.
    std::set<std::string> m_owned;
};

}  // namespace platform
