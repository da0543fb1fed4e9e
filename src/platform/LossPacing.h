#pragma once

#include <chrono>
#include <mutex>

namespace platform {

/// Keeps the losses that connections report at least one second apart, over all connections of the process: a
/// new connection follows each loss, so without this a bus that cannot be reached, or a service that comes
/// and goes, would drive a hot loop of connecting and losing. Safe on any thread.
class LossPacing {
public:
    using Clock = std::chrono::steady_clock;
    static constexpr std::chrono::milliseconds interval{1000};

    static LossPacing& instance();

    /// Takes the right to report a loss now and returns zero or, if the last report is too recent, takes
    /// nothing and returns how long to wait before asking again.
    Clock::duration acquire(Clock::time_point now);

private:
    std::mutex m_mutex;
    bool m_reported = false;
    Clock::time_point m_lastReport;
};

}  // namespace platform
