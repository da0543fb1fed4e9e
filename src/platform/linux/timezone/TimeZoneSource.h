#pragma once

#include <sys/inotify.h>

#include <functional>
#include <string>

#include "platform/linux/runloop/Backoff.h"
#include "platform/linux/runloop/EventHandles.h"
#include "platform/linux/runloop/OneShotTimer.h"
#include "platform/linux/timezone/TimeZoneState.h"

namespace platform {

/// Watches the file that local time rests on, and reports once for each change of the zone, however many
/// events the change took. Everything on the loop's thread.
///
/// The directory is watched, because every usual way of setting the zone puts another file in the old one's
/// place. Neither /etc/timezone nor timedated's property is read: the first is stale on current systems, and
/// the second does not follow a change made by hand.
class TimeZoneSource {
public:
    /// Starts watching `directory`/localtime on `loop`, which must outlive this object. What is there now is
    /// taken over silently. `report` is called after each change, when the C library's tzset() is sure to see
    /// it.
    TimeZoneSource(sd_event* loop, std::string directory, std::function<void()> report);
    ~TimeZoneSource() = default;
    TimeZoneSource(const TimeZoneSource&) = delete;
    TimeZoneSource& operator=(const TimeZoneSource&) = delete;

private:
    bool watch();
    void watchAgain();
    void happened(const inotify_event& event);
    void look();
    static int directoryChanged(sd_event_source* source, const inotify_event* event, void* self) noexcept;

    sd_event* m_loop;
    std::string m_directory;
    std::function<void()> m_report;
    Backoff m_retry;
    OneShotTimer m_settled;
    OneShotTimer m_watchAgain;
    SourceHandle m_watch;
    TimeZoneState m_state;
};

}  // namespace platform
