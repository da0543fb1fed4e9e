#include <gmock/gmock.h>

#include <algorithm>
#include <chrono>
#include <future>
#include <memory>
#include <thread>

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

    // Whether the timer has been stopped. A tick that was under way then may still come.
    static bool timerIsSilent() {
        bool ticked = true;
        for (int attempt = 0; ticked && attempt < 2; ++attempt) {
            trace().clear();
            ticked = trace().waitFor(tick, longerThanTheInterval);
        }
        return !ticked;
    }

    // Keeps the next tick in its handler, between its line and its request for a connection.
    class HeldTick {
    public:
        HeldTick() {
            trace().onNext("queue: operation added", [entered = m_entered, over = m_over] {
                entered->set_value();
                over->get_future().wait();
            });
            m_entered->get_future().wait();
        }
        ~HeldTick() { m_over->set_value(); }
        HeldTick(const HeldTick&) = delete;
        HeldTick& operator=(const HeldTick&) = delete;

    private:
        std::shared_ptr<std::promise<void>> m_entered = std::make_shared<std::promise<void>>();
        std::shared_ptr<std::promise<void>> m_over = std::make_shared<std::promise<void>>();
    };

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

TEST_F(MonitorLauncherTest, SaysThatItRunsBeforeItSubscribes) {
    noteNextSubscription(m_sigConnectedImpl, "subscribed");
    trace().clear();
    m_launcher->launch();
    const std::vector<std::string> entries = entriesWithoutTicks();
    ASSERT_GE(entries.size(), 2U);
    EXPECT_EQ(entries[0], "[TRACE] Monitor launcher is running");
    EXPECT_EQ(entries[1], "subscribed");
}

TEST_F(MonitorLauncherTest, SubscribesBeforeItRunsTheTimer) {
    for (auto* const signal : {&m_sigConnectedImpl, &m_sigDisconnectedImpl}) {
        m_launcher = std::make_unique<MonitorLauncher>();
        bool subscribed = false;
        bool ticked = false;
        noteNextSubscription(*signal, "subscribed");
        trace().clear();
        trace().onNext("subscribed", [&] {
            subscribed = true;
            ticked = trace().waitFor(tick, longerThanTheInterval);
        });
        m_launcher->launch();
        EXPECT_TRUE(subscribed);
        EXPECT_FALSE(ticked);
    }
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
    ASSERT_TRUE(trace().waitFor("connection 1: sent connect", std::chrono::seconds(20), 2));
    const auto sent = trace().timesOf("connection 1: sent connect");
    EXPECT_GE(sent[0] - start, interval);
    EXPECT_GE(sent[1] - start, 2 * interval);
    std::vector<std::string> ofOneTick = trace().entriesOfOtherThreads();
    ofOneTick.resize(3);
    EXPECT_THAT(ofOneTick, ElementsAre("queue: operation added", "connection 1: proxy taken",
                                       "connection 1: sent connect"));
    EXPECT_GE(trace().timesOf("queue: operation added")[0], trace().timesOf(tick)[0]);
}

TEST_F(MonitorLauncherTest, AsksNoMoreRarelyThanOnceASecond) {
    const Clock::time_point start = Clock::now();
    m_launcher->launch();
    constexpr int ticks = 3;
    ASSERT_TRUE(trace().waitFor(tick, std::chrono::seconds(60), ticks));
    Clock::duration shortest = Clock::duration::max();
    Clock::time_point previous = start;
    for (const Clock::time_point time : trace().timesOf(tick)) {
        EXPECT_GE(time - previous, interval);
        shortest = std::min(shortest, time - previous);
        previous = time;
    }
    EXPECT_LT(shortest, 2 * interval) << "the best of three: a busy machine delays single ticks";
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
    EXPECT_TRUE(timerIsSilent());
}

