#pragma once

#include <chrono>
#include <mutex>

namespace platform {

/// Says when a connection may report its loss, over all connections of the process. Safe on any thread.
///
/// Losses are at least `interval` apart: a new connection follows each one, so without this a bus that cannot
/// be reached, or a service that comes and goes, would drive a hot loop of connecting and losing. The first
/// comes that long after the first connection at the earliest, when the start-up is over and the reconnect
/// timer's task has begun.
///
/// And a loss keeps `distanceToCalls` from the last call that was delivered: a call may be the confirmation
/// that stops the reconnect timer, a loss starts it again, and a timer that is started while its task is on
/// the way out misses the start. A stop that the task did not see before it went to wait sends it on the way
/// out only at the end of that wait, one timer interval later (docs/model/).
class LossPacing {
public:
    using Clock = std::chrono::steady_clock;  ///< what all times here are of
    /// From one loss to the next, at least.
    static constexpr std::chrono::milliseconds interval{1000};
    /// From the last delivered call to a loss, at least.
    static constexpr std::chrono::milliseconds distanceToCalls{1100};

    /// Has no loss reported before `earliest`.
    explicit LossPacing(Clock::time_point earliest = {}) : m_earliest(earliest) {}

    /// The process's own, made with its first connection. Any thread.
    static LossPacing& instance();

    /// Notes that a call of the other side, or a reply, was delivered and has returned.
    void callDelivered(Clock::time_point now);

    /// Takes the right to report a loss now and returns zero or, if the last report or the last call is too
    /// recent, takes nothing and returns how long to wait before asking again.
    Clock::duration acquire(Clock::time_point now);

private:
    std::mutex m_mutex;
    Clock::time_point m_earliest;  // when the next loss may be reported
};

}  // namespace platform
