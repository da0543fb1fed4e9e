#include "platform/linux/runloop/OneShotTimer.h"

#include "platform/linux/runloop/Backoff.h"
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

}  // namespace
