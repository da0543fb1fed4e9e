#include "unit/platform/process/RunInChild.h"

#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <stdexcept>

namespace {

std::string readToEnd(int descriptor) {
    std::string text;
    std::array<char, 4096> part{};
    ssize_t count = 0;
    while ((count = read(descriptor, part.data(), part.size())) > 0) {
        text.append(part.data(), static_cast<std::size_t>(count));
    }
    return text;
}

[[noreturn]] void runBody(const std::function<int()>& body, int errorOutput) {
    constexpr unsigned longestRun = 30;
    dup2(errorOutput, STDERR_FILENO);
    close(errorOutput);
    alarm(longestRun);
    const int code = body();
    static_cast<void>(std::fflush(nullptr));
    _exit(code);
}

testing::AssertionResult judged(bool asExpected, const ChildResult& result) {
    if (asExpected) {
        return testing::AssertionSuccess();
    }
    const bool killed = WIFSIGNALED(result.status);
    return testing::AssertionFailure() << (killed ? "killed by signal " : "ended with exit code ")
                                       << (killed ? WTERMSIG(result.status) : WEXITSTATUS(result.status))
                                       << "; wrote: \"" << result.errorOutput << '"';
}

}  // namespace

testing::AssertionResult ChildResult::returned(int code) const {
    return judged(WIFEXITED(status) && WEXITSTATUS(status) == code, *this);
}

testing::AssertionResult ChildResult::killedBy(int signal) const {
    return judged(WIFSIGNALED(status) && WTERMSIG(status) == signal, *this);
}

ChildResult runInChild(const std::function<int()>& body) {
    std::array<int, 2> ends{};
    static_cast<void>(std::fflush(nullptr));
    if (pipe(ends.data()) != 0) {
        throw std::runtime_error("no pipe");
    }
    const pid_t child = fork();
    if (child == 0) {
        close(ends[0]);
        runBody(body, ends[1]);
    }
    close(ends[1]);
    ChildResult result;
    result.errorOutput = readToEnd(ends[0]);
    close(ends[0]);
    waitpid(child, &result.status, 0);
    return result;
}
