#pragma once

#include <linux/seccomp.h>
#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <map>
#include <thread>

namespace faults {

/// Which system call fails, and how.
struct SyscallFault {
    int number = -1;  ///< -1: none fails
    std::size_t occurrence = 0;
    int error = 0;
};

/// Sees every system call that a program makes, on all of its threads, and has one of them fail without
/// being made. Counting begins with the program's own first call (see SyscallTrap.cpp), after the loader's.
///
/// Not seen are the calls that programs never see fail, or that end a thread.
class SyscallTrap {
public:
    explicit SyscallTrap(const SyscallFault& fault);
    /// Whatever still runs under the trap must have ended.
    ~SyscallTrap();
    SyscallTrap(const SyscallTrap&) = delete;
    SyscallTrap& operator=(const SyscallTrap&) = delete;

    /// In the new process, as root, before it executes the program. Works once. Throws std::system_error.
    void enter() const;

    /// How often each call was made, by its number. While the program runs, a snapshot may lag.
    std::map<int, std::size_t> counts() const { return m_counts; }
    std::size_t total() const { return m_total; }
    bool struck() const { return m_struck; }
    /// Waits until the program is gone and its last call is counted.
    void finish();

private:
    struct Shared;

    void supervise();
    int takeListener() const;
    int errorFor(const seccomp_data& call);

    SyscallFault m_fault;
    Shared* m_shared;
    std::map<int, std::size_t> m_counts;
    std::atomic<std::size_t> m_total{0};
    std::atomic<bool> m_struck{false};
    std::atomic<bool> m_finishing{false};
    bool m_counting = false;
    std::thread m_supervisor;
};

}  // namespace faults
