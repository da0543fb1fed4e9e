#include "common/SingleShotTimer.h"

#include <algorithm>
#include <utility>

#include "common/SingleShotTimerImpl.h"
#include "common/TimerSlack.h"

namespace cmn {

namespace {

using Clock = std::chrono::steady_clock;

// The clock counts nanoseconds in 64 bits, which the largest delays of a millisecond count would overflow.
constexpr std::chrono::milliseconds longestDelay = std::chrono::hours(24 * 365 * 100);

}  // namespace

SingleShotTimer::SingleShotTimer() : m_impl(std::make_unique<SingleShotTimerImpl>()) {
    m_impl->m_worker = std::thread(&SingleShotTimer::timerWorker, std::ref(*m_impl));
}

SingleShotTimer::SingleShotTimer(SingleShotTimer&& other) noexcept = default;

SingleShotTimer& SingleShotTimer::operator=(SingleShotTimer&& other) noexcept {
    if (this != &other) {
        endWorker();
        m_impl = std::move(other.m_impl);
    }
    return *this;
}

SingleShotTimer::~SingleShotTimer() {
    endWorker();
}

void SingleShotTimer::run(std::chrono::milliseconds delay, const std::function<void()>& callback,
                          bool /*singleShot*/) {
    run(delay, callback);
}

void SingleShotTimer::stop() {
    if (!m_impl) {
        return;
    }
    {
        const std::lock_guard<std::mutex> lock(m_impl->m_mutex);
        // Afterwards every entry is due at the epoch, so the heap needs no repair.
        for (TimerEntry& entry : m_impl->m_queue.stored()) {
            if (entry.id != 0) {
                entry.id = 0;
                entry.dueTime = {};
            }
        }
    }
    m_impl->m_semaphore.notify();
}

std::uint64_t SingleShotTimer::run(std::chrono::milliseconds delay, const std::function<void()>& callback) {
    if (!m_impl) {
        return 0;
    }
    const auto dueTime = Clock::now() + std::clamp(delay, -longestDelay, longestDelay);
    std::uint64_t id = 0;
    {
        const std::lock_guard<std::mutex> lock(m_impl->m_mutex);
        id = ++m_impl->m_lastId;
        m_impl->m_queue.push({id, dueTime, callback});
    }
    m_impl->m_semaphore.notify();
    return id;
}

void SingleShotTimer::stop(unsigned long long id) {
    if (!m_impl) {
        return;
    }
    {
        const std::lock_guard<std::mutex> lock(m_impl->m_mutex);
        auto& entries = m_impl->m_queue.stored();
        const auto found = std::find_if(entries.begin(), entries.end(), [id](const TimerEntry& entry) {
            return entry.id == id && entry.callback;
        });
        if (found == entries.end()) {
            return;
        }
        // Only the worker destroys callbacks, and it should not take until the due time to do so: the
        // callback goes on in an entry that is due at once and not called.
        m_impl->m_queue.push({0, {}, std::exchange(found->callback, nullptr)});
    }
    m_impl->m_semaphore.notify();
}

// By qualified calls: ending must not depend on what a subclass makes of scheduling.
void SingleShotTimer::endWorker() {
    SingleShotTimer::stop();
    if (m_impl && m_impl->m_worker.joinable()) {
        SingleShotTimer::run(std::chrono::milliseconds(0), [impl = m_impl.get()] { impl->m_stopped = true; });
        m_impl->m_worker.join();
    }
}

void SingleShotTimer::timerWorker(SingleShotTimerImpl& impl) {
    waitPunctually();
    while (!impl.m_stopped) {
        // Why a wait ended does not matter: whatever happened, the queue tells what is due now.
        if (const auto dueTime = calculateWaitTime(impl)) {
            impl.m_semaphore.waitUntil(*dueTime);
        } else {
            impl.m_semaphore.wait();
        }
        executeTimerEntries(impl);
    }
}

std::optional<Clock::time_point> SingleShotTimer::calculateWaitTime(SingleShotTimerImpl& impl) {
    const std::lock_guard<std::mutex> lock(impl.m_mutex);
    while (!impl.m_queue.empty()) {
        if (impl.m_queue.top().callback) {
            return impl.m_queue.top().dueTime;
        }
        impl.m_queue.pop();
    }
    return std::nullopt;
}

void SingleShotTimer::executeTimerEntries(SingleShotTimerImpl& impl) {
    std::unique_lock<std::mutex> lock(impl.m_mutex);
    while (!impl.m_queue.empty() && Clock::now() >= impl.m_queue.top().dueTime) {
        // A copy, because the callback may schedule and so move what the queue holds. It ends with the lock
        // held.
        TimerEntry entry = impl.m_queue.top();
        impl.m_queue.pop();
        lock.unlock();
        if (entry.id != 0 && entry.callback) {
            entry.callback();
        }
        lock.lock();
    }
}

}  // namespace cmn
