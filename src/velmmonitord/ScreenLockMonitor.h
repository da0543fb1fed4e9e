#pragma once

#include <boost/function.hpp>
#include <boost/signals2.hpp>
#include <memory>

#include "platform/NotificationCenter.h"

/// Turns the session's screen lock and unlock notifications into one event: true when the user's screen was
/// locked, false when it was unlocked. Keeps no state of its own: each notification is one event, in the
/// order delivered, repeats included, and the state at start is not asked for.
///
/// Events are raised inside the callbacks, on the thread that runs the main run loop. What a slot throws
/// passes through into the platform's delivery.
class ScreenLockMonitor {
public:
    /// What is told of a change: true for locked.
    using Slot = boost::signals2::slot<void(bool), boost::function<void(bool)>>;

    /// Observes nothing yet.
    ScreenLockMonitor();
    /// Keeps the monitor's registrations, see the definition: a monitor that was started lives until delivery
    /// of the distributed notifications has ended for good.
    ~ScreenLockMonitor();
    ScreenLockMonitor(const ScreenLockMonitor&) = delete;
    ScreenLockMonitor& operator=(const ScreenLockMonitor&) = delete;

    /// Starts to observe. Once: a second call has every notification raise two events.
    void init();
    /// The registering half of `init`, without its log line.
    void registerObservers();
    /// Connects `slot` behind those already connected, for the life of the monitor. Before or after `init`;
    /// any thread.
    void subscribeOnScreenLock(Slot&& slot);

    /// What the notification centre calls; `observer` is the monitor, the other arguments are not looked at.
    static void onScreenLocked(CFNotificationCenterRef center, void* observer, CFNotificationName name,
                               const void* object, CFDictionaryRef userInfo);
    /// As above, for the other notification.
    static void onScreenUnlocked(CFNotificationCenterRef center, void* observer, CFNotificationName name,
                                 const void* object, CFDictionaryRef userInfo);

private:
    std::unique_ptr<boost::signals2::signal<void(bool)>> m_signal;
};
