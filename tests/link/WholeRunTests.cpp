#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "link/support/LinkTest.h"

namespace link_tests {
namespace {

class WholeRun : public LinkTest {
protected:
    /// The lines without "xpc is running" at the start, which the client's queue writes while the main thread
    /// writes its own.
    static Messages withoutFirst(Messages lines, const char* line) {
        const auto found = std::find(lines.begin(), lines.end(), line);
        if (found != lines.end()) {
            lines.erase(found);
        }
        return lines;
    }
};

TEST_F(WholeRun, LeavesExactlyTheLinesThatItsEventsCall) {
    startSystem();
    startLinked();
    ASSERT_TRUE(awaitSessionRead(ownSession));
    ASSERT_TRUE(agent->awaitWatchOfEtc());

    logind->setLockedHint(ownSession, true);
    ASSERT_TRUE(daemon->awaitEvents(1));
    logind->setLockedHint(ownSession, false);
    ASSERT_TRUE(daemon->awaitEvents(2));
    machine.timeZones().setByRename(eastZone);
    ASSERT_TRUE(daemon->awaitEvents(3));
    EXPECT_TRUE(daemon->call("putMessage", "ay", 3, 1, 2, 3).ok());
    EXPECT_TRUE(daemon->call("logLevel", "x", std::int64_t{6}).ok());
    EXPECT_TRUE(daemon->call("networkReachability", "b", 1).ok());
    ASSERT_TRUE(agent->log().await("xpc service: received log level: 6"));
    EXPECT_EQ(daemon->events(),
              (Messages{"onScreenLocked true", "onScreenLocked false", "onTimeZoneChanged"}));
    daemon->crash();
    ASSERT_TRUE(agent->log().awaitCount(message::xpcRuns, 2));
    FakeDaemon successor(bus.address());
    ASSERT_TRUE(confirmLink(successor));
    EXPECT_EQ(agent->terminate(), "exit 0");

    const Messages start{message::started, message::launcherRuns, message::screenMonitorRuns,
                         message::zoneMonitorRuns};
    const Messages link{message::established, message::connected};
    const Messages calls{message::incoming, "xpc service: received log level: 6"};
    const Messages loss{message::interrupted, message::disconnected, message::xpcRuns};
    EXPECT_EQ(agent->log().count(message::xpcRuns), 2U);
    EXPECT_EQ(withoutFirst(agent->log().messages(), message::xpcRuns),
              start + link + linesOfLock() + linesOfUnlock() + linesOfZoneChange() + calls + loss + link);

    for (const LogLine& line : agent->log().lines()) {
        EXPECT_TRUE(line.wellFormed) << line.message;
        EXPECT_EQ(line.tag, "[TRACE]") << line.message;
    }
    // Before each answer the timer has asked.
    EXPECT_GE(agent->log().count(message::tick), 2U);
    EXPECT_EQ(agent->output().rawLines(), agent->log().rawLines());
}

TEST_F(WholeRun, AppendsToTheLogOfTheRunBefore) {
    bus.start();
    startAgent();
    ASSERT_TRUE(agent->log().await(message::zoneMonitorRuns));
    EXPECT_EQ(agent->terminate(), "exit 0");
    const std::vector<std::string> before = agent->log().rawLines();
    startAgent();
    ASSERT_TRUE(agent->log().awaitCount(message::started, 2));
    EXPECT_EQ(agent->terminate(), "exit 0");
    const std::vector<std::string> after = agent->log().rawLines();
    ASSERT_GT(after.size(), before.size());
    EXPECT_TRUE(std::equal(before.begin(), before.end(), after.begin()));
}

}  // namespace
}  // namespace link_tests
