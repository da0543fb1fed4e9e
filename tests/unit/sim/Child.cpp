#include "unit/sim/Child.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <thread>

#include "support/ArgumentPointers.h"

namespace {

constexpr std::chrono::seconds cap{60};

using Pipe = std::array<int, 2>;

Pipe makePipe() {
    Pipe ends{};
    EXPECT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
    return ends;
}

void closeOnce(int& fd) {
    if (fd >= 0) {
        close(fd);
        fd = -1;
    }
}

[[noreturn]] void become(const std::vector<std::string>& arguments,
                         const std::vector<std::string>& environment) {
    std::signal(SIGPIPE, SIG_DFL);
    std::vector<std::string> texts = arguments;
    const std::vector<char*> pointers = pointersTo(texts);
    for (const std::string& variable : environment) {
        const std::size_t equals = variable.find('=');
        setenv(variable.substr(0, equals).c_str(), variable.substr(equals + 1).c_str(), 1);
    }
    execvp(pointers[0], pointers.data());
    _exit(127);
}

}  // namespace

Child::Child(const std::vector<std::string>& arguments, const std::vector<std::string>& environment) {
    // A program that ended does not end the test that talks to it.
    std::signal(SIGPIPE, SIG_IGN);
    const Pipe input = makePipe();
    const Pipe output = makePipe();
    const Pipe errors = makePipe();
    m_pid = fork();
    if (m_pid == 0) {
        dup2(input[0], STDIN_FILENO);
        dup2(output[1], STDOUT_FILENO);
        dup2(errors[1], STDERR_FILENO);
        become(arguments, environment);
    }
    close(input[0]);
    close(output[1]);
    close(errors[1]);
    m_input = input[1];
    m_output = output[0];
    m_errors = errors[0];
}

Child::~Child() {
    if (running()) {
        kill(m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
    }
    closeInput();
    closeOutput();
    closeOnce(m_errors);
}

bool Child::readMore(int timeoutMilliseconds) {
    pollfd readable{m_output, POLLIN, 0};
    std::array<char, 4096> chunk{};
    if (poll(&readable, 1, timeoutMilliseconds) <= 0) {
        return true;
    }
    const ssize_t length = read(m_output, chunk.data(), chunk.size());
    if (length > 0) {
        m_unread.append(chunk.data(), static_cast<std::size_t>(length));
    }
    return length > 0;
}

std::string Child::awaitLine(const std::string& part) {
    const auto deadline = std::chrono::steady_clock::now() + cap;
    bool open = true;
    while (true) {
        std::size_t end = 0;
        while ((end = m_unread.find('\n')) != std::string::npos) {
            std::string line = m_unread.substr(0, end);
            m_unread.erase(0, end + 1);
            if (line.find(part) != std::string::npos) {
                return line;
            }
        }
        if (!open || std::chrono::steady_clock::now() > deadline) {
            ADD_FAILURE() << "no line with \"" << part << "\"" << (open ? "" : " before the output ended");
            return "";
        }
        open = readMore(100);
    }
}

bool Child::running() {
    if (!m_ended && waitpid(m_pid, &m_status, WNOHANG) == m_pid) {
        m_ended = true;
    }
    return !m_ended;
}

int Child::awaitEnd() {
    const auto deadline = std::chrono::steady_clock::now() + cap;
    while (running()) {
        if (std::chrono::steady_clock::now() > deadline) {
            ADD_FAILURE() << "the program did not end";
            // So that what waits for its output now does not wait for ever.
            kill(m_pid, SIGKILL);
            waitpid(m_pid, &m_status, 0);
            m_ended = true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return WIFEXITED(m_status) ? WEXITSTATUS(m_status) : -WTERMSIG(m_status);
}

std::string Child::errors() {
    std::string text;
    std::array<char, 4096> chunk{};
    for (ssize_t length = 0; (length = read(m_errors, chunk.data(), chunk.size())) > 0;) {
        text.append(chunk.data(), static_cast<std::size_t>(length));
    }
    return text;
}

void Child::say(const std::string& line) const {
    const std::string text = line + "\n";
    EXPECT_EQ(write(m_input, text.data(), text.size()), static_cast<ssize_t>(text.size()));
}

void Child::closeInput() {
    closeOnce(m_input);
}

void Child::closeOutput() {
    closeOnce(m_output);
}

void Child::signal(int number) const {
    kill(m_pid, number);
}
