#include "platform/Process.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <ctime>

#include "unit/platform/process/ChildProcess.h"

namespace {

TEST(Process, AClosedOutputCostsTheLinesAndNotTheProcess) {
    const auto body = [] {
        std::array<int, 2> ends{};
        if (pipe(ends.data()) != 0) {
            return 1;
        }
        close(ends[0]);
        platform::prepareProcess();
        return write(ends[1], "x", 1) < 0 && errno == EPIPE ? 0 : 2;
    };
    EXPECT_TRUE(runInChild(body).returned(0));
}

TEST(Process, KeepsTheEndingSignalsForTheRunLoop) {
    const auto body = [] {
        platform::prepareProcess();
        kill(getpid(), SIGTERM);
        kill(getpid(), SIGINT);
        sigset_t pending;
        sigpending(&pending);
        return sigismember(&pending, SIGTERM) == 1 && sigismember(&pending, SIGINT) == 1 ? 0 : 1;
    };
    EXPECT_TRUE(runInChild(body).returned(0));
}

TEST(Process, LocalTimeFollowsTheMachineAndNotTheEnvironment) {
    const auto body = [] {
        setenv("TZ", "TST-13:45", 1);
        tzset();
        platform::prepareProcess();
        const std::time_t now = std::time(nullptr);
        std::tm local{};
        localtime_r(&now, &local);
        constexpr long offsetOfNoRealZone = (13L * 60 + 45) * 60;
        return local.tm_gmtoff != offsetOfNoRealZone ? 0 : 1;
    };
    EXPECT_TRUE(runInChild(body).returned(0));
}

}  // namespace
