#include <dlfcn.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "common/BaseTimer.h"
#include "common/Semaphore.h"
#include "common/SingleShotTimer.h"

// Timers must not follow the wall clock, which users and time servers step by hours. The C library waits on
// it in pthread_cond_timedwait() (POSIX: the condition's clock, the realtime clock unless another was set),
// and on the monotonic clock in pthread_cond_clockwait(). This program has a pthread_cond_timedwait() of its
// own, which counts; so this file belongs into no program that is built with a sanitizer, which has its own
// as well.

namespace {

using namespace std::chrono_literals;

std::atomic<int> wallClockWaits{0};

}  // namespace

// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name): the header's are reserved.
extern "C" int pthread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex,
                                      const timespec* deadline) {
    ++wallClockWaits;
    using Wait = int (*)(pthread_cond_t*, pthread_mutex_t*, const timespec*);
    static const auto wait = reinterpret_cast<Wait>(dlsym(RTLD_NEXT, "pthread_cond_timedwait"));
    return wait(condition, mutex, deadline);
}

TEST(WallClock, IsWhatTheCountedCallWaitsOn) {
    wallClockWaits = 0;
    cmn::Semaphore semaphore;
    // A thread that loses its processor before it looks at the clock finds the deadline passed and does not
    // wait.
    for (auto delay = 1ms; wallClockWaits == 0 && delay < 10s; delay *= 2) {
        semaphore.waitUntil(std::chrono::system_clock::now() + delay);
    }
    EXPECT_GT(wallClockWaits, 0) << "a deadline of that clock";
}

TEST(WallClock, IsNothingThatTheTimersWaitOn) {
    wallClockWaits = 0;
    std::atomic<int> ticks{0};
    cmn::BaseTimer periodic(
        1ms, [&ticks] { ++ticks; }, false);
    periodic.run();
    cmn::SingleShotTimer scheduler;
    scheduler.run(1ms, [&ticks] { ++ticks; });
    cmn::Semaphore semaphore;
    EXPECT_FALSE(semaphore.waitUntil(std::chrono::steady_clock::now() + 20ms));
    const auto cap = std::chrono::steady_clock::now() + 20s;
    while (ticks < 3 && std::chrono::steady_clock::now() < cap) {
        std::this_thread::sleep_for(1ms);
    }
    EXPECT_GE(ticks, 3);
    EXPECT_EQ(wallClockWaits, 0);
}
