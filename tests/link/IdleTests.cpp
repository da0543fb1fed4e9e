#include <chrono>
#include <map>

#include "link/support/LinkTest.h"

namespace link_tests {
namespace {

class AgentIdle : public LinkTest {};

TEST_F(AgentIdle, SleepsWithoutOnceWakingUp) {
    PrivateBus sessionBus;
    sessionBus.start();
    options.sessionBus = sessionBus.address();
    startSystem();
    startLinked();
    ASSERT_TRUE(awaitSessionRead(ownSession));
    ASSERT_TRUE(agent->awaitWatchOfEtc());

    // What the link's coming up has set going comes to rest first: no change for two seconds.
    auto last = agent->voluntarySwitches();
    ASSERT_TRUE(await([&] {
        pumpFor(std::chrono::milliseconds(2000));
        const auto before = last;
        last = agent->voluntarySwitches();
        return last == before;
    }));
    const std::size_t lines = agent->log().mark();
    pumpFor(std::chrono::seconds(30));
    EXPECT_EQ(agent->voluntarySwitches(), last);
    EXPECT_EQ(agent->log().mark(), lines);

    // Asleep, not dead.
    logind->setLockedHint(ownSession, true);
    EXPECT_TRUE(daemon->awaitEvents(1));
    EXPECT_NE(agent->voluntarySwitches(), last);
}

}  // namespace
}  // namespace link_tests
