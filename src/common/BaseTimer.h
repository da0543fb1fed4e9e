#pragma once

#include <chrono>
#include <functional>
#include <memory>

#include "ITimer.h"

namespace cmn {

/// A timer with one callback and one interval, which can be changed while it runs.
class IBaseTimer : public ITimer {
public:
    using ITimer::run;

    /// Starts with the present settings, or keeps a running timer running.
    virtual void run() = 0;

    /// The time from one tick to the next, in milliseconds.
    virtual void setInterval(std::chrono::milliseconds interval) = 0;
    virtual std::chrono::milliseconds interval() const = 0;  ///< What was set last.

    /// True: one tick for each start. False: a tick after each interval, until stopped.
    virtual void setSingleShot(bool singleShot) = 0;
    virtual bool singleShot() const = 0;  ///< What was set last.

    /// Whether the timer is wanted running.
    virtual bool active() const = 0;
};

/// Calls a callback after an interval, once or again and again, on a task thread of its own, never on the
/// caller's.
///
/// Ticks. The first comes one interval after the task started; the next one interval after the callback
/// returned, so a slow callback delays what follows and nothing is caught up. With an interval of zero or
/// less the callback is called back to back. Any wake-up of the waiting task while the timer is active and
/// its interval unchanged is a tick: setting the interval that is set already, stop() and then run() at once,
/// and a spurious wake-up of the platform's condition variable all make the callback come early.
///
/// Threads. stop(), setInterval(), interval(), setSingleShot(), singleShot() and active() may be called on
/// any thread at any time, in the callback too. run() and reset() may be called on any thread, but by one at
/// a time; reset() not in the callback, since it waits for it. The callback may be replaced (setCallback(),
/// run() with a callback) only while no task runs.
///
/// Exceptions. What leaves the callback ends the task and is kept. The timer is dead from then on: active()
/// stays true and run() starts nothing. reset() throws the exception to its caller; if it is not collected
/// so, destroying the timer ends the process. An empty callback throws std::bad_function_call on the first
/// tick.
///
/// Lifetime. The task works through this object: do not move it, assign to it or destroy it in its callback,
/// and do not move it or assign to it while a task runs. Of a timer that was moved from, only the destructor,
/// active() and stop() may be used.
class BaseTimer : public IBaseTimer {
public:
    /// An idle timer. `callback` is copied.
    BaseTimer(std::chrono::milliseconds interval, const std::function<void()>& callback, bool singleShot);

    /// Stops, and waits for the task: up to one interval, if the task was just about to wait, and for a
    /// callback under way. No callback begins after it. Ends the process if an exception of the callback is
    /// still kept.
    ~BaseTimer() override;

    BaseTimer(const BaseTimer&) = delete;
    BaseTimer& operator=(const BaseTimer&) = delete;

    /// Takes over an idle timer's state; the other is inactive from then on.
    BaseTimer(BaseTimer&& other) noexcept;
    /// As above; what this timer was is destroyed without being stopped, so only for one that was never run.
    BaseTimer& operator=(BaseTimer&& other) noexcept;

    using IBaseTimer::run;

    /// Sets the interval and the flag, replaces the callback unless the new one is empty, and calls run().
    /// Setters and run() are called as virtual operations.
    void run(std::chrono::milliseconds interval, const std::function<void()>& callback,
             bool singleShot) override;

    /// If active: has no further tick begin and wakes the task. Returns at once, while the task may still be
    /// ending and a callback under way still running. A stop that meets the task on its way into the wait is
    /// noticed at the end of that wait, one interval later, without a tick.
    void stop() override;

    /// Starts a task on a new thread, or, if one runs, has it go on. Waits first for a task that was started
    /// but has not got going yet, or is on its way out: for a periodic one, until another thread stops it.
    ///
    /// A run() in the very moment in which a task ends is lost with it: active() is true then, with no task,
    /// until the next run(). A task ends close behind its stop(), or, if it missed that on its way into the
    /// wait, one interval later; a single-shot one also when its tick returns. So whoever needs the restart
    /// keeps more than an interval and the callback's time between stop() and run(), or uses reset(), which
    /// waits for the task. (docs/model shows what comes of it in the agent, which lets the platform layer
    /// keep losses apart from calls.)
    ///
    /// Throws std::system_error if the platform refuses a thread, std::bad_alloc if there is no memory;
    /// active() is true then, with no task. (Some versions of libc++ hang where no thread is to be had:
    /// docs/macos.md.) Never throws what a callback threw.
    void run() override;

    /// A new value restarts the wait under way with its full length and fires nothing; the present value
    /// fires at once (see Ticks).
    void setInterval(std::chrono::milliseconds interval) override;
    std::chrono::milliseconds interval() const override;  ///< What was set last.

    /// Takes effect at the end of the next tick.
    void setSingleShot(bool singleShot) override;
    bool singleShot() const override;  ///< What was set last.

    /// True from run() until stop() or a single-shot tick's end, whether or not a task runs; false when moved
    /// from.
    bool active() const override;

    /// Replaces the callback, by a copy; an empty one is ignored. Only while no task runs.
    void setCallback(const std::function<void()>& callback);

    /// Stops, waits until the task has ended, and runs anew: the next tick is a full interval away. Throws
    /// what ended the task, if that was an exception, and does not run then.
    void reset();

private:
    struct BaseTimerImpl;

    /// Waits for the last task, if it is not collected yet, and throws what ended it.
    void collectTask();
    void timerAsyncTask();

    std::unique_ptr<BaseTimerImpl> m_impl;
};

}  // namespace cmn
