#include "platform/Process.h"

#include <gtest/gtest.h>
#include <malloc.h>
#include <pthread.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "unit/platform/process/RunInChild.h"

namespace {

/// How many heaps the C library's allocator has made so far.
std::size_t heaps() {
    char* text = nullptr;
    std::size_t size = 0;
    std::FILE* const stream = open_memstream(&text, &size);
    malloc_info(0, stream);
    std::fclose(stream);
    const std::string report(text, size);
    std::free(text);
    std::size_t count = 0;
    for (auto place = report.find("<heap "); place != std::string::npos;
         place = report.find("<heap ", place + 1)) {
        ++count;
    }
    return count;
}

/// Has as many threads allocate at once.
void allocateInThreads(int count) {
    std::vector<std::thread> threads(static_cast<std::size_t>(count));
    for (auto& thread : threads) {
        thread = std::thread([] { std::make_unique<std::string>(1000, 'x'); });
    }
    for (auto& thread : threads) {
        thread.join();
    }
}

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

TEST(Process, ItsThreadsShareOneHeap) {
    const auto body = [] {
        platform::prepareProcess();
        allocateInThreads(4);
        return static_cast<int>(heaps());
    };
    EXPECT_TRUE(runInChild(body).returned(1));
}

}  // namespace
