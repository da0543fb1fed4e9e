#include <gmock/gmock.h>

#include <chrono>
#include <memory>

#include "logging/Log.h"
#include "unit/agent/AgentFixture.h"
#include "velmmonitord/MonitorLauncher.h"

// The wiring between the link, the timer and the monitors. The timer is the real one: its ticks come once a
// second, on a thread of their own, so what a test compares is what its own thread did.

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds interval(1000);
constexpr std::chrono::milliseconds longerThanTheInterval(1500);

const std::string timeZoneObserved =
    "local centre: added an observer for kCFTimeZoneSystemTimeZoneDidChangeNotification";
const std::string timeZoneNoLongerObserved =
    "local centre: removed an observer for kCFTimeZoneSystemTimeZoneDidChangeNotification";

class MonitorLauncherTest : public AgentTest {
protected:
    // The constructor has asked for a connection; here it is made.
    static void makeConnection() {
        fake::Operations::runAll();
        trace().clear();
    }

    std::unique_ptr<MonitorLauncher> m_launcher = std::make_unique<MonitorLauncher>();
};

TEST_F(MonitorLauncherTest, IsMadeWithAClientThatIsAskedForAConnection) {
    EXPECT_THAT(trace().entries(), ElementsAre("queue: created", "queue: width 1", "queue: operation added"));
    trace().clear();
    fake::Operations::runAll();
    EXPECT_EQ(fake::connectionCount(), 1);
    EXPECT_THAT(trace().entries(), testing::Not(testing::Contains("connection 1: sent connect")));
}

TEST_F(MonitorLauncherTest, LaunchesStepByStep) {
    trace().clear();
    m_launcher->launch();
    EXPECT_THAT(entriesWithoutTicks(),
                ElementsAre("[TRACE] Monitor launcher is running", "[TRACE] Screen lock monitor is running",
                            "distributed centre: added an observer for com.apple.screenIsLocked",
                            "distributed centre: added an observer for com.apple.screenIsUnlocked",
                            "[TRACE] Time zone change monitor is running", timeZoneObserved));
}

TEST_F(MonitorLauncherTest, SubscribesAndRunsTheTimerBeforeTheMonitorsStart) {
    bool ticked = false;
    trace().onNext("distributed centre: added an observer for com.apple.screenIsLocked", [&] {
        ticked = trace().waitFor(tick);
        m_sigDisconnectedImpl();
        m_sigConnectedImpl();
    });
    m_launcher->launch();
    EXPECT_TRUE(ticked);
    EXPECT_THAT(trace().logLines(), testing::IsSupersetOf({"[TRACE] Monitor launcher: connected came",
                                                           "[TRACE] Monitor launcher: disconnected came"}));
}

TEST_F(MonitorLauncherTest, EventsDuringItsStartAreLoggedByTheMonitorsAndReachNobody) {
    makeConnection();
    trace().onNext(timeZoneObserved, [] {
        fake::postScreenLocked();
        fake::postTimeZoneChanged();
    });
    m_launcher->launch();
    EXPECT_THAT(entriesWithoutTicks(),
                ElementsAre("[TRACE] Monitor launcher is running", "[TRACE] Screen lock monitor is running",
                            "distributed centre: added an observer for com.apple.screenIsLocked",
                            "distributed centre: added an observer for com.apple.screenIsUnlocked",
                            "[TRACE] Time zone change monitor is running", timeZoneObserved,
                            "[TRACE] Screen lock monitor: User's screen was locked",
                            "[TRACE] Timezone changed notification came"));
}

TEST_F(MonitorLauncherTest, AsksForAConnectionOnceASecondWhileUnanswered) {
    makeConnection();
    const Clock::time_point start = Clock::now();
    m_launcher->launch();
    trace().clear();
    ASSERT_TRUE(trace().waitFor("connection 1: sent connect"));
    EXPECT_GE(Clock::now() - start, interval);
    EXPECT_THAT(trace().entries(), ElementsAre(tick, "queue: operation added", "connection 1: proxy taken",
                                               "connection 1: sent connect"));
    trace().clear();
    ASSERT_TRUE(trace().waitFor("connection 1: sent connect"));
    EXPECT_GE(Clock::now() - start, 2 * interval);
}

TEST_F(MonitorLauncherTest, ARequestBeforeThereIsAConnectionIsLostAndMadeAgain) {
    m_launcher->launch();
    ASSERT_TRUE(trace().waitFor(tick));
    EXPECT_THAT(trace().entries(), testing::Not(testing::Contains("connection 1: sent connect")));
    fake::Operations::runAll();
    EXPECT_TRUE(trace().waitFor("connection 1: sent connect"));
}

TEST_F(MonitorLauncherTest, StopsTheTimerWhenTheDaemonAnswersNoToo) {
    makeConnection();
    m_launcher->launch();
    trace().clear();
    fake::connection(1)->exportedObject()->connected(false);
    EXPECT_THAT(entriesWithoutTicks(), ElementsAre("[TRACE] xpc: connection is established: 0",
                                                   "[TRACE] Monitor launcher: connected came"));
    trace().clear();
    EXPECT_FALSE(trace().waitFor(tick, longerThanTheInterval));
}

