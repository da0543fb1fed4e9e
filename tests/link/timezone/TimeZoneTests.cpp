#include <chrono>

#include "link/support/LinkTest.h"

namespace link_tests {
namespace {

class TimeZone : public LinkTest {
protected:
    void startOnBus() {
        bus.start();
        startLinked();
        ASSERT_TRUE(agent->awaitWatchOfEtc());
        mark = agent->log().mark();
    }

    /// Gives the agent time to react to what it should not react to: it may take several changes in quick
    /// succession for one.
    static void letItSettle() { pumpFor(std::chrono::milliseconds(1000)); }

    /// Waits for the `count`th change in all.
    ::testing::AssertionResult sees(std::size_t count) {
        return daemon->awaitEvents(count) ? ::testing::AssertionSuccess()
                                          : ::testing::AssertionFailure() << "no change number " << count;
    }

    void expectThatTheLastLinesStampIsIn(const Zone& zone) {
        const LogLine last = agent->log().lines().back();
        EXPECT_TRUE(last.wellFormed);
        EXPECT_EQ(minutesEastOf(last), zone.minutesEast) << zone.name;
    }

    /// What `count` changes leave, and nothing else.
    void expectExactly(std::size_t count) {
        Messages lines;
        for (std::size_t change = 0; change < count; ++change) {
            lines = lines + linesOfZoneChange();
        }
        EXPECT_EQ(agent->log().messages(mark), lines);
        EXPECT_EQ(daemon->events(), Messages(count, "onTimeZoneChanged"));
    }

    std::size_t mark = 0;
};

TEST_F(TimeZone, AChangeByRenamingIsOneEvent) {
    startOnBus();
    expectThatTheLastLinesStampIsIn(utcZone);
    machine.timeZones().setByRename(eastZone);
    ASSERT_TRUE(sees(1));
    expectThatTheLastLinesStampIsIn(eastZone);
    machine.timeZones().setByRename(westZone);
    ASSERT_TRUE(sees(2));
    expectThatTheLastLinesStampIsIn(westZone);
    expectExactly(2);
}

TEST_F(TimeZone, AChangeByLinkingIsOneEvent) {
    startOnBus();
    machine.timeZones().setByLinking(westZone);
    ASSERT_TRUE(sees(1));
    expectThatTheLastLinesStampIsIn(westZone);
    machine.timeZones().setByLinking(eastZone);
    ASSERT_TRUE(sees(2));
    expectThatTheLastLinesStampIsIn(eastZone);
    expectExactly(2);
}

TEST_F(TimeZone, ARegularFileThatIsRewrittenIsOneEvent) {
    machine.timeZones().makeRegularFile(westZone);
    startOnBus();
    expectThatTheLastLinesStampIsIn(westZone);
    machine.timeZones().rewrite(eastZone);
    ASSERT_TRUE(sees(1));
    expectThatTheLastLinesStampIsIn(eastZone);
    machine.timeZones().setByRename(utcZone);
    ASSERT_TRUE(sees(2));
    expectExactly(2);
}

TEST_F(TimeZone, ARegularFileThatIsRewrittenTwiceInASecondIsTwoEvents) {
    machine.timeZones().makeRegularFile(westZone);
    startOnBus();
    machine.timeZones().rewrite(eastZone);
    ASSERT_TRUE(sees(1));
    machine.timeZones().rewrite(westZone);
    ASSERT_TRUE(sees(2));
    machine.timeZones().setByRename(utcZone);
    ASSERT_TRUE(sees(3));
    expectThatTheLastLinesStampIsIn(utcZone);
    expectExactly(3);
}

TEST_F(TimeZone, TheSameZoneSetAgainIsNoEvent) {
    startOnBus();
    machine.timeZones().setByRename(utcZone);
    letItSettle();
    machine.timeZones().setByLinking(utcZone);
    letItSettle();
    machine.timeZones().setByRename(eastZone);
    ASSERT_TRUE(sees(1));
    machine.timeZones().setByLinking(eastZone);
    letItSettle();
    machine.timeZones().setByLinking(westZone);
    ASSERT_TRUE(sees(2));
    expectExactly(2);
}

TEST_F(TimeZone, ALinkThatIsRemovedLeavesUtcAndMayComeBack) {
    machine.timeZones().setByRename(eastZone);
    startOnBus();
    expectThatTheLastLinesStampIsIn(eastZone);
    machine.timeZones().remove();
    ASSERT_TRUE(sees(1));
    expectThatTheLastLinesStampIsIn(utcZone);
    machine.timeZones().setByLinking(westZone);
    ASSERT_TRUE(sees(2));
    expectThatTheLastLinesStampIsIn(westZone);
    expectExactly(2);
}

TEST_F(TimeZone, OtherFilesOfEtcAreNoEvent) {
    startOnBus();
    for (int round = 0; round < 50; ++round) {
        machine.touchInEtc("timezone");
        machine.touchInEtc("localtime.dpkg-new");
        machine.touchInEtc("localtime2");
    }
    letItSettle();
    machine.timeZones().setByRename(westZone);
    ASSERT_TRUE(sees(1));
    expectExactly(1);
}

}  // namespace
}  // namespace link_tests
