#include <chrono>
#include <cstddef>
#include <utility>

#include "link/support/LinkTest.h"

namespace link_tests {
namespace {

// Half as much again as it needs (docs/performance.md): a buffer of a usual size that is kept for life breaks
// it.
constexpr std::size_t mostMemory = std::size_t{750} * 1024;

class AgentIdle : public LinkTest {
protected:
    void startAll() {
        startSystem();
        startLinked();
        ASSERT_TRUE(awaitSessionRead(ownSession));
        ASSERT_TRUE(agent->awaitWatchOfEtc());
    }

    /// What the link's coming up has set going comes to rest first: no change for two seconds.
    ::testing::AssertionResult comesToRest() {
        auto last = agent->voluntarySwitches();
        const bool rests = await([&] {
            pumpFor(std::chrono::milliseconds(2000));
            const auto before = std::exchange(last, agent->voluntarySwitches());
            return last == before;
        });
        return rests ? ::testing::AssertionSuccess()
                     : ::testing::AssertionFailure() << "it wakes up all the time";
    }

    void expectThatItSleepsOn() {
        const auto before = agent->voluntarySwitches();
        const std::size_t lines = agent->log().mark();
        pumpFor(std::chrono::seconds(30));
        EXPECT_EQ(agent->voluntarySwitches(), before);
        EXPECT_EQ(agent->log().mark(), lines);
        EXPECT_LT(agent->anonymousMemory(), mostMemory);

        // Asleep, not dead.
        logind->setLockedHint(ownSession, true);
        EXPECT_TRUE(daemon->awaitEvents(1));
        EXPECT_NE(agent->voluntarySwitches(), before);
    }
};

TEST_F(AgentIdle, SleepsWithoutOnceWakingUp) {
    PrivateBus sessionBus;
    sessionBus.start();
    options.sessionBus = sessionBus.address();
    startAll();
    ASSERT_TRUE(comesToRest());
    expectThatItSleepsOn();
}

TEST_F(AgentIdle, SleepsAlsoWhileTheSessionBusIsYetToCome) {
    const PrivateBus sessionBus;
    options.sessionBus = sessionBus.address();
    startAll();
    // It tries by itself for 15 s, in case a socket was there before its listener.
    pumpFor(std::chrono::seconds(17));
    ASSERT_TRUE(comesToRest());
    expectThatItSleepsOn();
}

}  // namespace
}  // namespace link_tests
