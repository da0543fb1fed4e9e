#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

#include "Signals.h"

/// A screen locker and all that comes of it: one that goes into the background, as many do unless they are
/// told not to, is followed there, since its descendants become this process's children when their parent
/// ends. One in a process, which must have no other children; one thread.
class Locker {
public:
    /// Makes this process the reaper of its descendants. `signals` must outlive this object.
    explicit Locker(const Signals& signals);
    ~Locker() = default;
    Locker(const Locker&) = delete;
    Locker& operator=(const Locker&) = delete;

    /// Starts `command`, found in PATH. Zero, or the errno of what failed.
    int start(const std::vector<std::string>& command);
    /// Waits until the locker and all its descendants have ended; false if they have not after `time`.
    /// Signals that would end this process go to them meanwhile, because ending before they do would leave a
    /// locked screen to nobody.
    bool waitUntilGone(std::chrono::milliseconds time);
    void waitUntilGone();
    /// How the process that was started has ended, see exitStatus(). Once all is gone.
    int status() const { return m_status; }

private:
    void runInChild(const std::vector<std::string>& command, int failureEnd) const;
    bool reap();

    const Signals& m_signals;
    pid_t m_started = -1;
    int m_status = 0;
};

/// What a shell makes of a status of waitpid(2): the exit status, or 128 and the number of the signal.
int exitStatus(int status);
