#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

#include "ITimer.h"

namespace cmn {

/// A timer of any number of callbacks, each called once and each to be cancelled by an id of its own.
class ISingleShotTimer : public ITimer {
public:
    using ITimer::run;
    using ITimer::stop;

    /// Has `callback` called once, `delay` from now, and returns the id that stop() takes.
    virtual std::uint64_t run(std::chrono::milliseconds delay, const std::function<void()>& callback) = 0;

    /// Cancels the callback with this id. An unknown id, or one that was called or cancelled, is ignored.
    virtual void stop(unsigned long long id) = 0;
};

/// Calls back after a delay, any number of callbacks at once, on one worker thread of its own.
///
/// Order. Callbacks are called one at a time, the earliest due first, never before they are due and never on
/// the caller's thread. Those due at the very same instant come in no particular order. What becomes due
/// while a callback runs is called when it returns, late if need be.
///
/// Threads. run() and both stop() may be called on any thread at any time, in a callback too. Moving this
/// object is a change to the object itself: no other call on it may be under way, except in the callback that
/// does the move.
///
/// Callbacks are copied and must not throw: what leaves one ends the process. What a callback captured is
/// destroyed on the worker thread with the timer locked, so a destructor in there must not call the timer. An
/// empty callback takes an id and is never called.
///
/// Moving. The worker keeps to the private state, which a move hands over whole: pending callbacks stay
/// pending, one under way goes on undisturbed, and ids go on counting. A timer that was moved from has no
/// worker: it can be destroyed, assigned to and stopped (with nothing to stop), and run() schedules nothing
/// and returns 0, which is never an id.
///
/// Cost. run() takes logarithmic time in the number of pending callbacks, both stop() linear time.
class SingleShotTimer : public ISingleShotTimer {
public:
    /// Starts the worker thread. Throws std::system_error if the platform refuses one.
    SingleShotTimer();

    /// Cancels everything pending and waits for the callback under way. Not in one of its own callbacks. A
    /// callback that keeps scheduling another without delay keeps the destructor waiting.
    ~SingleShotTimer() override;

    SingleShotTimer(const SingleShotTimer&) = delete;
    SingleShotTimer& operator=(const SingleShotTimer&) = delete;

    /// Takes over the other's worker and all that is pending (see Moving).
    SingleShotTimer(SingleShotTimer&& other) noexcept;
    /// Ends this timer as its destructor does, waiting included, and takes over the other's worker. Not in
    /// one of this timer's own callbacks. Assigning a timer to itself changes nothing.
    SingleShotTimer& operator=(SingleShotTimer&& other) noexcept;

    /// As the run() below, for those who do not cancel. The flag is ignored: every callback is called once.
    void run(std::chrono::milliseconds delay, const std::function<void()>& callback,
             bool singleShot) override;

    /// Cancels everything that is pending. The timer goes on: what is scheduled afterwards is called.
    void stop() override;

    /// Has `callback` called `delay` from now, at once if that is not positive. Ids count from 1 and are
    /// never used again. A delay beyond a century counts as one.
    std::uint64_t run(std::chrono::milliseconds delay, const std::function<void()>& callback) override;

    /// Cancels one callback. Does not wait for it if it is under way. Its captures are destroyed soon
    /// afterwards, on the worker thread, not only when it would have been due.
    void stop(unsigned long long id) override;

private:
    struct TimerEntry;
    struct SingleShotTimerImpl;

    static void timerWorker(SingleShotTimerImpl& impl);
    static std::optional<std::chrono::steady_clock::time_point> calculateWaitTime(SingleShotTimerImpl& impl);
    static void executeTimerEntries(SingleShotTimerImpl& impl);

    void endWorker();

    std::unique_ptr<SingleShotTimerImpl> m_impl;
};

}  // namespace cmn
