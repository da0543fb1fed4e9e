#include <gtest/gtest.h>
#include <sys/prctl.h>

#include <chrono>

#include "common/BaseTimer.h"
#include "common/Semaphore.h"
#include "common/SingleShotTimer.h"

namespace {

// How long the kernel may let a wait of the calling thread run on, in nanoseconds.
int slackOfThisThread() {
    return prctl(PR_GET_TIMERSLACK, 0UL, 0UL, 0UL, 0UL);
}

constexpr int punctual = 1;

TEST(TimerSlack, OfThePeriodicTimersTaskIsNone) {
    cmn::Semaphore done;
    int slack = 0;
    cmn::BaseTimer timer(
        std::chrono::milliseconds(1),
        [&] {
            slack = slackOfThisThread();
            done.notify();
        },
        true);
    timer.run();
    done.wait();
    EXPECT_EQ(slack, punctual);
}

TEST(TimerSlack, OfTheSchedulersWorkerIsNone) {
    cmn::Semaphore done;
    int slack = 0;
    cmn::SingleShotTimer timer;
    timer.run(std::chrono::milliseconds(0), [&] {
        slack = slackOfThisThread();
        done.notify();
    });
    done.wait();
    EXPECT_EQ(slack, punctual);
}

TEST(TimerSlack, OfTheCallersThreadStaysAsItWas) {
    const int before = slackOfThisThread();
    ASSERT_NE(before, punctual);
    cmn::Semaphore done;
    cmn::BaseTimer periodic(
        std::chrono::milliseconds(1), [&] { done.notify(); }, true);
    periodic.run();
    done.wait();
    cmn::SingleShotTimer scheduler;
    scheduler.run(std::chrono::milliseconds(0), [&] { done.notify(); });
    done.wait();
    EXPECT_EQ(slackOfThisThread(), before);
}

}  // namespace
