#include "platform/linux/screenlock/ScreenLockState.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>
#include <utility>

#include "unit/platform/screenlock/ScreenLockModel.h"

namespace {

using platform::ScreenLockState;
using testing::ElementsAre;
using testing::IsEmpty;

using Reading = ScreenLockState::Reading;

constexpr bool locked = true;
constexpr bool unlocked = false;
constexpr bool active = true;
constexpr bool inactive = false;

class ScreenLockStateTest : public testing::Test {
protected:
    void follow(const std::string& session, bool hint) {
        m_state.sessionAppeared(session);
        m_state.sessionRead(session, found(hint));
    }
    static Reading found(bool hint) { return {true, hint, true}; }
    static Reading closing() { return {false, true, true}; }
    static Reading withoutScreen(bool hint) { return {true, hint, false}; }

    /// Who was to be looked at again since the last call.
    std::vector<std::string> asked() { return std::exchange(m_asked, {}); }

    std::vector<bool> m_reports;
    std::vector<std::string> m_asked;
    ScreenLockState m_state{[this](bool value) { m_reports.push_back(value); },
                            [this](const std::string& session) { m_asked.push_back(session); }};
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
    EXPECT_THAT(asked(), ElementsAre("a"));
    m_state.sessionRead("a", found(locked));
    m_state.sessionChanged("a", unlocked);
    EXPECT_THAT(asked(), ElementsAre("b"));
    m_state.sessionRead("b", found(locked));
    EXPECT_THAT(m_reports, ElementsAre(true));
    m_state.sessionChanged("b", unlocked);
    EXPECT_THAT(m_reports, ElementsAre(true, false));
    EXPECT_THAT(asked(), IsEmpty());
}

TEST_F(ScreenLockStateTest, ReportsTheLockThatAClosingSessionWouldSwallow) {
    follow("old", unlocked);
    m_state.sessionChanged("old", locked);
    follow("new", unlocked);
    m_state.sessionChanged("new", locked);
    EXPECT_THAT(m_reports, ElementsAre(true));
    EXPECT_THAT(asked(), ElementsAre("old"));
    m_state.sessionRead("old", closing());
    EXPECT_THAT(m_reports, ElementsAre(true, true));
    m_state.sessionChanged("new", unlocked);
    EXPECT_THAT(m_reports, ElementsAre(true, true, false));
    EXPECT_THAT(asked(), IsEmpty());
}

TEST_F(ScreenLockStateTest, ReportsAllThatHappenedUntilTheClosingSessionWasLookedAt) {
    follow("old", unlocked);
    m_state.sessionChanged("old", locked);
    follow("new", unlocked);
    m_state.sessionChanged("new", locked);
    m_state.sessionChanged("new", unlocked);
    m_state.sessionChanged("new", locked);
    EXPECT_THAT(m_reports, ElementsAre(true));
    m_state.sessionRead("old", closing());
    EXPECT_THAT(m_reports, ElementsAre(true, true, false, true));
}

TEST_F(ScreenLockStateTest, ReportsTheUnlockThatAClosingSessionWouldSwallow) {
    follow("old", locked);
    follow("new", locked);
    m_state.sessionChanged("new", unlocked);
    m_state.sessionRead("old", closing());
    EXPECT_THAT(m_reports, ElementsAre(false));
}

TEST_F(ScreenLockStateTest, TakesAnsweredQuestionsForWhatTheyWereAskedFor) {
    follow("a", unlocked);
    follow("b", unlocked);
    m_state.sessionChanged("a", locked);
    m_state.sessionChanged("b", locked);
    m_state.sessionChanged("a", unlocked);
    // The answer knows of the unlock, which came after the lock of the other.
    m_state.sessionRead("a", found(unlocked));
    EXPECT_THAT(m_reports, ElementsAre(true)) << "locked all the time";
    m_state.sessionChanged("b", unlocked);
    EXPECT_THAT(m_reports, ElementsAre(true, false));
}

TEST_F(ScreenLockStateTest, WaitsForNobodyWhoIsGone) {
    follow("a", unlocked);
    follow("b", unlocked);
    m_state.sessionChanged("a", locked);
    m_state.sessionChanged("b", locked);
    m_state.sessionRemoved("a");
    EXPECT_THAT(m_reports, ElementsAre(true, true));
    follow("a", unlocked);
    m_state.sessionChanged("a", locked);
    m_state.sessionsForgotten();
    follow("a", unlocked);
    m_state.sessionChanged("a", locked);
    EXPECT_THAT(m_reports, ElementsAre(true, true, true));
}

TEST_F(ScreenLockStateTest, WaitsNoLongerThanMemoryAllows) {
    follow("a", unlocked);
    follow("b", unlocked);
    m_state.sessionChanged("a", locked);
    for (int round = 0; round < 1000; ++round) {
        m_state.sessionChanged("b", locked);
        m_state.sessionChanged("b", unlocked);
    }
    m_state.sessionChanged("a", unlocked);
    m_state.sessionRead("b", found(unlocked));
    m_state.sessionRead("a", found(unlocked));
    EXPECT_THAT(m_reports, ElementsAre(true, false));
}

TEST_F(ScreenLockStateTest, CountsAClosingSessionAsGone) {
    follow("a", locked);
    m_state.sessionRead("a", closing());
    m_state.sessionChanged("a", unlocked);
    m_state.sessionChanged("a", locked);
    EXPECT_THAT(m_reports, IsEmpty());
    EXPECT_FALSE(m_state.sessionAppeared("a")) << "it is known, and need not be read again";
    m_state.sessionAppeared("b");
    m_state.sessionChanged("b", locked);
    m_state.sessionRead("b", closing());
    EXPECT_THAT(m_reports, IsEmpty());
}

TEST_F(ScreenLockStateTest, NamesTheSessionsThatHaveSetTheirHint) {
    follow("a", unlocked);
    follow("b", locked);
    follow("c", unlocked);
    m_state.sessionChanged("c", locked);
    m_state.sessionRead("b", found(locked));
    m_state.sessionChanged("c", unlocked);
    m_state.sessionRead("b", found(locked));
    EXPECT_THAT(m_state.sessionsWithHint(), ElementsAre("b", "c"));
    m_state.sessionRead("b", closing());
    m_state.sessionRemoved("c");
    EXPECT_THAT(m_state.sessionsWithHint(), IsEmpty());
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
    m_state.sessionRead("a", found(locked));
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
    m_state.sessionRead("a", found(locked));
    EXPECT_THAT(m_reports, ElementsAre(true));
}

TEST_F(ScreenLockStateTest, KeepsAnUnlockThatComesBeforeTheFirstRead) {
    m_state.sessionAppeared("a");
    m_state.sessionChanged("a", unlocked);
    m_state.sessionRead("a", found(unlocked));
    EXPECT_THAT(m_reports, ElementsAre(false));
}

TEST_F(ScreenLockStateTest, KeepsEveryChangeThatComesBeforeTheFirstRead) {
    m_state.sessionAppeared("a");
    m_state.sessionChanged("a", locked);
    m_state.sessionChanged("a", unlocked);
    m_state.sessionChanged("a", locked);
    m_state.sessionRead("a", found(locked));
    EXPECT_THAT(m_reports, ElementsAre(true, false, true));
}

TEST_F(ScreenLockStateTest, ForgetsWhatASessionSaidThatIsNoneOfTheUsers) {
    m_state.sessionAppeared("a");
    m_state.sessionChanged("a", locked);
    m_state.sessionRemoved("a");
    m_state.sessionRead("a", found(locked));
    EXPECT_THAT(m_reports, IsEmpty());
    EXPECT_THAT(m_state.sessionsWithHint(), IsEmpty());
}

TEST_F(ScreenLockStateTest, IgnoresSessionsThatItDoesNotKnow) {
    m_state.sessionChanged("a", locked);
    m_state.sessionRead("a", found(locked));
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
    m_state.sessionRead("a", found(locked));
    m_state.sessionRead("a", found(locked));
    m_state.sessionRead("a", found(unlocked));
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

TEST_F(ScreenLockStateTest, ReportsAnUnlockWhenAnActiveSaverStaysAwayFromAnOpenSession) {
    follow("a", unlocked);
    m_state.saverChanged("mate", active);
    m_state.saverVanished("mate");
    EXPECT_THAT(m_reports, ElementsAre(true)) << "it may come back";
    m_state.saverStaysAway("mate");
    EXPECT_THAT(m_reports, ElementsAre(true)) << "its session may have ended";
    EXPECT_THAT(asked(), ElementsAre("a"));
    m_state.sessionRead("a", found(unlocked));
    EXPECT_THAT(m_reports, ElementsAre(true, false));
}

TEST_F(ScreenLockStateTest, ReportsNothingWhenAnActiveSaverGoesWithItsSession) {
    follow("a", unlocked);
    m_state.saverChanged("mate", active);
    m_state.saverVanished("mate");
    m_state.saverStaysAway("mate");
    m_state.sessionRead("a", closing());
    EXPECT_THAT(m_reports, ElementsAre(true));
    m_state.saverChanged("mate", active);
    EXPECT_THAT(m_reports, ElementsAre(true, true));
}

TEST_F(ScreenLockStateTest, TakesARemoteShellForNoSessionOfASaver) {
    follow("a", unlocked);
    m_state.sessionAppeared("ssh");
    m_state.sessionRead("ssh", withoutScreen(unlocked));
    m_state.saverChanged("mate", active);
    m_state.saverVanished("mate");
    m_state.sessionRemoved("a");
    m_state.saverRead("mate", inactive);
    m_state.saverChanged("mate", active);
    m_state.saverVanished("mate");
    m_state.saverStaysAway("mate");
    EXPECT_THAT(m_reports, ElementsAre(true, true)) << "the saver of the next login is another one";
    EXPECT_THAT(asked(), IsEmpty());
}

TEST_F(ScreenLockStateTest, GoesByWhatASaverSaysThatIsBack) {
    follow("a", unlocked);
    m_state.saverChanged("mate", active);
    m_state.saverVanished("mate");
    m_state.saverRead("mate", active);
    m_state.saverStaysAway("mate");
    EXPECT_THAT(m_reports, ElementsAre(true));
    m_state.saverVanished("mate");
    m_state.saverRead("mate", inactive);
    EXPECT_THAT(m_reports, ElementsAre(true, false));
}

TEST_F(ScreenLockStateTest, ReportsNothingOfAnInactiveSaverThatVanishes) {
    follow("a", unlocked);
    m_state.saverRead("mate", inactive);
    m_state.saverVanished("mate");
    m_state.saverStaysAway("mate");
    m_state.sessionRead("a", found(unlocked));
    EXPECT_THAT(m_reports, IsEmpty());
}

TEST_F(ScreenLockStateTest, ReportsNothingWhenASaverDoesNotCountAnyMore) {
    m_state.saverChanged("mate", active);
    m_state.saverForgotten("mate");
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

TEST_F(ScreenLockStateTest, IgnoresSaversWhileASessionLivesThatHasSetItsHint) {
    follow("a", unlocked);
    m_state.sessionChanged("a", locked);
    m_state.sessionChanged("a", unlocked);
    m_state.saverRead("mate", inactive);
    m_state.saverChanged("mate", active);
    m_state.saverChanged("mate", inactive);
    EXPECT_THAT(m_reports, ElementsAre(true, false));
}

TEST_F(ScreenLockStateTest, HearsSaversAgainOnceThatSessionIsGone) {
    follow("a", locked);
    m_state.sessionChanged("a", unlocked);
    m_state.saverRead("mate", inactive);
    m_state.sessionRead("a", closing());
    m_state.saverChanged("mate", active);
    EXPECT_THAT(m_reports, ElementsAre(false, true));
}

TEST_F(ScreenLockStateTest, TakesOverSilentlyASaverThatWasActiveWhileTheHintCounted) {
    follow("a", locked);
    m_state.sessionChanged("a", unlocked);
    m_state.saverChanged("mate", active);
    m_state.sessionRemoved("a");
    EXPECT_THAT(m_reports, ElementsAre(false));
    m_state.saverChanged("mate", inactive);
    EXPECT_THAT(m_reports, ElementsAre(false, false));
}

TEST_F(ScreenLockStateTest, CountsAHintThatIsFoundSetAsSeen) {
    follow("a", locked);
    m_state.sessionChanged("a", unlocked);
    m_state.saverChanged("mate", active);
    EXPECT_THAT(m_reports, ElementsAre(false));
}

TEST_F(ScreenLockStateTest, KeepsTheSaversWhileTheHintStaysUnset) {
    follow("a", unlocked);
    m_state.saverChanged("mate", active);
    EXPECT_THAT(m_reports, ElementsAre(true));
}

std::vector<bool> reportsOf(const std::vector<ScreenLockEvent>& history) {
    std::vector<bool> reports;
    ScreenLockState state([&reports](bool value) { reports.push_back(value); }, [](const std::string&) {});
    for (const ScreenLockEvent& event : history) {
        apply(state, event);
    }
    return reports;
}

std::vector<ScreenLockEvent> randomHistory(std::mt19937& random) {
    // Forgetting and removing are rare, or nothing would ever stay long enough to matter.
    std::discrete_distribution<int> kind({4, 5, 0.7, 1, 8, 0.7, 0.3, 1, 2, 0.7, 1, 0.4});
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
