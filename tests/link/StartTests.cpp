#include <chrono>

#include "link/support/LinkTest.h"

namespace link_tests {
namespace {

using std::chrono::milliseconds;

// One interval of the reconnect timer, less what a clock that is being adjusted may take from it.
constexpr milliseconds interval{990};

class LinkStart : public LinkTest {
protected:
    void expectTicksOneIntervalApart() {
        const std::vector<milliseconds> ticks = agent->log().stampsOf(message::tick);
        for (std::size_t index = 1; index < ticks.size(); ++index) {
            EXPECT_GE(ticks[index] - ticks[index - 1], interval) << "tick " << index;
        }
    }

    void expectThatAnAnswerStopsTheTicks(bool flag, const char* line) {
        bus.start();
        daemon = std::make_unique<FakeDaemon>(bus.address());
        startAgent();
        ASSERT_TRUE(daemon->awaitConnects(2));
        EXPECT_TRUE(daemon->confirm(flag).ok());
        ASSERT_TRUE(agent->log().await(message::connected));
        EXPECT_EQ(agent->log().count(line), 1U);

        // A busy machine may have some more before the answer is acted upon.
        ASSERT_TRUE(awaitEndOfTicks());
        const std::size_t asked = daemon->connects();
        pumpFor(milliseconds(3500));
        ASSERT_TRUE(agent->awaitWatchOfEtc());
        machine.timeZones().setByRename(eastZone);
        ASSERT_TRUE(daemon->awaitEvents(1));
        // One may still have been on its way.
        EXPECT_LE(daemon->connects(), asked + 1);
    }
};

TEST_F(LinkStart, AsksForTheLinkNotBeforeOneSecondAndThenOnceASecondWhileUnanswered) {
    bus.start();
    daemon = std::make_unique<FakeDaemon>(bus.address());
    startAgent();
    ASSERT_TRUE(daemon->awaitConnects(4));

    const std::vector<ReceivedCall> connects = daemon->connectCalls();
    EXPECT_GE(connects[0].arrival - agent->startTime(), milliseconds(1000));
    EXPECT_GE(connects[3].arrival - agent->startTime(), milliseconds(4000));
    EXPECT_GE(agent->log().stampsOf(message::tick)[0] - agent->log().stampsOf(message::started)[0], interval);
    expectTicksOneIntervalApart();
}

TEST_F(LinkStart, SendsConnectAsTheContractSays) {
    bus.start();
    daemon = std::make_unique<FakeDaemon>(bus.address());
    startAgent();
    ASSERT_TRUE(daemon->awaitConnects(1));

    const ReceivedCall connect = daemon->connectCalls()[0];
    EXPECT_EQ(connect.path, "/com/brovik/velmdaemon");
    EXPECT_EQ(connect.interface, "com.brovik.XpcDaemonProtocol");
    EXPECT_EQ(connect.signature, "");
    EXPECT_FALSE(connect.expectsReply);
    EXPECT_EQ(connect.sender.substr(0, 1), ":");
}

TEST_F(LinkStart, KeepsAskingWhileThereIsNoDaemonAndFindsTheOneThatComes) {
    bus.start();
    startAgent();
    ASSERT_TRUE(agent->log().awaitCount(message::tick, 4));
    expectTicksOneIntervalApart();
    EXPECT_EQ(agent->log().count(message::interrupted), 0U);
    EXPECT_EQ(agent->log().count(message::invalidated), 0U);

    daemon = std::make_unique<FakeDaemon>(bus.address());
    EXPECT_TRUE(confirmLink(*daemon));
}

TEST_F(LinkStart, AYesStopsTheTicks) {
    expectThatAnAnswerStopsTheTicks(true, message::established);
}

TEST_F(LinkStart, ANoStopsTheTicksToo) {
    expectThatAnAnswerStopsTheTicks(false, message::refused);
}

TEST_F(LinkStart, AnAnswerThatCameTwiceIsReportedTwice) {
    bus.start();
    startLinked();
    const std::size_t mark = agent->log().mark();
    EXPECT_TRUE(daemon->confirm().ok());
    ASSERT_TRUE(agent->log().awaitMessages(2, mark));
    EXPECT_EQ(agent->log().messages(mark), (Messages{message::established, message::connected}));
}

}  // namespace
}  // namespace link_tests
