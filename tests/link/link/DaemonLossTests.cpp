#include <chrono>
#include <memory>

#include "link/support/LinkTest.h"

namespace link_tests {
namespace {

using std::chrono::milliseconds;

class DaemonLoss : public LinkTest {
protected:
    /// The agent's lines for one interruption and the link that follows. The new connection is made on the
    /// client's queue, right after the signal.
    static Messages linesOfInterruption() {
        return {message::interrupted, message::disconnected, message::xpcRuns};
    }
    static Messages linesOfLink() { return {message::established, message::connected}; }
};

TEST_F(DaemonLoss, ADaemonThatDiesAndComesBackIsLinkedAgain) {
    bus.start();
    startLinked();
    const std::size_t mark = agent->log().mark();
    daemon->crash();
    ASSERT_TRUE(agent->log().await(message::disconnected, mark));
    // It asks into the void until there is someone.
    ASSERT_TRUE(agent->log().awaitCount(message::tick, 2, mark));

    FakeDaemon restarted(bus.address());
    ASSERT_TRUE(confirmLink(restarted));
    EXPECT_EQ(agent->log().messages(mark), linesOfInterruption() + linesOfLink());
    EXPECT_TRUE(agent->awaitWatchOfEtc());
    machine.timeZones().setByRename(westZone);
    ASSERT_TRUE(restarted.awaitEvents(1));
    EXPECT_EQ(restarted.events(), Messages{"onTimeZoneChanged"});
}

TEST_F(DaemonLoss, TheFirstTickAfterALossComesOneIntervalLater) {
    bus.start();
    startLinked();
    const std::size_t mark = agent->log().mark();
    // Long enough for the timer's task to have ended: a stopped one would tick at once when run again.
    pumpFor(milliseconds(1500));
    daemon->crash();
    ASSERT_TRUE(agent->log().await(message::tick, mark));
    EXPECT_GE(
        agent->log().stampsOf(message::tick).back() - agent->log().stampsOf(message::disconnected).back(),
        milliseconds(990));
}

TEST_F(DaemonLoss, AnotherOwnerOfTheNameIsAnInterruption) {
    bus.start();
    startLinked();
    const std::size_t mark = agent->log().mark();
    FakeDaemon successor(bus.address());
    ASSERT_TRUE(confirmLink(successor));
    EXPECT_EQ(agent->log().messages(mark), linesOfInterruption() + linesOfLink());
}

TEST_F(DaemonLoss, ANameThatWasReleasedIsAnInterruption) {
    bus.start();
    startLinked();
    const std::size_t mark = agent->log().mark();
    ASSERT_TRUE(daemon->peer().call(busDriver, "ReleaseName", "s", daemonName).ok());
    ASSERT_TRUE(agent->log().await(message::disconnected, mark));
    EXPECT_EQ(agent->log().count(message::interrupted, mark), 1U);
    EXPECT_EQ(agent->log().count(message::invalidated, mark), 0U);
}

TEST_F(DaemonLoss, LossesInQuickSuccessionAreReportedASecondApartAndEndInALink) {
    bus.start();
    startLinked();
    const std::size_t mark = agent->log().mark();
    const auto start = std::chrono::steady_clock::now();
    for (int round = 0; round < 40; ++round) {
        const FakeDaemon flapping(bus.address());
        pumpFor(milliseconds(60));
    }
    FakeDaemon last(bus.address());
    ASSERT_TRUE(confirmLink(last));
    EXPECT_GE(agent->log().count(message::interrupted, mark), 1U);
    expectLossesASecondApart(message::interrupted, start);
    EXPECT_EQ(agent->log().count(message::interrupted, mark),
              agent->log().count(message::disconnected, mark));
    EXPECT_EQ(agent->log().count(message::interrupted, mark), agent->log().count(message::xpcRuns, mark));
    EXPECT_EQ(agent->log().count(message::invalidated), 0U);
}

TEST_F(DaemonLoss, EventsWithoutADaemonAreLostAndNotRepeated) {
    startSystem();
    startLinked();
    ASSERT_TRUE(awaitSessionRead(ownSession));
    const std::size_t loss = agent->log().mark();
    daemon->crash();
    ASSERT_TRUE(agent->log().await(message::disconnected, loss));
    // The new connection has long been told that there is no daemon; until then, messages wait for the
    // answer.
    ASSERT_TRUE(agent->log().awaitCount(message::tick, 2, loss));
    const std::size_t mark = agent->log().mark();
    logind->setLockedHint(ownSession, true);
    ASSERT_TRUE(agent->log().await(message::sendingStatus, mark));
    // The line is written before its message is sent, which a daemon that comes just then may get.
    ASSERT_TRUE(agent->log().awaitCount(message::tick, 2, agent->log().mark()));

    FakeDaemon restarted(bus.address());
    ASSERT_TRUE(confirmLink(restarted));
    logind->setLockedHint(ownSession, false);
    ASSERT_TRUE(restarted.awaitEvents(1));
    EXPECT_EQ(restarted.events(), Messages{"onScreenLocked false"});
}

}  // namespace
}  // namespace link_tests
