#include "platform/linux/process/StandardOutput.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdlib>
#include <iostream>
#include <string>

#include "unit/platform/process/RunInChild.h"

namespace {

/// The process's standard output is one end of a pipe; here is the other.
class OutputPipe {
public:
    OutputPipe() {
        std::array<int, 2> ends{};
        EXPECT_EQ(pipe(ends.data()), 0);
        dup2(ends[1], STDOUT_FILENO);
        close(ends[1]);
        m_end = ends[0];
        fcntl(m_end, F_SETFL, O_NONBLOCK);
    }

    std::string read() const {
        std::string text;
        std::array<char, 4096> piece{};
        for (ssize_t got = 0; (got = ::read(m_end, piece.data(), piece.size())) > 0;) {
            text.append(piece.data(), static_cast<std::size_t>(got));
        }
        return text;
    }

    void closeReader() const { close(m_end); }

private:
    int m_end = -1;
};

constexpr std::size_t lineLength = 70;
const std::string line(lineLength - 1, 'x');

void writeLines(int count) {
    for (int i = 0; i < count; ++i) {
        std::cout << line << '\n';
    }
}

bool wholeLines(const std::string& text) {
    for (std::size_t start = 0; start < text.size(); start += lineLength) {
        if (text.substr(start, lineLength) != line + "\n") {
            return false;
        }
    }
    return true;
}

TEST(StandardOutput, WaitsForNobodyAndIsHeardAgainInWholeLines) {
    const auto body = [] {
        const OutputPipe output;
        platform::neverWaitForStandardOutput();
        writeLines(5000);
        const std::string first = output.read();
        if (first.size() < 32768 || first.size() > 5000 * lineLength / 2 || !wholeLines(first)) {
            return 1;
        }
        writeLines(500);
        std::cout << std::flush;
        const std::string second = output.read();
        return wholeLines(second) && second.size() >= 500 * lineLength ? 0 : 2;
    };
    EXPECT_TRUE(runInChild(body).returned(0));
}

TEST(StandardOutput, KeepsLinesUntilManyHaveComeTogether) {
    const auto body = [] {
        const OutputPipe output;
        platform::neverWaitForStandardOutput();
        writeLines(20);
        if (!output.read().empty()) {
            return 1;
        }
        std::cout << std::flush;
        return output.read().size() == 20 * lineLength ? 0 : 2;
    };
    EXPECT_TRUE(runInChild(body).returned(0));
}

TEST(StandardOutput, WritesALineThatIsLongerThanWhatItKeeps) {
    const auto body = [] {
        const OutputPipe output;
        platform::neverWaitForStandardOutput();
        const std::string longLine(20000, 'y');
        std::cout << "before\n" << longLine << "\nafter\n" << std::flush;
        return output.read() == "before\n" + longLine + "\nafter\n" ? 0 : 1;
    };
    EXPECT_TRUE(runInChild(body).returned(0));
}

TEST(StandardOutput, AnErrorLeavesTheStreamInOrder) {
    const auto body = [] {
        const OutputPipe output;
        platform::neverWaitForStandardOutput();
        static_cast<void>(std::signal(SIGPIPE, SIG_IGN));
        output.closeReader();
        writeLines(5000);
        return std::cout.good() ? 0 : 1;
    };
    EXPECT_TRUE(runInChild(body).returned(0));
}

/// What arrives at the pseudo-terminal's master end, up to `length` bytes. The kernel hands a line over in
/// the background, and in pieces.
std::string readTerminal(int master, std::size_t length) {
    constexpr int longestWait = 5000;
    std::string text;
    pollfd input{master, POLLIN, 0};
    while (text.size() < length && poll(&input, 1, longestWait) == 1) {
        std::array<char, 64> piece{};
        const ssize_t got = read(master, piece.data(), piece.size());
        if (got <= 0) {
            break;
        }
        text.append(piece.data(), static_cast<std::size_t>(got));
    }
    return text;
}

TEST(StandardOutput, ATerminalGetsEachLineAtOnce) {
    const auto body = [] {
        const int terminal = posix_openpt(O_RDWR | O_NOCTTY);
        if (terminal < 0 || grantpt(terminal) != 0 || unlockpt(terminal) != 0) {
            return 1;
        }
        dup2(open(ptsname(terminal), O_RDWR | O_NOCTTY), STDOUT_FILENO);
        platform::neverWaitForStandardOutput();
        std::cout << "line" << '\n';
        const std::string expected = "line\r\n";
        const std::string text = readTerminal(terminal, expected.size());
        std::cerr << "the terminal got: " << testing::PrintToString(text) << '\n';
        return text == expected ? 0 : 2;
    };
    EXPECT_TRUE(runInChild(body).returned(0));
}

TEST(StandardOutput, WhatIsLeftIsWrittenWhenTheProcessExits) {
    const int before = dup(STDOUT_FILENO);
    std::cout << std::flush;
    const OutputPipe output;
    const auto result = runInChild([] {
        platform::neverWaitForStandardOutput();
        std::cout << "the end\n";
        std::exit(0);
        return 1;
    });
    dup2(before, STDOUT_FILENO);
    close(before);
    EXPECT_TRUE(result.returned(0));
    EXPECT_EQ(output.read(), "the end\n");
}

}  // namespace
