#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

namespace link_tests {

/// A process that the test started: killed and reaped at the end, and by the kernel should the test itself
/// die.
class ChildProcess {
public:
    /// Starts `command` with exactly `environment`. `prepare` runs in the child before that; what it throws,
    /// and a failure to execute, are thrown here.
    ChildProcess(const std::vector<std::string>& command, const std::vector<std::string>& environment,
                 const std::function<void()>& prepare = {});
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    pid_t pid() const { return m_pid; }
    bool running();
    /// Sends a signal, unless the process has ended.
    void signal(int number);
    /// Waits for the end and tells it as "exit 0", "signal 11" or, at the cap, "still running".
    std::string awaitEnd();

private:
    void reap(int flags);

    pid_t m_pid = -1;
    bool m_running = false;
    int m_status = 0;
};

}  // namespace link_tests
