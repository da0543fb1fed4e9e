#include "link/support/ChildProcess.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <exception>
#include <stdexcept>
#include <system_error>

#include "link/support/Await.h"
#include "support/ArgumentPointers.h"

namespace link_tests {
namespace {

void report(int pipeEnd, const std::string& failure) {
    // The exit status tells it as well, should even this fail.
    if (::write(pipeEnd, failure.data(), failure.size()) < 0) {
        ::_exit(126);
    }
    ::_exit(127);
}

std::string readAll(int pipeEnd) {
    std::string text;
    std::array<char, 512> piece{};
    for (;;) {
        const ssize_t count = ::read(pipeEnd, piece.data(), piece.size());
        if (count > 0) {
            text.append(piece.data(), static_cast<std::size_t>(count));
        } else if (count == 0 || errno != EINTR) {
            return text;
        }
    }
}

}  // namespace

ChildProcess::ChildProcess(const std::vector<std::string>& command,
                           const std::vector<std::string>& environment,
                           const std::function<void()>& prepare) {
    std::vector<std::string> commandTexts = command;
    std::vector<std::string> environmentTexts = environment;
    const std::vector<char*> arguments = pointersTo(commandTexts);
    const std::vector<char*> variables = pointersTo(environmentTexts);
    std::array<int, 2> failurePipe{};
    if (::pipe2(failurePipe.data(), O_CLOEXEC) != 0) {
        throw std::system_error(errno, std::generic_category(), "pipe2");
    }
    const pid_t parent = ::getpid();
    m_pid = ::fork();
    if (m_pid == 0) {
        // Away from the low numbers, which a test may close for the program to find closed.
        const int failureEnd = ::fcntl(failurePipe[1], F_DUPFD_CLOEXEC, 100);
        try {
            if (prepare) {
                prepare();
            }
            // After `prepare`, since a change of user clears it.
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (::getppid() != parent) {
                ::_exit(125);
            }
            ::execve(arguments[0], arguments.data(), variables.data());
            report(failureEnd, command[0] + ": " + std::strerror(errno));
        } catch (const std::exception& failure) {
            report(failureEnd, failure.what());
        }
    }
    ::close(failurePipe[1]);
    const std::string failure = m_pid > 0 ? readAll(failurePipe[0]) : std::strerror(errno);
    ::close(failurePipe[0]);
    m_running = m_pid > 0;
    if (!failure.empty()) {
        if (m_running) {
            reap(0);
        }
        throw std::runtime_error("cannot start " + command[0] + ": " + failure);
    }
}

ChildProcess::~ChildProcess() {
    if (m_running) {
        signal(SIGKILL);
        reap(0);
    }
}

void ChildProcess::reap(int flags) {
    if (m_running && ::waitpid(m_pid, &m_status, flags) == m_pid) {
        m_running = false;
    }
}

bool ChildProcess::running() {
    reap(WNOHANG);
    return m_running;
}

void ChildProcess::signal(int number) {
    // The pid is ours until it is reaped, so this cannot hit a stranger.
    if (running()) {
        ::kill(m_pid, number);
    }
}

std::string ChildProcess::awaitEnd() {
    if (!await([this] { return !running(); })) {
        return "still running";
    }
    return WIFEXITED(m_status) ? "exit " + std::to_string(WEXITSTATUS(m_status))
                               : "signal " + std::to_string(WTERMSIG(m_status));
}

}  // namespace link_tests
