#pragma once

#include <chrono>
#include <functional>

namespace cmn {

/// What every timer of this library can do. Each kind of timer says itself what its operations mean, and from
/// which threads they may be called.
class ITimer {
public:
    /// Ends the timer. Not inside one of its own callbacks: both timers wait there for the callback to
    /// return.
    virtual ~ITimer() = default;

    /// Has `callback` called on a thread of the timer's own, `interval` from now; with `singleShot` once.
    /// Whether an empty callback, a negative interval and the flag mean anything is the kind of timer's to
    /// say.
    virtual void run(std::chrono::milliseconds interval, const std::function<void()>& callback,
                     bool singleShot) = 0;

    /// Has no further callback begin. Does not wait for one that is under way.
    virtual void stop() = 0;
};

}  // namespace cmn
