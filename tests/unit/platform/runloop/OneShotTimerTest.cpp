#include "platform/linux/runloop/OneShotTimer.h"

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/resource.h>

#include <sched.h>
#include <chrono>
#include <thread>

#include "platform/linux/runloop/Backoff.h"
#include "unit/platform/process/RunInChild.h"
#include "unit/platform/runloop/LoopFixture.h"

namespace {

using platform::Backoff;
using platform::OneShotTimer;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

class OneShotTimerTest : public LoopFixture {
protected:
    int m_calls = 0;
    OneShotTimer m_timer{loop(), [this] { ++m_calls; }};
};

TEST_F(OneShotTimerTest, CallsOnceAndNotTooEarly) {
    const auto begin = steady_clock::now();
    m_timer.start(milliseconds(50));
    EXPECT_TRUE(runUntil([this] { return m_calls > 0; }));
    EXPECT_GE(steady_clock::now() - begin, milliseconds(50));
    runFor(milliseconds(150));
    EXPECT_EQ(m_calls, 1);
}

TEST_F(OneShotTimerTest, ReplacesAPendingStart) {
    const auto begin = steady_clock::now();
    m_timer.start(milliseconds(20));
    m_timer.start(milliseconds(150));
    EXPECT_TRUE(runUntil([this] { return m_calls > 0; }));
    EXPECT_GE(steady_clock::now() - begin, milliseconds(150));
    runFor(milliseconds(100));
    EXPECT_EQ(m_calls, 1);
}

TEST_F(OneShotTimerTest, ForgetsAStartThatIsStopped) {
    m_timer.start(milliseconds(10));
    m_timer.stop();
    runFor(milliseconds(100));
    EXPECT_EQ(m_calls, 0);
}

TEST_F(OneShotTimerTest, MayBeStartedFromItsCallback) {
    int calls = 0;
    OneShotTimer* self = nullptr;
    OneShotTimer timer(loop(), [&] {
        if (++calls < 3) {
            self->start(milliseconds(1));
        }
    });
    self = &timer;
    timer.start(milliseconds(1));
    EXPECT_TRUE(runUntil([&calls] { return calls == 3; }));
}

TEST_F(OneShotTimerTest, CountsFromItsStartHoweverLongTheLoopWasHeldUpBefore) {
    bool fired = false;
    OneShotTimer other(loop(), [&fired] { fired = true; });
    steady_clock::time_point begin;
    OneShotTimer late(loop(), [&] {
        std::this_thread::sleep_for(milliseconds(100));
        begin = steady_clock::now();
        other.start(milliseconds(80));
    });
    late.start(milliseconds(1));
    EXPECT_TRUE(runUntil([&fired] { return fired; }));
    EXPECT_GE(steady_clock::now() - begin, milliseconds(80));
}

TEST(Backoff, DoublesUpToTheLongestAndStartsOver) {
    Backoff backoff(milliseconds(1000), milliseconds(5000));
    EXPECT_EQ(backoff.next(), milliseconds(1000));
    EXPECT_EQ(backoff.next(), milliseconds(2000));
    EXPECT_EQ(backoff.next(), milliseconds(4000));
    EXPECT_EQ(backoff.next(), milliseconds(5000));
    EXPECT_EQ(backoff.next(), milliseconds(5000));
    backoff.reset();
    EXPECT_EQ(backoff.next(), milliseconds(1000));
}

/// A /dev without a system log, so that its lines go to the standard error. False where that takes root.
bool hideSystemLog() {
    return unshare(CLONE_NEWNS) == 0 && mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           mount("none", "/dev", "tmpfs", 0, nullptr) == 0;
}

TEST_F(OneShotTimerTest, SaysOnceInTheSystemLogThatItGetsNoTimer) {
    constexpr int notHere = 77;
    const ChildResult result = runInChild([this] {
        if (!hideSystemLog()) {
            return notHere;
        }
        const rlimit none{0, 0};
        setrlimit(RLIMIT_NOFILE, &none);
        m_timer.start(milliseconds(1));
        m_timer.start(milliseconds(1));
        return 0;
    });
    if (result.returned(notHere)) {
        GTEST_SKIP() << "needs root for a private /dev";
    }
    EXPECT_TRUE(result.returned(0)) << result.status;
    EXPECT_EQ(
        result.errorOutput,
        "[ERROR] No descriptors or timers left for the event loop; screen locks and time zone changes may "
        "be missed\n");
}

}  // namespace
