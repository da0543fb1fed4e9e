#include "platform/SystemLog.h"

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <sched.h>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <regex>
#include <string>

#include "unit/platform/process/RunInChild.h"

namespace {

constexpr int noNamespace = 77;

/// A /dev of this process's own, empty at first. False where the system does not let us have one.
bool enterEmptyDev() {
    return unshare(CLONE_NEWNS) == 0 && mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           mount("none", "/dev", "tmpfs", 0, nullptr) == 0;
}

int openDevLog() {
    const int log = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, "/dev/log");
    return bind(log, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 ? log : -1;
}

std::string nextMessage(int log) {
    std::array<char, 8192> text{};
    const ssize_t length = recv(log, text.data(), text.size(), MSG_DONTWAIT);
    return length < 0 ? std::string() : std::string(text.data(), static_cast<std::size_t>(length));
}

TEST(SystemLog, WritesOneLineToTheStandardErrorWhereThereIsNoLog) {
    const ChildResult result = runInChild([] {
        if (!enterEmptyDev()) {
            return noNamespace;
        }
        platform::writeSystemLog("no file at path = ", "/a\nb%s\n\nc");
        return 0;
    });
    if (result.returned(noNamespace)) {
        GTEST_SKIP() << "needs root for a private /dev";
    }
    EXPECT_EQ(result.errorOutput, "no file at path = /a b%s  c\n");
}

TEST(SystemLog, WritesOneLineToTheLogAndNowhereElse) {
    const ChildResult result = runInChild([] {
        if (!enterEmptyDev()) {
            return noNamespace;
        }
        const int log = openDevLog();
        platform::writeSystemLog("no file at path = ", "/a\nb%s\n\nc");
        // LOG_USER is 1 and LOG_ERR is 3, in one number 1 * 8 + 3.
        const std::regex expected("<11>.* velmmonitord\\[" + std::to_string(getpid()) +
                                  "\\]: no file at path = /a b%s  c");
        const std::string message = nextMessage(log);
        if (!std::regex_match(message, expected)) {
            return 1;
        }
        return nextMessage(log).empty() ? 0 : 2;
    });
    if (result.returned(noNamespace)) {
        GTEST_SKIP() << "needs root for a private /dev";
    }
    EXPECT_TRUE(result.returned(0)) << result.status;
    EXPECT_EQ(result.errorOutput, "");
}

}  // namespace
