#include "platform/linux/screenlock/ScreenLockState.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>

#include "unit/platform/screenlock/ScreenLockModel.h"

namespace {

using platform::ScreenLockState;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr bool own = true;
constexpr bool foreign = false;
constexpr bool locked = true;
constexpr bool unlocked = false;
constexpr bool active = true;
constexpr bool inactive = false;

class ScreenLockStateTest : public testing::Test {
protected:
    void follow(const std::string& session, bool hint) {
        m_state.sessionAppeared(session);
        m_state.sessionRead(session, own, hint);
    }

    std::vector<bool> m_reports;
    int m_hintsSeen = 0;
    ScreenLockState m_state{[this](bool value) { m_reports.push_back(value); }, [this] { ++m_hintsSeen; }};
};

TEST_F(ScreenLockStateTest, ReportsEachEdgeOnce) {
    follow("a", unlocked);
    m_state.sessionChanged("a", locked);
    m_state.sessionChanged("a", locked);
    m_state.sessionChanged("a", unlocked);
    m_state.sessionChanged("a", unlocked);
    m_state.sessionChanged("a", locked);
    EXPECT_THAT(m_reports, ElementsAre(true, false, true));
}

TEST_F(ScreenLockStateTest, TakesOverSilentlyASessionThatIsFoundLocked) {
    follow("a", locked);
    EXPECT_THAT(m_reports, IsEmpty());
    m_state.sessionChanged("a", unlocked);
    EXPECT_THAT(m_reports, ElementsAre(false));
}

TEST_F(ScreenLockStateTest, IsLockedWhileAnySessionIs) {
    follow("a", unlocked);
    follow("b", unlocked);
    m_state.sessionChanged("a", locked);
    m_state.sessionChanged("b", locked);
    m_state.sessionChanged("a", unlocked);
    EXPECT_THAT(m_reports, ElementsAre(true));
    m_state.sessionChanged("b", unlocked);
    EXPECT_THAT(m_reports, ElementsAre(true, false));
}

TEST_F(ScreenLockStateTest, ReportsNothingWhenALockedSessionDisappears) {
    follow("a", unlocked);
    m_state.sessionChanged("a", locked);
    m_state.sessionRemoved("a");
    EXPECT_THAT(m_reports, ElementsAre(true));
    follow("b", unlocked);
    m_state.sessionChanged("b", locked);
    EXPECT_THAT(m_reports, ElementsAre(true, true));
}

TEST_F(ScreenLockStateTest, ReportsTheEdgeOfTheSessionThatIsLeft) {
    follow("a", unlocked);
    follow("b", unlocked);
    m_state.sessionChanged("a", locked);
    m_state.sessionChanged("b", locked);
    m_state.sessionRemoved("a");
    m_state.sessionChanged("b", unlocked);
    EXPECT_THAT(m_reports, ElementsAre(true, false));
}

TEST_F(ScreenLockStateTest, ReportsTheEdgeOfASessionThatAppearsLater) {
    follow("a", unlocked);
    follow("b", unlocked);
    m_state.sessionChanged("b", locked);
    EXPECT_THAT(m_reports, ElementsAre(true));
}

TEST_F(ScreenLockStateTest, KeepsAChangeThatComesBeforeTheFirstRead) {
    m_state.sessionAppeared("a");
    m_state.sessionChanged("a", locked);
    EXPECT_THAT(m_reports, IsEmpty()) << "whose session it is is not known yet";
    m_state.sessionRead("a", own, locked);
    EXPECT_THAT(m_reports, ElementsAre(true));
}

TEST_F(ScreenLockStateTest, KeepsAnUnlockThatComesBeforeTheFirstRead) {
    m_state.sessionAppeared("a");
    m_state.sessionChanged("a", unlocked);
    m_state.sessionRead("a", own, unlocked);
    EXPECT_THAT(m_reports, ElementsAre(false));
}

TEST_F(ScreenLockStateTest, KeepsEveryChangeThatComesBeforeTheFirstRead) {
    m_state.sessionAppeared("a");
    m_state.sessionChanged("a", locked);
    m_state.sessionChanged("a", unlocked);
    m_state.sessionChanged("a", locked);
    m_state.sessionRead("a", own, locked);
    EXPECT_THAT(m_reports, ElementsAre(true, false, true));
}

TEST_F(ScreenLockStateTest, IgnoresSessionsOfOthers) {
    m_state.sessionAppeared("a");
    m_state.sessionChanged("a", locked);
    m_state.sessionRead("a", foreign, locked);
    m_state.sessionChanged("a", unlocked);
    m_state.sessionChanged("a", locked);
    m_state.sessionRead("a", own, locked);
    EXPECT_THAT(m_reports, IsEmpty());
    EXPECT_EQ(m_hintsSeen, 0);
}

TEST_F(ScreenLockStateTest, IgnoresSessionsThatItDoesNotKnow) {
    m_state.sessionChanged("a", locked);
    m_state.sessionRead("a", own, locked);
    m_state.sessionRemoved("a");
    EXPECT_THAT(m_reports, IsEmpty());
}

TEST_F(ScreenLockStateTest, SaysWhetherASessionIsNew) {
    EXPECT_TRUE(m_state.sessionAppeared("a"));
    EXPECT_FALSE(m_state.sessionAppeared("a"));
    m_state.sessionRemoved("a");
    EXPECT_TRUE(m_state.sessionAppeared("a"));
    m_state.sessionsForgotten();
    EXPECT_TRUE(m_state.sessionAppeared("a"));
}

TEST_F(ScreenLockStateTest, ReportsWhatASecondReadFindsChanged) {
    follow("a", unlocked);
    m_state.sessionRead("a", own, locked);
    m_state.sessionRead("a", own, locked);
    m_state.sessionRead("a", own, unlocked);
    EXPECT_THAT(m_reports, ElementsAre(true, false));
}

TEST_F(ScreenLockStateTest, TakesOverSilentlyWhatItFindsAfterLogindRestarted) {
    follow("a", unlocked);
    m_state.sessionChanged("a", locked);
    m_state.sessionsForgotten();
    follow("a", unlocked);
    EXPECT_THAT(m_reports, ElementsAre(true));
    m_state.sessionChanged("a", locked);
    EXPECT_THAT(m_reports, ElementsAre(true, true));
}

TEST_F(ScreenLockStateTest, ReportsASaverThatBecomesActive) {
    m_state.saverRead("mate", inactive);
    m_state.saverChanged("mate", active);
    m_state.saverChanged("mate", active);
    m_state.saverChanged("mate", inactive);
    EXPECT_THAT(m_reports, ElementsAre(true, false));
}

TEST_F(ScreenLockStateTest, TakesOverSilentlyASaverThatIsFoundActive) {
    m_state.saverRead("mate", active);
    EXPECT_THAT(m_reports, IsEmpty());
    m_state.saverChanged("mate", inactive);
    EXPECT_THAT(m_reports, ElementsAre(false));
}

TEST_F(ScreenLockStateTest, TakesTheFirstChangeOfASaverForAnEdge) {
    m_state.saverChanged("mate", inactive);
    EXPECT_THAT(m_reports, ElementsAre(false));
    m_state.saverChanged("xfce", active);
    EXPECT_THAT(m_reports, ElementsAre(false, true));
}

TEST_F(ScreenLockStateTest, ReportsWhatASecondReadOfASaverFindsChanged) {
    m_state.saverChanged("mate", active);
    m_state.saverRead("mate", inactive);
    EXPECT_THAT(m_reports, ElementsAre(true, false));
}

TEST_F(ScreenLockStateTest, ReportsNothingWhenAnActiveSaverVanishes) {
    m_state.saverChanged("mate", active);
    m_state.saverRemoved("mate");
    EXPECT_THAT(m_reports, ElementsAre(true));
    m_state.saverChanged("mate", active);
    EXPECT_THAT(m_reports, ElementsAre(true, true));
}

TEST_F(ScreenLockStateTest, ReportsOneEdgeWhenHintAndSaverAgree) {
    follow("a", unlocked);
    m_state.saverChanged("cinnamon", active);
    m_state.sessionChanged("a", locked);
    m_state.saverChanged("cinnamon", inactive);
    EXPECT_THAT(m_reports, ElementsAre(true));
    m_state.sessionChanged("a", unlocked);
    EXPECT_THAT(m_reports, ElementsAre(true, false));
}

TEST_F(ScreenLockStateTest, IgnoresSaversForGoodOnceAHintWasSeenSet) {
    follow("a", unlocked);
    m_state.sessionChanged("a", locked);
    m_state.sessionChanged("a", unlocked);
    m_state.sessionsForgotten();
    m_state.saverRead("mate", inactive);
    m_state.saverChanged("mate", active);
    EXPECT_THAT(m_reports, ElementsAre(true, false));
    EXPECT_EQ(m_hintsSeen, 1);
}

TEST(ScreenLockStateWithSavers, ReportsTheHintAtWhichItsSaversAreRemoved) {
    std::vector<bool> reports;
    ScreenLockState* self = nullptr;
    ScreenLockState state([&reports](bool value) { reports.push_back(value); },
                          [&self] { self->saverRemoved("mate"); });
    self = &state;
    state.sessionAppeared("a");
    state.sessionRead("a", own, unlocked);
    state.saverRead("mate", inactive);
    state.sessionChanged("a", locked);
    EXPECT_THAT(reports, ElementsAre(true));
}

TEST_F(ScreenLockStateTest, CountsAHintThatIsFoundSetAsSeen) {
    follow("a", locked);
    EXPECT_EQ(m_hintsSeen, 1);
    m_state.sessionChanged("a", unlocked);
    m_state.saverChanged("mate", active);
    EXPECT_THAT(m_reports, ElementsAre(false));
}

TEST_F(ScreenLockStateTest, KeepsTheSaversWhileTheHintStaysUnset) {
    follow("a", unlocked);
    EXPECT_EQ(m_hintsSeen, 0);
    m_state.saverChanged("mate", active);
    EXPECT_THAT(m_reports, ElementsAre(true));
}

std::vector<bool> reportsOf(const std::vector<ScreenLockEvent>& history) {
    std::vector<bool> reports;
    ScreenLockState state([&reports](bool value) { reports.push_back(value); }, [] {});
    for (const ScreenLockEvent& event : history) {
        apply(state, event);
    }
    return reports;
}

std::vector<ScreenLockEvent> randomHistory(std::mt19937& random) {
    // Forgetting and removing are rare, or nothing would ever stay long enough to matter.
    std::discrete_distribution<int> kind({4, 4, 0.5, 8, 0.7, 0.3, 1, 2, 0.5});
    std::uniform_int_distribution<int> key(0, 2);
    std::bernoulli_distribution value;
    constexpr std::size_t length = 40;
    std::vector<ScreenLockEvent> history;
    history.reserve(length);
    while (history.size() < length) {
        history.push_back(
            {static_cast<ScreenLockEvent::Kind>(kind(random)), std::to_string(key(random)), value(random)});
    }
    return history;
}

TEST(ScreenLockStateAtRandom, AgreesWithTheModel) {
    std::mt19937 random(20261116);
    std::size_t reports = 0;
    for (int run = 0; run < 5000; ++run) {
        const auto history = randomHistory(random);
        const auto expected = ScreenLockModel::reports(history);
        ASSERT_EQ(reportsOf(history), expected) << "run " << run;
        reports += expected.size();
    }
    EXPECT_GT(reports, 5000U) << "histories without edges prove nothing";
}

}  // namespace
