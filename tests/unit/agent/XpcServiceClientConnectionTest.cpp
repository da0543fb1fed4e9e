#include <atomic>
#include <thread>

#include "unit/agent/XpcServiceClientFixture.h"

// How the client creates its connection and takes it down.

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

using XpcServiceClientConnection = XpcServiceClientTest;

TEST_F(XpcServiceClientConnection, IsMadeWithASerialQueueAndOpensNothing) {
    EXPECT_THAT(trace().entries(), ElementsAre("queue: created", "queue: width 1"));
    EXPECT_EQ(m_client->m_xpcConnection(), nullptr);
    EXPECT_NE(m_client->queue(), nullptr);
}

TEST_F(XpcServiceClientConnection, ConnectToXpcOnlyAddsAnOperation) {
    trace().clear();
    m_client->connectToXpc();
    EXPECT_THAT(trace().entries(), ElementsAre("queue: operation added"));
    EXPECT_EQ(m_client->m_xpcConnection(), nullptr);
}

TEST_F(XpcServiceClientConnection, SetsTheConnectionUpStepByStep) {
    m_client->connectToXpc();
    trace().clear();
    fake::Operations::runAll();
    EXPECT_THAT(
        trace().entries(),
        ElementsAre("connection 1: created for com.brovik.velmdaemon with options 4096",
                    "connection 1: remote object interface XpcDaemonProtocol",
                    "connection 1: exported interface XpcAgentProtocol", "connection 1: exported object set",
                    "connection 1: interruption handler set", "connection 1: invalidation handler set",
                    "connection 1: resumed", "[TRACE] xpc is running"));
    EXPECT_EQ(m_client->m_xpcConnection(), fake::connection(1));
    EXPECT_EQ(fake::connection(1)->exportedObject(), m_client);
}

TEST_F(XpcServiceClientConnection, HoldsTheConnectionBeforeItIsSetUp) {
    bool held = false;
    trace().onNext("connection 1: remote object interface XpcDaemonProtocol",
                   [&] { held = m_client->m_xpcConnection() != nullptr; });
    m_client->connectToXpc();
    fake::Operations::runAll();
    EXPECT_TRUE(held);
}

TEST_F(XpcServiceClientConnection, TwoRequestsInARowMakeOneConnection) {
    m_client->connectToXpc();
    m_client->connectToXpc();
    EXPECT_EQ(fake::Operations::pending(), 2U);
    fake::Operations::runAll();
    EXPECT_EQ(fake::connectionCount(), 1);
    EXPECT_THAT(trace().logLines(), ElementsAre("[TRACE] xpc is running"));
}

TEST_F(XpcServiceClientConnection, ARequestHoldsTheClientWeakly) {
    const std::weak_ptr<XpcServiceClientImpl> weak = m_client;
    m_client->connectToXpc();
    m_client.reset();
    EXPECT_TRUE(weak.expired());
}

TEST_F(XpcServiceClientConnection, ARequestThatOutlivesTheClientKeepsNoConnectionButSaysItRuns) {
    m_client->connectToXpc();
    m_client.reset();
    trace().clear();
    fake::Operations::runAll();
    EXPECT_THAT(trace().entries(),
                ElementsAre("connection 1: created for com.brovik.velmdaemon with options 4096",
                            "connection 1: released", "[TRACE] xpc is running"));
}

TEST_F(XpcServiceClientConnection, TheConnectionKeepsTheClientAlive) {
    connectClient();
    const std::weak_ptr<XpcServiceClientImpl> weak = m_client;
    m_client.reset();
    EXPECT_FALSE(weak.expired());
}

TEST_F(XpcServiceClientConnection, TheHandlersHoldTheClientWeakly) {
    const auto connection = connectClient();
    EXPECT_TRUE(releaseClient(*connection));
}

TEST_F(XpcServiceClientConnection, AnInterruptionClearsItsHandlerAndLeavesTheRestToTheQueue) {
    const auto connection = connectClient();
    ASSERT_TRUE(connection->interrupt());
    EXPECT_THAT(trace().entries(),
                ElementsAre("connection 1: interruption handler cleared", "queue: operation added"));
    EXPECT_EQ(m_client->m_xpcConnection(), connection);
}

TEST_F(XpcServiceClientConnection, AfterAnInterruptionTheConnectionIsDroppedAndTheLossRaised) {
    const auto connection = connectClient();
    ASSERT_TRUE(connection->interrupt());
    trace().clear();
    bool dropped = false;
    trace().onNext("raised disconnected", [&] { dropped = m_client->m_xpcConnection() == nullptr; });
    fake::Operations::runAll();
    EXPECT_THAT(trace().entries(),
                ElementsAre("[TRACE] xpc connection was inerrupted", "raised disconnected"));
    EXPECT_TRUE(dropped);
}

