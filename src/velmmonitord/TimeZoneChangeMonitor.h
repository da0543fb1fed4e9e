#pragma once

#include <boost/function.hpp>
#include <boost/signals2.hpp>
#include <memory>

#include "platform/NotificationCenter.h"

/// Turns the notification that the system's time zone changed into an event. One event for each notification;
/// neither the old nor the new zone is told.
///
/// Events are raised inside the callback, on whatever thread the platform posts. What a slot throws passes
/// through into the platform's delivery.
class TimeZoneChangeMonitor {
public:
    /// What is told of a change.
    using Slot = boost::signals2::slot<void(), boost::function<void()>>;

    /// Observes nothing yet.
    TimeZoneChangeMonitor();
    /// Stops observing. Waits for a callback under way on another thread; none reaches the monitor
    /// afterwards.
    ~TimeZoneChangeMonitor();
    TimeZoneChangeMonitor(const TimeZoneChangeMonitor&) = delete;
    TimeZoneChangeMonitor& operator=(const TimeZoneChangeMonitor&) = delete;

    /// Starts to observe. Once: a second call has every notification raise two events.
    void init();
    /// Registers as `init` does, without its log line. `init` does not come by here, and the agent has no
    /// need of it.
    void registerObservers();
    /// Connects `slot` behind those already connected, for the life of the monitor. Before or after `init`;
    /// any thread.
    void subscribeOnTimeZoneChange(Slot&& slot);

    /// What the notification centre calls; `observer` is the monitor, the other arguments are not looked at.
    static void onTimezoneChanged(CFNotificationCenterRef center, void* observer, CFNotificationName name,
                                  const void* object, CFDictionaryRef userInfo);

private:
    std::unique_ptr<boost::signals2::signal<void()>> m_signal;
};
