#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>

namespace bench {

/// What the schedulers are measured by: callbacks on one worker thread of the scheduler's own, scheduled and
/// cancelled from another.
class Scheduler {
public:
    Scheduler() = default;
    virtual ~Scheduler() = default;
    Scheduler(const Scheduler&) = delete;
    Scheduler& operator=(const Scheduler&) = delete;
    Scheduler(Scheduler&&) = delete;
    Scheduler& operator=(Scheduler&&) = delete;

    /// Entries are numbered from 0 in the order of these calls. One thread.
    virtual void schedule(std::chrono::milliseconds delay, const std::function<void()>& callback) = 0;
    virtual void cancel(std::size_t entry) = 0;
    virtual void cancelAll() = 0;
};

/// Null if there is no scheduler of that name in this build.
std::unique_ptr<Scheduler> makeScheduler(const std::string& name);

std::unique_ptr<Scheduler> makeAsio();
std::unique_ptr<Scheduler> makeLibevent();
std::unique_ptr<Scheduler> makeLibuv();

}  // namespace bench
