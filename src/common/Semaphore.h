#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace cmn {

/// A counting semaphore that starts at 0. Every operation may be called on any thread. Each notification is
/// consumed exactly once, by one waiter; what comes while nobody waits is kept, in full, for later waits (up
/// to 2^32 - 1). In which order several waiters are served is the platform's choice. Must outlive every call
/// under way on it.
class Semaphore {
public:
    Semaphore() = default;
    ~Semaphore() = default;
    Semaphore(const Semaphore&) = delete;
    Semaphore& operator=(const Semaphore&) = delete;
    Semaphore(Semaphore&&) = delete;
    Semaphore& operator=(Semaphore&&) = delete;

    /// Adds one notification and wakes one waiter, if there is one. Does not wait for it.
    void notify() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        ++m_count;
        m_condition.notify_one();
    }

    /// Returns once it has consumed one notification; waits for one as long as it takes.
    void wait() {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_condition.wait(lock, [this] { return m_count != 0; });
        --m_count;
    }

    /// Consumes one notification and returns true, or returns false once `deadline` has passed without one.
    /// Does not wait if the deadline has passed already. A notification that is there counts, whatever the
    /// time.
    template <typename Clock, typename Duration>
    bool waitUntil(const std::chrono::time_point<Clock, Duration>& deadline) {
        std::unique_lock<std::mutex> lock(m_mutex);
        while (m_count == 0 && Clock::now() < deadline) {
            m_condition.wait_until(lock, deadline);
        }
        if (m_count == 0) {
            return false;
        }
        --m_count;
        return true;
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_condition;
    std::uint32_t m_count = 0;
};

}  // namespace cmn
