#pragma once

#include <sys/types.h>

#include <functional>

namespace link_tests {

/// A copy of the test's process that does one thing as some user: killed and reaped with this object, and
/// killed by the kernel should the test itself die.
class ForkedProcess {
public:
    /// Runs `body` in the copy, whose end is the end of the copy too. What it throws ends the copy with
    /// status 1, which the test sees by what is missing then. Throws std::system_error if there is no copy.
    ForkedProcess(uid_t user, const std::function<void()>& body);
    ~ForkedProcess();
    ForkedProcess(const ForkedProcess&) = delete;
    ForkedProcess& operator=(const ForkedProcess&) = delete;

private:
    pid_t m_pid;
};

}  // namespace link_tests
