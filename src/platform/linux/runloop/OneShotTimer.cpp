#include "platform/linux/runloop/OneShotTimer.h"

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

}  // namespace

OneShotTimer::OneShotTimer(sd_event* loop, std::function<void()> callback)
    : m_loop(loop), m_callback(std::move(callback)) {}

void OneShotTimer::start(std::chrono::milliseconds delay) {
    const auto microseconds = static_cast<std::uint64_t>(std::chrono::microseconds(delay).count());
    m_source.reset();
    if (sd_event_add_time_relative(m_loop, OutHandle(m_source), CLOCK_MONOTONIC, microseconds,
                                   accuracyInMicroseconds,
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
