#include <algorithm>
#include <chrono>
#include <cstdint>
#include <memory>

#include "link/support/LinkTest.h"
#include "link/support/MateDesktop.h"
#include "link/support/RudeSocket.h"

namespace link_tests {
namespace {

using std::chrono::milliseconds;

class SystemBus : public LinkTest {
protected:
    /// What losing the bus after `start` may leave in the log: rounds of these three lines, in this order,
    /// and ticks.
    void expectOnlyRoundsOfInvalidation(std::size_t from, std::chrono::steady_clock::time_point start) {
        const Messages round{message::invalidated, message::disconnected, message::xpcRuns};
        const Messages lines = agent->log().messages(from);
        ASSERT_FALSE(lines.empty());
        for (std::size_t index = 0; index < lines.size(); ++index) {
            EXPECT_EQ(lines[index], round[index % round.size()]) << "line " << index;
        }
        expectLossesASecondApart(message::invalidated, start);
    }

    /// Everything comes up on the bus, and everything works.
    void expectThatAllIsWell() {
        startSystem();
        FakeDaemon newDaemon(bus.address());
        ASSERT_TRUE(confirmLink(newDaemon));
        ASSERT_TRUE(awaitSessionRead(ownSession));
        logind->setLockedHint(ownSession, true);
        ASSERT_TRUE(newDaemon.awaitEvents(1));
        machine.timeZones().setByRename(eastZone);
        ASSERT_TRUE(newDaemon.awaitEvents(2));
        EXPECT_EQ(newDaemon.events(), (Messages{"onScreenLocked true", "onTimeZoneChanged"}));
        EXPECT_EQ(agent->log().count(message::interrupted), 0U);
    }
};

TEST_F(SystemBus, LostAndBackAtTheSameAddressIsUsedAgain) {
    startSystem();
    startLinked();
    ASSERT_TRUE(awaitSessionRead(ownSession));
    const std::size_t mark = agent->log().mark();
    const auto start = std::chrono::steady_clock::now();
    logind.reset();
    monitor.reset();
    bus.stop();
    ASSERT_TRUE(agent->log().awaitCount(message::tick, 3, mark));
    expectOnlyRoundsOfInvalidation(mark, start);
    expectThatAllIsWell();
}

TEST_F(SystemBus, NotThereAtStartIsUsedOnceItComes) {
    startAgent();
    ASSERT_TRUE(agent->log().awaitCount(message::tick, 3));
    ASSERT_TRUE(agent->log().await(message::invalidated));
    expectThatAllIsWell();
}

TEST_F(SystemBus, ThatHangsUpIsTriedAtMostOnceASecondByEachPartOfTheAgent) {
    const auto start = std::chrono::steady_clock::now();
    const RudeSocket rude(bus.socketPath());
    startAgent();
    ASSERT_TRUE(agent->log().awaitCount(message::tick, 6));
    const std::chrono::duration<double> span = std::chrono::steady_clock::now() - start;
    // The link and the screen lock source are the two that use the system bus.
    EXPECT_LE(static_cast<double>(rude.attempts()), 2.0 * (span.count() + 1.0));
    EXPECT_GE(rude.attempts(), 2U);
    expectLossesASecondApart(message::invalidated, start);
}

TEST_F(SystemBus, ASessionBusThatHangsUpIsTriedAtMostOnceASecond) {
    const PrivateBus sessionAddress;
    options.sessionBus = sessionAddress.address();
    const auto start = std::chrono::steady_clock::now();
    const RudeSocket rude(sessionAddress.socketPath());
    startSystem();
    startLinked();
    pumpFor(milliseconds(4000));
    const std::chrono::duration<double> span = std::chrono::steady_clock::now() - start;
    EXPECT_LE(static_cast<double>(rude.attempts()), span.count() + 1.0);
    EXPECT_GE(rude.attempts(), 2U);
    logind->setLockedHint(ownSession, true);
    EXPECT_TRUE(daemon->awaitEvents(1));
}

TEST_F(SystemBus, StoppedWhileEventsComeCostsNeitherLinesNorMemoryAndRecovers) {
    MateDesktop desktop(agentUser);
    options.sessionBus = desktop.busAddress();
    startSystem();
    startLinked();
    ASSERT_TRUE(agent->awaitWatchOfEtc());
    // The screen saver is followed from here on.
    ASSERT_TRUE(await([&] {
        desktop.emit(true);
        return daemon->events().size() == 1;
    }));
    const std::size_t mark = agent->log().mark();
    const std::size_t memory = agent->residentMemory();

    bus.freeze();
    constexpr std::size_t rounds = 1500;
    desktop.unlockAndLock(rounds);
    // The agent sees and logs all of it although nothing can be sent.
    ASSERT_TRUE(agent->log().awaitCount(message::sendingStatus, 2 * rounds, mark));
    machine.timeZones().setByRename(eastZone);
    ASSERT_TRUE(agent->log().await(message::sendingZone, mark));
    constexpr std::size_t allowedGrowth = VELM_MEMORY_FACTOR * 32UL * 1024 * 1024;
    EXPECT_LT(agent->residentMemory(), memory + allowedGrowth);
    bus.thaw();

    EXPECT_TRUE(daemon->call("logLevel", "x", std::int64_t{8}).ok());
    // Its answer may overtake what still waits to be sent. What is sent from now on arrives behind that.
    const auto zoneEvents = [&] {
        const Messages events = daemon->events();
        return std::count(events.begin(), events.end(), "onTimeZoneChanged");
    };
    ASSERT_TRUE(await([&] { return zoneEvents() == 1; }));
    machine.timeZones().setByRename(westZone);
    ASSERT_TRUE(await([&] { return zoneEvents() == 2; }));
    EXPECT_EQ(daemon->events().back(), "onTimeZoneChanged");
    EXPECT_EQ(agent->log().count(message::interrupted) + agent->log().count(message::invalidated), 0U);
}

}  // namespace
}  // namespace link_tests
