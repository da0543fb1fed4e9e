#include "platform/linux/link/Loss.h"

#include <gtest/gtest.h>

#include <chrono>

namespace {

using platform::Loss;
using platform::LossPacing;
using Span = Loss::Clock::duration;
using std::chrono::milliseconds;

constexpr Loss::Clock::time_point start{std::chrono::hours(1)};

TEST(Loss, IsNoneUntilOneIsNoted) {
    LossPacing pacing;
    Loss loss(pacing);
    EXPECT_FALSE(loss.isNoted());
    EXPECT_EQ(loss.kind(), Loss::Kind::None);
    loss.note(Loss::Kind::Interruption);
    EXPECT_TRUE(loss.isNoted());
}

TEST(Loss, IsTheFirstThatWasNoted) {
    LossPacing pacing;
    Loss first(pacing);
    first.note(Loss::Kind::Interruption);
    first.note(Loss::Kind::Invalidation);
    EXPECT_EQ(first.kind(), Loss::Kind::Interruption);
    Loss second(pacing);
    second.note(Loss::Kind::Invalidation);
    second.note(Loss::Kind::Interruption);
    EXPECT_EQ(second.kind(), Loss::Kind::Invalidation);
}

TEST(Loss, IsReportedAtTheProcesssPaceAlsoByAnotherLink) {
    LossPacing pacing;
    Loss first(pacing);
    Loss second(pacing);
    EXPECT_EQ(first.acquireReport(start), Span::zero());
    EXPECT_EQ(second.acquireReport(start), LossPacing::interval);
    EXPECT_EQ(second.acquireReport(start + LossPacing::interval), Span::zero());
}

TEST(Loss, KeepsItsDistanceFromACall) {
    LossPacing pacing;
    Loss loss(pacing);
    loss.callDelivered(start);
    EXPECT_EQ(loss.acquireReport(start), LossPacing::distanceToCalls);
    EXPECT_EQ(loss.acquireReport(start + LossPacing::distanceToCalls - milliseconds(1)), milliseconds(1));
    EXPECT_EQ(loss.acquireReport(start + LossPacing::distanceToCalls), Span::zero());
}

}  // namespace
