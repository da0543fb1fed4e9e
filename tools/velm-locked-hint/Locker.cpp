#include "Locker.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <fstream>

#include "platform/linux/process/FileDescriptor.h"

namespace {

using Clock = std::chrono::steady_clock;

std::vector<char*> pointersTo(std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    pointers.reserve(texts.size() + 1);
    for (std::string& text : texts) {
        pointers.push_back(text.data());
    }
    pointers.push_back(nullptr);
    return pointers;
}

// To the locker itself, or to those that it left behind: proc(5), "/proc/pid/task/tid/children".
void passOn(int signal) {
    std::ifstream children("/proc/self/task/" + std::to_string(getpid()) + "/children");
    for (pid_t child = 0; children >> child;) {
        kill(child, signal);
    }
}

void handle(int signal) {
    if (signal != SIGCHLD) {
        passOn(signal);
    }
}

}  // namespace

Locker::Locker(const Signals& signals) : m_signals(signals) {
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
    std::vector<std::string> texts = command;
    const std::vector<char*> arguments = pointersTo(texts);
    m_signals.restore();
    execvp(arguments[0], arguments.data());
    const int error = errno;
    const bool told = write(failureEnd, &error, sizeof error) == sizeof error;
    _exit(told ? 127 : 126);
}

bool Locker::waitUntilGone(std::chrono::milliseconds time) {
    const auto deadline = Clock::now() + time;
    while (!reap()) {
        const auto signal = m_signals.next(deadline - Clock::now());
        if (!signal) {
            return reap();
        }
        handle(*signal);
    }
    return true;
}

void Locker::waitUntilGone() {
    while (!reap()) {
        handle(m_signals.next());
    }
}

// True once there is nobody left.
bool Locker::reap() {
    int status = 0;
    pid_t ended = 0;
    while ((ended = waitpid(-1, &status, WNOHANG)) > 0) {
        if (ended == m_started) {
            m_status = exitStatus(status);
        }
    }
    return ended < 0 && errno == ECHILD;
}

int exitStatus(int status) {
    constexpr int signalled = 128;
    return WIFSIGNALED(status) ? signalled + WTERMSIG(status) : WEXITSTATUS(status);
}
