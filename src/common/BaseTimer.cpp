#include "common/BaseTimer.h"

#include <algorithm>
#include <cstdint>

#include "common/BaseTimerImpl.h"
#include "common/TimerSlack.h"

namespace cmn {

namespace {

// The standard library adds a wait's length to the clock's reading in nanoseconds. A century fits; the
// largest interval, which a caller may well use for "never", would overflow and not wait at all.
constexpr std::chrono::milliseconds longestWait = std::chrono::hours(24 * 365 * 100);

}  // namespace

BaseTimer::BaseTimer(std::chrono::milliseconds interval, const std::function<void()>& callback,
                     bool singleShot)
    : m_impl(std::make_unique<BaseTimerImpl>()) {
    m_impl->m_interval.exchange(interval.count());
    m_impl->m_singleShot.exchange(singleShot);
    m_impl->m_callback = callback;
}

BaseTimer::BaseTimer(BaseTimer&& other) noexcept = default;

BaseTimer& BaseTimer::operator=(BaseTimer&& other) noexcept = default;

BaseTimer::~BaseTimer() {
    if (BaseTimer::active()) {
        m_impl->m_active.exchange(false);
        m_impl->m_condition.notify_one();
    }
    // An uncollected failure of the callback ends the process here rather than passing unseen.
    if (m_impl) {
        collectTask();
    }
}

void BaseTimer::run(std::chrono::milliseconds interval, const std::function<void()>& callback,
                    bool singleShot) {
    setInterval(interval);
    setSingleShot(singleShot);
    setCallback(callback);
    run();
}

void BaseTimer::stop() {
    if (!active()) {
        return;
    }
    m_impl->m_active.exchange(false);
    m_impl->m_condition.notify_one();
}

void BaseTimer::run() {
    m_impl->m_active.exchange(true);
    if (m_impl->m_inTask.load()) {
        return;
    }
    collectTask();
    m_impl->m_task = std::async(std::launch::async, &BaseTimer::timerAsyncTask, this);
}

void BaseTimer::setInterval(std::chrono::milliseconds interval) {
    m_impl->m_interval.exchange(interval.count());
    m_impl->m_condition.notify_one();
}

std::chrono::milliseconds BaseTimer::interval() const {
    return std::chrono::milliseconds(m_impl->m_interval.load());
}

void BaseTimer::setSingleShot(bool singleShot) {
    m_impl->m_singleShot.exchange(singleShot);
}

bool BaseTimer::singleShot() const {
    return m_impl->m_singleShot.load();
}

bool BaseTimer::active() const {
    return m_impl && m_impl->m_active.load();
}

void BaseTimer::setCallback(const std::function<void()>& callback) {
    if (callback) {
        m_impl->m_callback = callback;
    }
}

void BaseTimer::reset() {
    stop();
    collectTask();
    run();
}

void BaseTimer::collectTask() {
    if (m_impl->m_task.valid()) {
        m_impl->m_task.get();
    }
}

void BaseTimer::timerAsyncTask() {
    waitPunctually();
    std::unique_lock<std::mutex> lock(m_impl->m_mutex);
    m_impl->m_inTask.exchange(true);
    while (m_impl->m_active.load()) {
        const std::int64_t length = m_impl->m_interval.load();
        if (length > 0) {
            m_impl->m_condition.wait_for(lock, std::min(std::chrono::milliseconds(length), longestWait));
        }
        if (!m_impl->m_active.load()) {
            break;
        }
        // The waker is not looked at: whoever wakes an active timer without changing its interval makes it
        // tick.
        if (m_impl->m_interval.load() != length) {
            continue;
        }
        m_impl->m_callback();
        if (m_impl->m_singleShot.load()) {
            m_impl->m_active.exchange(false);
            break;
        }
    }
    // Not a guard: after an exception the flag stays set, so that run() cannot start the timer over a failure
    // that nobody has collected.
    m_impl->m_inTask.exchange(false);
}

}  // namespace cmn
