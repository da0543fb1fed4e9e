#pragma once

#include "platform/linux/screenlock/ScreenLockSource.h"
#include "platform/linux/timezone/TimeZoneSource.h"

namespace platform {

/// Everything that the agent is told of by the system, and the only place that knows which sources of events
/// there are: what each finds out is posted to its notification centre. Everything on the loop's thread.
class EventSources {
public:
    /// Starts watching on `loop`, which must outlive this object.
    explicit EventSources(sd_event* loop);
    ~EventSources() = default;
    EventSources(const EventSources&) = delete;
    EventSources& operator=(const EventSources&) = delete;

private:
    ScreenLockSource m_screenLock;
    TimeZoneSource m_timeZone;
};

}  // namespace platform
