#include <chrono>
#include <cstdint>
#include <string>

#include "link/faults/FaultTest.h"

namespace link_tests {
namespace {

using std::chrono::milliseconds;

class DaemonFault : public FaultTest {};

TEST_F(DaemonFault, OneThatNeverAnswersIsAskedOnceASecond) {
    startSystem();
    daemon = std::make_unique<FakeDaemon>(bus.address());
    startAgent();
    ASSERT_TRUE(daemon->awaitConnects(4));
    EXPECT_EQ(agent->log().count(message::disconnected), 0U);
    const std::vector<milliseconds> ticks = agent->log().stampsOf(message::tick);
    for (std::size_t tick = 1; tick < ticks.size(); ++tick) {
        EXPECT_GE(ticks[tick] - ticks[tick - 1], milliseconds(990));
    }
    expectAQuickEnd();
}

TEST_F(DaemonFault, OneThatAnswersLateAndTwiceIsLinkedAllTheSame) {
    startSystem();
    daemon = std::make_unique<FakeDaemon>(bus.address());
    startAgent();
    ASSERT_TRUE(daemon->awaitConnects(3));
    EXPECT_TRUE(daemon->confirm().ok());
    EXPECT_TRUE(daemon->confirm().ok());
    awaitReady();
    ASSERT_TRUE(awaitEndOfTicks());
    const std::size_t mark = agent->log().mark();
    expectThatAllWorks();
    pumpFor(milliseconds(2500));
    EXPECT_EQ(agent->log().count(message::tick, mark), 0U);
    expectAQuickEnd();
}

TEST_F(DaemonFault, AFloodOfAHundredThousandCallsCostsNoMemoryAndNoEvent) {
    startLinkedAndReady();
    pumpFor(milliseconds(1500));
    const Resources before = resourcesOf(agent->pid());
    constexpr std::int64_t calls = 100000;
    std::size_t most = 0;
    for (std::int64_t call = 0; call < calls; ++call) {
        daemon->send("networkReachability", "b", 1);
        if (call % 10000 == 0) {
            most = std::max(most, resourcesOf(agent->pid()).memory);
            pumpFor(milliseconds(1));
        }
    }
    // Answered after all of them.
    const MessageHandle last =
        daemon->peer().newCall(daemon->agentTarget(), "logLevel", "x", std::int64_t{1});
    EXPECT_TRUE(daemon->peer().call(last, patience).ok());
    most = std::max(most, resourcesOf(agent->pid()).memory);
    EXPECT_LT(most, before.memory + 64UL * 1024) << "KiB";
    expectThatAllWorks();
    EXPECT_EQ(agent->log().count(message::disconnected), 0U);
    expectAQuickEnd();
}

TEST_F(DaemonFault, AnEndInTheMiddleOfAFloodIsQuick) {
    startLinkedAndReady();
    for (std::int64_t call = 0; call < 20000; ++call) {
        daemon->send("logLevel", "x", call);
    }
    expectAQuickEnd();
}

TEST_F(DaemonFault, AnEndWhileTheDaemonIsAwayIsQuick) {
    startLinkedAndReady();
    daemon->crash();
    ASSERT_TRUE(agent->log().await(message::disconnected));
    expectAQuickEnd();
}

TEST_F(DaemonFault, AThousandRestartsLeaveNothingBehind) {
    startLinkedAndReady();
    pumpFor(milliseconds(1500));
    const Resources before = resourcesOf(agent->pid());
    for (int round = 0; round < 1000; ++round) {
        daemon = std::make_unique<FakeDaemon>(bus.address());
        pumpFor(milliseconds(1));
    }
    relink();
    expectThatAllWorks();
    expectNoMoreThan(before);
    expectAQuickEnd();
}

}  // namespace
}  // namespace link_tests
