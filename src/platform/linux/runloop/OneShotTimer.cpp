#include "platform/linux/runloop/OneShotTimer.h"

#include <chrono>
#include <cstdint>
#include <ctime>
#include <utility>

#include "platform/linux/process/OutHandle.h"
#include "platform/linux/runloop/DeafLoop.h"
#include "platform/linux/runloop/EventCallback.h"

namespace platform {
namespace {

// Without a bound of its own the library would let a timer be 250 ms late.
constexpr std::uint64_t accuracyInMicroseconds = 10000;

/// In microseconds of CLOCK_MONOTONIC. By the clock, not as the library counts a relative time: from when the
/// loop last woke up (sd_event_add_time(3)), which is long ago where something has held it up since.
std::uint64_t timeIn(std::chrono::milliseconds delay) {
    const auto time = std::chrono::steady_clock::now() + delay;
    const auto sinceStart = std::chrono::ceil<std::chrono::microseconds>(time.time_since_epoch());
    return static_cast<std::uint64_t>(sinceStart.count());
}

}  // namespace

OneShotTimer::OneShotTimer(sd_event* loop, std::function<void()> callback)
    : m_loop(loop), m_callback(std::move(callback)) {}

void OneShotTimer::start(std::chrono::milliseconds delay) {
    m_source.reset();
    if (sd_event_add_time(m_loop, OutHandle(m_source), CLOCK_MONOTONIC, timeIn(delay), accuracyInMicroseconds,
                          &eventCallback<&OneShotTimer::elapsed, OneShotTimer>, this) < 0) {
        tellThatLoopIsDeaf();
    }
}

void OneShotTimer::stop() {
    m_source.reset();
}

void OneShotTimer::elapsed() {
    m_callback();
}

}  // namespace platform
