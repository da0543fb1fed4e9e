#include "faults/SyscallTrap.h"

#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <new>
#include <system_error>
#include <vector>

namespace faults {
namespace {

// glibc ends the process on an unknown error of futex(2), which the kernel never gives; the others cannot
// fail, or end something.
constexpr std::array unseen{
    __NR_futex,  __NR_exit,   __NR_exit_group, __NR_rt_sigreturn,    __NR_restart_syscall, __NR_sched_yield,
    __NR_getpid, __NR_gettid, __NR_rseq,       __NR_set_robust_list, __NR_clock_gettime};

std::vector<sock_filter> filter() {
    std::vector<sock_filter> code{
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, static_cast<unsigned>(offsetof(seccomp_data, nr)))};
    for (const int number : unseen) {
        code.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<unsigned>(number), 0, 1));
        code.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
    }
    code.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_USER_NOTIF));
    return code;
}

// eventfd(2) and timerfd_create(2) give descriptors that are read and written eight bytes at a time, and
// never fail but for having nothing to read.
bool isOfACounter(const seccomp_data& call) {
    return (call.nr == __NR_read || call.nr == __NR_write) && call.args[2] == sizeof(std::uint64_t);
}

[[noreturn]] void fail(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

}  // namespace

/// In memory that the new process shares with the supervisor: neither may make a call to reach the other
/// between the filter and the first answer.
struct SyscallTrap::Shared {
    std::atomic<pid_t> process{0};
    std::atomic<int> listener{-1};
    std::atomic<bool> supervised{false};
};

SyscallTrap::SyscallTrap(const SyscallFault& fault) : m_fault(fault) {
    void* const page =
        ::mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (page == MAP_FAILED) {
        fail("mmap");
    }
    m_shared = new (page) Shared;
    m_supervisor = std::thread([this] { supervise(); });
}

SyscallTrap::~SyscallTrap() {
    finish();
    ::munmap(m_shared, sizeof(Shared));
}

void SyscallTrap::finish() {
    m_finishing = true;
    if (m_supervisor.joinable()) {
        m_supervisor.join();
    }
}

void SyscallTrap::enter() const {
    std::vector<sock_filter> code = filter();
    const sock_fprog program{static_cast<unsigned short>(code.size()), code.data()};
    m_shared->process = ::getpid();
    const long listener =
        ::syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, SECCOMP_FILTER_FLAG_NEW_LISTENER, &program);
    if (listener < 0) {
        fail("seccomp");
    }
    m_shared->listener = static_cast<int>(listener);
    // Without a call: nobody would answer it.
    while (!m_shared->supervised) {
    }
}

int SyscallTrap::takeListener() const {
    while (m_shared->listener < 0) {
        if (m_finishing) {
            return -1;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    const auto process = static_cast<int>(::syscall(SYS_pidfd_open, m_shared->process.load(), 0));
    const auto listener = static_cast<int>(::syscall(SYS_pidfd_getfd, process, m_shared->listener.load(), 0));
    ::close(process);
    m_shared->supervised = true;
    return listener;
}

void SyscallTrap::supervise() {
    const int listener = takeListener();
    if (listener < 0) {
        return;
    }
    pollfd waiting{listener, POLLIN, 0};
    for (;;) {
        waiting.revents = 0;
        ::poll(&waiting, 1, 100);
        if ((waiting.revents & POLLIN) != 0) {
            // Must be all zeros (seccomp_unotify(2)).
            seccomp_notif call{};
            if (::ioctl(listener, SECCOMP_IOCTL_NOTIF_RECV, &call) == 0) {
                seccomp_notif_resp answer{};
                answer.id = call.id;
                answer.error = -errorFor(call.data);
                answer.flags = answer.error == 0 ? SECCOMP_USER_NOTIF_FLAG_CONTINUE : 0;
                ::ioctl(listener, SECCOMP_IOCTL_NOTIF_SEND, &answer);
            }
        } else if ((waiting.revents & POLLHUP) != 0) {
            // Nobody is left under the filter.
            break;
        }
    }
    ::close(listener);
}

int SyscallTrap::errorFor(const seccomp_data& call) {
    // What the agent does first of all is to look whether it has a standard input.
    m_counting =
        m_counting || (call.nr == __NR_fcntl && call.args[0] == STDIN_FILENO && call.args[1] == F_GETFD);
    if (!m_counting || isOfACounter(call)) {
        return 0;
    }
    ++m_total;
    const std::size_t count = ++m_counts[call.nr];
    if (call.nr != m_fault.number || count != m_fault.occurrence) {
        return 0;
    }
    m_struck = true;
    return m_fault.error;
}

}  // namespace faults