TEST_F(MonitorLauncherTest, RestartsTheTimerWhenTheLinkIsLost) {
    makeConnection();
    m_launcher->launch();
    fake::connection(1)->exportedObject()->connected(true);
    ASSERT_FALSE(trace().waitFor(tick, longerThanTheInterval));

    trace().clear();
    const Clock::time_point lost = Clock::now();
    fake::connection(1)->interrupt();
    fake::Operations::runAll();
    EXPECT_THAT(
        entriesWithoutTicks(),
        ElementsAre("connection 1: interruption handler cleared", "queue: operation added",
                    "connection 1: released", "[TRACE] xpc connection was inerrupted",
                    "[TRACE] Monitor launcher: disconnected came", "queue: operation added",
                    "connection 2: created for com.brovik.velmdaemon with options 4096",
                    "connection 2: remote object interface XpcDaemonProtocol",
                    "connection 2: exported interface XpcAgentProtocol", "connection 2: exported object set",
                    "connection 2: interruption handler set", "connection 2: invalidation handler set",
                    "connection 2: resumed", "[TRACE] xpc is running"));
    ASSERT_TRUE(trace().waitFor("connection 2: sent connect"));
    EXPECT_GE(Clock::now() - lost, interval);
}

TEST_F(MonitorLauncherTest, ALossWhileTheTimerRunsLeavesItsTaskAsItIs) {
    makeConnection();
    m_launcher->launch();
    ASSERT_TRUE(trace().waitFor("connection 1: sent connect"));
    trace().clear();
    // Were a second task started, this would wait for the first one for ever.
    m_sigDisconnectedImpl();
    EXPECT_THAT(entriesWithoutTicks(),
                ElementsAre("[TRACE] Monitor launcher: disconnected came", "queue: operation added"));
    EXPECT_TRUE(trace().waitFor(tick));
}

TEST_F(MonitorLauncherTest, ForwardsLockAndUnlock) {
    makeConnection();
    m_launcher->launch();
    trace().clear();
    fake::postScreenLocked();
    fake::postScreenUnlocked();
    EXPECT_THAT(entriesWithoutTicks(),
                ElementsAre("[TRACE] Screen lock monitor: User's screen was locked",
                            "[TRACE] Monitor launcher: screen lock status 1",
                            "[TRACE] xpc service monitor: sending lock screen status",
                            "connection 1: proxy taken", "connection 1: sent onScreenLocked: YES",
                            "[TRACE] Screen lock monitor: User's screen was unlocked",
                            "[TRACE] Monitor launcher: screen lock status 0",
                            "[TRACE] xpc service monitor: sending lock screen status",
                            "connection 1: proxy taken", "connection 1: sent onScreenLocked: NO"));
}

TEST_F(MonitorLauncherTest, ForwardsEventsThoughThereIsNoConnection) {
    m_launcher->launch();
    trace().clear();
    fake::postScreenLocked();
    fake::postTimeZoneChanged();
    EXPECT_THAT(entriesWithoutTicks(),
                ElementsAre("[TRACE] Screen lock monitor: User's screen was locked",
                            "[TRACE] Monitor launcher: screen lock status 1",
                            "[TRACE] xpc service monitor: sending lock screen status",
                            "[TRACE] Timezone changed notification came",
                            "[TRACE] Monitor launcher: time zone notification signaled",
                            "[TRACE] xpc service monitor: sending time zone changed notification"));
}

TEST_F(MonitorLauncherTest, ForwardsAChangeOfTheTimeZone) {
    makeConnection();
    m_launcher->launch();
    trace().clear();
    fake::postTimeZoneChanged();
    EXPECT_THAT(entriesWithoutTicks(),
                ElementsAre("[TRACE] Timezone changed notification came",
                            "[TRACE] Monitor launcher: time zone notification signaled",
                            "[TRACE] xpc service monitor: sending time zone changed notification",
                            "connection 1: proxy taken", "connection 1: sent onTimeZoneChanged"));
}

TEST_F(MonitorLauncherTest, BelowTheTraceLevelItWorksInSilence) {
    Logging::Logger::instance().setLoggingLevel(Logging::Level::Debug);
    makeConnection();
    m_launcher->launch();
    ASSERT_TRUE(trace().waitFor("connection 1: sent connect"));
    fake::postScreenLocked();
    fake::postTimeZoneChanged();
    m_sigDisconnectedImpl();
    m_sigConnectedImpl();
    EXPECT_THAT(trace().logLines(), IsEmpty());
    EXPECT_THAT(trace().entries(), testing::IsSupersetOf({"connection 1: sent onScreenLocked: YES",
                                                          "connection 1: sent onTimeZoneChanged"}));
}

TEST_F(MonitorLauncherTest, TakesItselfApartFromTheEnd) {
    m_launcher->launch();
    trace().clear();
    bool tickedLate = true;
    trace().onNext(timeZoneNoLongerObserved,
                   [&] { tickedLate = trace().waitFor(tick, longerThanTheInterval); });
    m_launcher.reset();
    EXPECT_THAT(
        entriesWithoutTicks(),
        ElementsAre(timeZoneNoLongerObserved, "distributed centre: removed null for com.apple.screenIsLocked",
                    "distributed centre: removed null for com.apple.screenIsUnlocked", "queue: released"));
    EXPECT_FALSE(tickedLate) << "the timer's task is over before the monitors go";
}

TEST_F(MonitorLauncherTest, LeavesAClientThatIsConnectedToItsConnection) {
    makeConnection();
    m_launcher->launch();
    trace().clear();
    m_launcher.reset();
    EXPECT_THAT(trace().entries(), testing::Not(testing::Contains("queue: released")));
    EXPECT_NE(fake::connection(1), nullptr);
}

}  // namespace
