#pragma once

#include <chrono>
#include <functional>

#include "platform/linux/runloop/EventHandles.h"

namespace platform {

/// Calls back once, some time after each start, on the loop's thread. Costs no wake-up while it is not
/// running. Everything on the loop's thread; the callback may start the timer again, but not destroy it.
class OneShotTimer {
public:
    OneShotTimer(sd_event* loop, std::function<void()> callback);
    ~OneShotTimer() = default;
    OneShotTimer(const OneShotTimer&) = delete;
    OneShotTimer& operator=(const OneShotTimer&) = delete;

    /// Runs the callback `delay` from now; a start that is still pending is replaced.
    void start(std::chrono::milliseconds delay);
    /// Forgets a pending start.
    void stop();

private:
    void elapsed();

    sd_event* m_loop;
    std::function<void()> m_callback;
    SourceHandle m_source;
};

}  // namespace platform
