#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>

#include "platform/linux/runloop/Backoff.h"
#include "platform/linux/runloop/OneShotTimer.h"
#include "platform/linux/timezone/ChainWatch.h"
#include "platform/linux/timezone/MountWatch.h"
#include "platform/linux/timezone/TimeZone.h"

namespace platform {

/// Watches the file that local time rests on, and reports once for each change of the zone, however many
/// events the change took. Everything on the loop's thread.
///
/// Watched are all links from the path to the file, the file, and the mount table, and all is looked at once
/// it has been quiet for a moment. Neither /etc/timezone nor timedated's property is read: the first is stale
/// on current systems, and the second does not follow a change made by hand.
class TimeZoneSource {
public:
    struct Handlers {
        /// The zone's rules may be others: local time is to follow them. Called at the start too. False if
        /// that failed; it is tried again later, and no change is told before it has succeeded.
        std::function<bool(const std::optional<std::string>& rules)> follow;
        /// The zone is another one, and local time has followed.
        std::function<void()> changed;
        /// A directory cannot be watched, for want of what inotify(7) limits: told once. The zone is looked
        /// at from time to time all the same.
        std::function<void()> unwatched;
    };

    /// Starts watching the file or link at `path`, which is absolute. What is there now is taken over
    /// silently. `loop` must outlive this object.
    TimeZoneSource(sd_event* loop, std::string path, Handlers handlers);
    ~TimeZoneSource() = default;
    TimeZoneSource(const TimeZoneSource&) = delete;
    TimeZoneSource& operator=(const TimeZoneSource&) = delete;

private:
    using Clock = std::chrono::steady_clock;

    void lookSoon();
    void look();
    bool watch();
    bool take();

    std::string m_path;
    Handlers m_handlers;
    Backoff m_retry;
    OneShotTimer m_settled;
    OneShotTimer m_again;
    ChainWatch m_links;
    MountWatch m_mounts;
    /// The first event that has not been looked at.
    std::optional<Clock::time_point> m_unsettledSince;
    bool m_unwatchedTold = false;
    /// What was told last; nothing before the first look.
    std::optional<TimeZone> m_last;
};

}  // namespace platform