TEST_F(XpcServiceClientConnection, AnInvalidationClearsItsHandlerAndLeavesTheRestToTheQueue) {
    const auto connection = connectClient();
    ASSERT_TRUE(connection->invalidate());
    EXPECT_THAT(trace().entries(),
                ElementsAre("connection 1: invalidation handler cleared", "queue: operation added"));
    EXPECT_EQ(m_client->m_xpcConnection(), connection);
}

TEST_F(XpcServiceClientConnection, AfterAnInvalidationTheConnectionIsDroppedAndTheLossRaised) {
    const auto connection = connectClient();
    ASSERT_TRUE(connection->invalidate());
    trace().clear();
    bool dropped = false;
    trace().onNext("raised disconnected", [&] { dropped = m_client->m_xpcConnection() == nullptr; });
    fake::Operations::runAll();
    EXPECT_THAT(trace().entries(), ElementsAre("[TRACE] xpc connection invalidated", "raised disconnected"));
    EXPECT_TRUE(dropped);
}

TEST_F(XpcServiceClientConnection, ALostConnectionIsReleasedOnTheQueue) {
    connectClient()->interrupt();
    EXPECT_NE(fake::connection(1), nullptr);
    fake::Operations::runAll();
    EXPECT_EQ(fake::connection(1), nullptr);
}

TEST_F(XpcServiceClientConnection, ANewRequestAfterALossMakesANewConnection) {
    connectClient()->interrupt();
    m_client->connectToXpc();
    fake::Operations::runAll();
    EXPECT_EQ(fake::connectionCount(), 2);
    EXPECT_NE(m_client->m_xpcConnection(), nullptr);
    EXPECT_EQ(m_client->m_xpcConnection(), fake::connection(2));
}

TEST_F(XpcServiceClientConnection, AnOldConnectionThatIsInvalidatedLaterTakesTheCurrentOneDown) {
    const auto old = connectClient();
    ASSERT_TRUE(old->interrupt());
    fake::Operations::runAll();
    const auto current = connectClient();
    ASSERT_NE(current, old);

    ASSERT_TRUE(old->invalidate());
    fake::Operations::runAll();
    EXPECT_THAT(trace().entries(),
                ElementsAre("connection 2: invalidation handler cleared", "queue: operation added",
                            "[TRACE] xpc connection invalidated", "raised disconnected"));
    EXPECT_EQ(m_client->m_xpcConnection(), nullptr);
    EXPECT_TRUE(current->interrupt()) << "only the handler of the same kind is cleared";
    EXPECT_TRUE(old->invalidate()) << "the old connection's own handler stays";
}

TEST_F(XpcServiceClientConnection, ASecondLossWithoutACurrentConnectionIsRaisedAllTheSame) {
    const auto connection = connectClient();
    ASSERT_TRUE(connection->interrupt());
    fake::Operations::runAll();
    trace().clear();
    ASSERT_TRUE(connection->invalidate());
    fake::Operations::runAll();
    EXPECT_THAT(trace().entries(), ElementsAre("queue: operation added", "[TRACE] xpc connection invalidated",
                                               "raised disconnected"));
}

TEST_F(XpcServiceClientConnection, ALossThatTheClientDidNotLiveToSeeIsNotRaised) {
    const auto connection = connectClient();
    ASSERT_TRUE(releaseClient(*connection));
    trace().clear();
    EXPECT_TRUE(connection->interrupt());
    EXPECT_TRUE(connection->invalidate());
    EXPECT_THAT(trace().entries(), IsEmpty());
    EXPECT_EQ(fake::Operations::pending(), 0U);
}

TEST_F(XpcServiceClientConnection, ALossOnTheQueueIsRaisedThoughTheClientIsGone) {
    const auto connection = connectClient();
    connection->interrupt();
    connection->invalidate();
    ASSERT_TRUE(releaseClient(*connection)) << "what is on the queue holds the client weakly";
    trace().clear();
    fake::Operations::runAll();
    EXPECT_THAT(trace().entries(), ElementsAre("[TRACE] xpc connection was inerrupted", "raised disconnected",
                                               "[TRACE] xpc connection invalidated", "raised disconnected"));
}

TEST_F(XpcServiceClientConnection, MayBeUsedWhileConnectionsComeAndGo) {
    constexpr int rounds = 50;
    std::atomic<bool> done{false};
    std::thread sender([&] {
        while (!done) {
            m_client->connect();
            m_client->connectToXpc();
        }
    });
    for (int lost = 0; lost < rounds;) {
        const auto connection = fake::connection(fake::connectionCount());
        lost += connection && connection->interrupt() ? 1 : 0;
        fake::Operations::runAll();
    }
    done = true;
    sender.join();
    fake::Operations::runAll();
    EXPECT_GE(fake::connectionCount(), rounds);
}

}  // namespace
