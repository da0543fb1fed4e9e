#include "Locker.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <fstream>

#include "platform/linux/process/FileDescriptor.h"

namespace {

using Clock = std::chrono::steady_clock;

// Of these some mean something to lockers: swaylock unlocks at SIGUSR1.
constexpr std::array<int, 6> passedOn{SIGTERM, SIGINT, SIGHUP, SIGQUIT, SIGUSR1, SIGUSR2};

std::vector<char*> pointersTo(const std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    pointers.reserve(texts.size() + 1);
    for (const std::string& text : texts) {
        pointers.push_back(const_cast<char*>(text.c_str()));
    }
    pointers.push_back(nullptr);
    return pointers;
}

timespec timeLeft(Clock::time_point deadline) {
    using namespace std::chrono;
    const auto left = std::max(duration_cast<nanoseconds>(deadline - Clock::now()), nanoseconds(0));
    const auto whole = duration_cast<seconds>(left);
    return {whole.count(), (left - whole).count()};
}

}  // namespace

Locker::Locker() {
    sigemptyset(&m_handled);
    sigaddset(&m_handled, SIGCHLD);
    for (const int signal : passedOn) {
        sigaddset(&m_handled, signal);
    }
    // A parent that ignores it would have the kernel reap for us.
    static_cast<void>(std::signal(SIGCHLD, SIG_DFL));
    sigprocmask(SIG_BLOCK, &m_handled, &m_before);
    prctl(PR_SET_CHILD_SUBREAPER, 1);
}

int Locker::start(const std::vector<std::string>& command) {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
        return errno;
    }
    const platform::FileDescriptor failureEnd(ends[0]);
    platform::FileDescriptor childsEnd(ends[1]);
    m_started = fork();
    if (m_started < 0) {
        return errno;
    }
    if (m_started == 0) {
        runInChild(command, childsEnd.get());
    }
    childsEnd.reset();
    // Closed by a successful exec.
    int error = 0;
    const bool failed = read(failureEnd.get(), &error, sizeof error) == sizeof error;
    return failed ? error : 0;
}

void Locker::runInChild(const std::vector<std::string>& command, int failureEnd) const {
    const std::vector<char*> arguments = pointersTo(command);
    sigprocmask(SIG_SETMASK, &m_before, nullptr);
    execvp(arguments[0], arguments.data());
    const int error = errno;
    const bool told = write(failureEnd, &error, sizeof error) == sizeof error;
    _exit(told ? 127 : 126);
}

bool Locker::waitUntilGone(std::chrono::milliseconds time) {
    const auto deadline = Clock::now() + time;
    while (!reap()) {
        const timespec left = timeLeft(deadline);
        if (!takeSignal(&left) && Clock::now() >= deadline) {
            return reap();
        }
    }
    return true;
}

void Locker::waitUntilGone() {
    while (!reap()) {
        takeSignal(nullptr);
    }
}

// False if none came in time.
bool Locker::takeSignal(const timespec* longest) {
    const int signal =
        longest == nullptr ? sigwaitinfo(&m_handled, nullptr) : sigtimedwait(&m_handled, nullptr, longest);
    if (signal > 0 && signal != SIGCHLD) {
        passOn(signal);
    }
    return signal > 0;
}

// True once there is nobody left.
bool Locker::reap() {
    int status = 0;
    pid_t ended = 0;
    while ((ended = waitpid(-1, &status, WNOHANG)) > 0) {
        if (ended == m_started) {
            m_status = WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
        }
    }
    return ended < 0 && errno == ECHILD;
}

// To the locker itself, or to those that it left behind. proc(5), "/proc/pid/task/tid/children".
void Locker::passOn(int signal) const {
    const std::string self = std::to_string(getpid());
    std::ifstream children("/proc/self/task/" + self + "/children");
    for (pid_t child = 0; children >> child;) {
        kill(child, signal);
    }
}
