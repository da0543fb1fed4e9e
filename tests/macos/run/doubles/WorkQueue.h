#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>

namespace doubles {

/// Work that runs in its order on threads that exist only while there is some, or on one that a program lends
/// for good. What was added keeps the queue alive. Each piece runs in an autorelease pool of its own. Any
/// thread.
class WorkQueue : public std::enable_shared_from_this<WorkQueue> {
public:
    using Work = std::function<void()>;
    enum class Runs { OnOwnThreads, WhereLent };

    explicit WorkQueue(Runs runs = Runs::OnOwnThreads) : m_runs(runs) {}

    /// How many pieces may run at once; 1 at first.
    void setWidth(int width);
    void add(Work work);
    /// Ahead of everything that waits.
    void addFirst(Work work);
    void addAfter(std::chrono::nanoseconds delay, Work work);
    /// Waits until `work` has run; on the queue itself that would be for ever, and fails.
    void runAndWait(const Work& work);
    /// Nothing begins while suspended, however often; each suspend needs a resume.
    void suspend();
    void resume();
    bool isSuspended();
    /// Lends the calling thread, for good.
    [[noreturn]] void serve();

private:
    void startWorkers(std::unique_lock<std::mutex>& lock);
    void work();
    bool runOne(std::unique_lock<std::mutex>& lock);

    const Runs m_runs;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::deque<Work> m_waiting;
    int m_width = 1;
    int m_running = 0;
    int m_suspended = 0;
};

}  // namespace doubles
