#include "doubles/WorkQueue.h"

#include <queue>
#include <thread>
#include <utility>
#include <vector>

#include "runtime/Runtime.h"

extern "C" void* objc_autoreleasePoolPush();
extern "C" void objc_autoreleasePoolPop(void*);

namespace doubles {
namespace {

thread_local const WorkQueue* current = nullptr;

// One thread waits for everything that is to happen later. Never destroyed, as it never ends.
class Clock {
public:
    using Time = std::chrono::steady_clock::time_point;

    void add(Time when, std::shared_ptr<WorkQueue> queue, WorkQueue::Work work) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_entries.push_back({when, std::move(queue), std::move(work)});
        if (!m_started) {
            m_started = true;
            std::thread([this] { run(); }).detach();
        }
        m_changed.notify_one();
    }

private:
    struct Entry {
        Time when;
        std::shared_ptr<WorkQueue> queue;
        WorkQueue::Work work;
    };

    void run() {
        std::unique_lock<std::mutex> lock(m_mutex);
        for (;;) {
            Time next = std::chrono::steady_clock::now() + std::chrono::hours(1);
            for (std::size_t i = 0; i < m_entries.size();) {
                if (m_entries[i].when <= std::chrono::steady_clock::now()) {
                    const Entry due = std::move(m_entries[i]);
                    m_entries.erase(m_entries.begin() + static_cast<std::ptrdiff_t>(i));
                    due.queue->add(due.work);
                } else {
                    next = std::min(next, m_entries[i].when);
                    ++i;
                }
            }
            m_changed.wait_until(lock, next);
        }
    }

    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<Entry> m_entries;
    bool m_started = false;
};

Clock& worldClock() {
    static auto* const clock = new Clock;
    return *clock;
}

}  // namespace

void WorkQueue::setWidth(int width) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_width = width;
}

void WorkQueue::add(Work work) {
    std::unique_lock<std::mutex> lock(m_mutex);
    m_waiting.push_back(std::move(work));
    startWorkers(lock);
}

void WorkQueue::addFirst(Work work) {
    std::unique_lock<std::mutex> lock(m_mutex);
    m_waiting.push_front(std::move(work));
    startWorkers(lock);
}

void WorkQueue::addAfter(std::chrono::nanoseconds delay, Work work) {
    worldClock().add(std::chrono::steady_clock::now() + delay, shared_from_this(), std::move(work));
}

void WorkQueue::runAndWait(const Work& work) {
    if (current == this) {
        runtime::fail("a queue that waits for itself");
    }
    std::mutex mutex;
    std::condition_variable changed;
    bool done = false;
    add([&] {
        work();
        const std::lock_guard<std::mutex> lock(mutex);
        done = true;
        changed.notify_one();
    });
    std::unique_lock<std::mutex> lock(mutex);
    changed.wait(lock, [&] { return done; });
}

void WorkQueue::suspend() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    ++m_suspended;
}

void WorkQueue::resume() {
    std::unique_lock<std::mutex> lock(m_mutex);
    if (--m_suspended < 0) {
        runtime::fail("a queue is resumed more often than suspended");
    }
    startWorkers(lock);
}

bool WorkQueue::isSuspended() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_suspended > 0;
}

void WorkQueue::serve() {
    std::unique_lock<std::mutex> lock(m_mutex);
    for (;;) {
        m_changed.wait(lock, [this] { return !m_waiting.empty(); });
        runOne(lock);
    }
}

void WorkQueue::startWorkers(std::unique_lock<std::mutex>& lock) {
    if (m_runs == Runs::WhereLent) {
        m_changed.notify_one();
        return;
    }
    if (m_suspended == 0 && m_running < m_width && !m_waiting.empty()) {
        ++m_running;
        lock.unlock();
        std::thread([self = shared_from_this()] { self->work(); }).detach();
        lock.lock();
    }
}

void WorkQueue::work() {
    std::unique_lock<std::mutex> lock(m_mutex);
    while (runOne(lock)) {
    }
    --m_running;
}

bool WorkQueue::runOne(std::unique_lock<std::mutex>& lock) {
    if (m_waiting.empty() || m_suspended > 0) {
        return false;
    }
    {
        const Work next = std::move(m_waiting.front());
        m_waiting.pop_front();
        lock.unlock();
        const WorkQueue* const outer = std::exchange(current, this);
        void* const pool = objc_autoreleasePoolPush();
        next();
        objc_autoreleasePoolPop(pool);
        current = outer;
    }
    lock.lock();
    return true;
}

}  // namespace doubles
