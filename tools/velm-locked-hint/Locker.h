#pragma once

#include <sys/types.h>

#include <chrono>
#include <csignal>
#include <string>
#include <vector>

/// A screen locker and all that comes of it: one that goes into the background, as many do unless they are
/// told not to, is followed there, since its descendants become this process's children when their parent
/// ends. One in a process, which must have no other children; one thread.
class Locker {
public:
    /// Blocks the signals that `waitUntilGone` handles, and makes this process the reaper of its descendants.
    Locker();
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
    /// How the process that was started has ended, as a shell says it: its exit status, or 128 and the number
    /// of the signal. Once all is gone.
    int status() const { return m_status; }

private:
    void runInChild(const std::vector<std::string>& command, int failureEnd) const;
    bool takeSignal(const timespec* longest);
    bool reap();
    void passOn(int signal) const;

    sigset_t m_handled{};
    sigset_t m_before{};
    pid_t m_started = -1;
    int m_status = 0;
};
