#include "platform/LossPacing.h"

#include <gtest/gtest.h>

namespace {

using platform::LossPacing;
using std::chrono::milliseconds;

const LossPacing::Clock::time_point start{std::chrono::hours(1)};

TEST(LossPacing, LetsTheFirstReportThroughAtOnce) {
    LossPacing pacing;
    EXPECT_EQ(pacing.acquire(start), milliseconds(0));
}

TEST(LossPacing, LetsNoReportThroughBeforeTheEarliest) {
    LossPacing pacing(start + milliseconds(300));
    EXPECT_EQ(pacing.acquire(start), milliseconds(300));
    EXPECT_EQ(pacing.acquire(start + milliseconds(300)), milliseconds(0));
}

TEST(LossPacing, OfTheProcessLetsNoReportThroughInItsFirstSecond) {
    const auto before = LossPacing::Clock::now();
    EXPECT_GE(LossPacing::instance().acquire(before), milliseconds(1000));
}

TEST(LossPacing, HoldsTheNextReportBackUntilASecondHasPassed) {
    LossPacing pacing;
    pacing.acquire(start);
    EXPECT_EQ(pacing.acquire(start + milliseconds(1)), milliseconds(999));
    EXPECT_EQ(pacing.acquire(start + milliseconds(999)), milliseconds(1));
    EXPECT_EQ(pacing.acquire(start + milliseconds(1000)), milliseconds(0));
}

TEST(LossPacing, AskingTooEarlyDoesNotPutTheNextReportOff) {
    LossPacing pacing;
    pacing.acquire(start);
    pacing.acquire(start + milliseconds(900));
    EXPECT_EQ(pacing.acquire(start + milliseconds(1000)), milliseconds(0));
    EXPECT_EQ(pacing.acquire(start + milliseconds(1100)), milliseconds(900));
}

// What stops the reconnect timer may be noticed as late as one of its intervals, a second, afterwards.
TEST(LossPacing, HoldsAReportBackForATimerIntervalAndATenthOfASecondAfterACall) {
    LossPacing pacing;
    pacing.callDelivered(start);
    EXPECT_EQ(pacing.acquire(start), milliseconds(1100));
    EXPECT_EQ(pacing.acquire(start + milliseconds(1099)), milliseconds(1));
    EXPECT_EQ(pacing.acquire(start + milliseconds(1100)), milliseconds(0));
}

TEST(LossPacing, CountsFromTheLastCall) {
    LossPacing pacing;
    pacing.callDelivered(start);
    pacing.callDelivered(start + milliseconds(80));
    EXPECT_EQ(pacing.acquire(start + milliseconds(1100)), milliseconds(80));
}

TEST(LossPacing, ACallAtOnceAfterAReportPutsTheNextOneOff) {
    LossPacing pacing;
    pacing.acquire(start);
    pacing.callDelivered(start);
    EXPECT_EQ(pacing.acquire(start + milliseconds(1000)), milliseconds(100));
    EXPECT_EQ(pacing.acquire(start + milliseconds(1100)), milliseconds(0));
}

}  // namespace