TEST_F(MonitorLauncherTest, RestartsTheTimerWhenTheLinkIsLost) {
    makeConnection();
    m_launcher->launch();
    fake::connection(1)->exportedObject()->connected(true);
    ASSERT_TRUE(timerIsSilent());

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

TEST_F(MonitorLauncherTest, ALossWhileTheTimerRunsDoesNotHurryIt) {
    makeConnection();
    m_launcher->launch();
    // Broken when the task's thread ends: whoever wakes the task may find that it gives up rather than
    // hurries.
    std::future<void> task;
    trace().onNext("queue: operation added", [&task] {
        thread_local std::promise<void> thread;
        task = thread.get_future();
    });
    ASSERT_TRUE(trace().waitFor("connection 1: sent connect"));
    const auto ticksSoFar = [] { return static_cast<std::ptrdiff_t>(trace().timesOf(tick).size()); };
    // Spread over the interval: a loss during the tick itself would wake nobody, hurry or not.
    for (int loss = 0; loss < 5; ++loss) {
        trace().waitFor(tick, interval / 10, ticksSoFar() + 1);
        m_sigDisconnectedImpl();
    }
    ASSERT_TRUE(trace().waitFor(tick, std::chrono::seconds(20), ticksSoFar() + 1));
    const std::vector<Clock::time_point> ticks = trace().timesOf(tick);
    for (std::size_t next = 1; next < ticks.size(); ++next) {
        EXPECT_GE(ticks[next] - ticks[next - 1], interval);
    }
    EXPECT_EQ(task.wait_for(interval * 0), std::future_status::timeout);
}

TEST_F(MonitorLauncherTest, ALossAsksForTheNextConnectionBeforeItRunsTheTimer) {
    m_launcher->launch();
    m_sigConnectedImpl();
    ASSERT_TRUE(timerIsSilent());
    bool asked = false;
    bool ticked = false;
    trace().onNext("queue: operation added", [&] {
        asked = true;
        ticked = trace().waitFor(tick, longerThanTheInterval);
    });
    m_sigDisconnectedImpl();
    EXPECT_TRUE(asked);
    EXPECT_FALSE(ticked);
    EXPECT_TRUE(trace().waitFor(tick));
}

// Holds the line of the daemon's answer up while the timer, if it still runs, comes to its next tick.
class HoldsTheAnswersLine : public Logging::Destination {
public:
    explicit HoldsTheAnswersLine(std::chrono::milliseconds pause) : m_pause(pause) {}

    void write(const std::string& line) override {
        if (line == "[TRACE] Monitor launcher: connected came") {
            std::this_thread::sleep_for(m_pause);
            m_pause *= 2;
        }
    }

private:
    std::chrono::milliseconds m_pause;
};

TEST_F(MonitorLauncherTest, LogsTheDaemonsAnswerBeforeItStopsTheTimer) {
    Logging::Logger::instance().addDestination(std::make_shared<HoldsTheAnswersLine>(longerThanTheInterval));
    m_launcher->launch();
    bool ticked = false;
    for (int attempt = 0; attempt < 4 && !ticked; ++attempt) {
        // A tick shows that the timer's task is at work; before that, a loss would wait for its end.
        ASSERT_TRUE(trace().waitFor(tick));
        trace().clear();
        m_sigConnectedImpl();
        // The tick's own line has waited for the answer's.
        ticked = trace().waitFor(tick, interval / 2);
        m_sigDisconnectedImpl();
    }
    EXPECT_TRUE(ticked);
}

TEST_F(MonitorLauncherTest, AnAnswerDuringATickWaitsForNothing) {
    m_launcher->launch();
    const auto held = std::make_unique<HeldTick>();
    const std::future<void> answered = std::async(std::launch::async, [] { m_sigConnectedImpl(); });
    EXPECT_EQ(answered.wait_for(std::chrono::seconds(20)), std::future_status::ready);
}

TEST_F(MonitorLauncherTest, ATickUnderWayAtItsEndIsFinished) {
    makeConnection();
    m_launcher->launch();
    std::future<void> gone;
    {
        const HeldTick held;
        gone = std::async(std::launch::async, [this] { m_launcher.reset(); });
        EXPECT_EQ(gone.wait_for(std::chrono::milliseconds(200)), std::future_status::timeout);
    }
    gone.get();
    EXPECT_THAT(trace().entries(), testing::Contains("connection 1: sent connect"));
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
    trace().onNext(timeZoneNoLongerObserved, [&] {
        const auto before = static_cast<std::ptrdiff_t>(trace().timesOf(tick).size());
        tickedLate = trace().waitFor(tick, longerThanTheInterval, before + 1);
    });
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
