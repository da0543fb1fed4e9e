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

TEST(LossPacing, HoldsAReportBackForATenthOfASecondAfterACall) {
    LossPacing pacing;
    pacing.callDelivered(start);
    EXPECT_EQ(pacing.acquire(start), milliseconds(100));
    EXPECT_EQ(pacing.acquire(start + milliseconds(99)), milliseconds(1));
    EXPECT_EQ(pacing.acquire(start + milliseconds(100)), milliseconds(0));
}

TEST(LossPacing, CountsFromTheLastCall) {
    LossPacing pacing;
    pacing.callDelivered(start);
    pacing.callDelivered(start + milliseconds(80));
    EXPECT_EQ(pacing.acquire(start + milliseconds(100)), milliseconds(80));
}

TEST(LossPacing, ACallDoesNotBringTheNextReportForward) {
    LossPacing pacing;
    pacing.acquire(start);
    pacing.callDelivered(start + milliseconds(200));
    EXPECT_EQ(pacing.acquire(start + milliseconds(300)), milliseconds(700));
}

TEST(LossPacing, ACallLateInTheSecondPutsTheNextReportOff) {
    LossPacing pacing;
    pacing.acquire(start);
    pacing.callDelivered(start + milliseconds(950));
    EXPECT_EQ(pacing.acquire(start + milliseconds(1000)), milliseconds(50));
    EXPECT_EQ(pacing.acquire(start + milliseconds(1050)), milliseconds(0));
}

}  // namespace
