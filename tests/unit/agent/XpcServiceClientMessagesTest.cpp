#include <cstdint>
#include <limits>
#include <thread>

#include "logging/Log.h"
#include "unit/agent/XpcServiceClientFixture.h"

// What the client sends, what it accepts, and the signals that it raises.

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

using XpcServiceClientMessages = XpcServiceClientTest;

const std::string fourBytes("a\0b\n", 4);

TEST_F(XpcServiceClientMessages, ConnectIsSentWithoutALogLine) {
    connectClient();
    m_client->connect();
    EXPECT_THAT(trace().entries(), ElementsAre("connection 1: proxy taken", "connection 1: sent connect"));
}

TEST_F(XpcServiceClientMessages, APingIsSentWithoutALogLine) {
    connectClient();
    m_client->pingWithReply();
    EXPECT_THAT(trace().entries(),
                ElementsAre("connection 1: proxy taken", "connection 1: sent pingWithReply:"));
}

TEST_F(XpcServiceClientMessages, DataIsSentUnchanged) {
    connectClient();
    m_client->sendMessage(XpcData{fourBytes.data(), fourBytes.size()});
    EXPECT_THAT(trace().entries(), ElementsAre("[TRACE] send message called", "connection 1: proxy taken",
                                               "connection 1: sent putMessage: <" + fourBytes + ">"));
}

TEST_F(XpcServiceClientMessages, LockAndUnlockAreSentAsTheFlag) {
    connectClient();
    m_client->onScreenLocked(true);
    m_client->onScreenLocked(false);
    EXPECT_THAT(trace().entries(),
                ElementsAre("[TRACE] xpc service monitor: sending lock screen status",
                            "connection 1: proxy taken", "connection 1: sent onScreenLocked: YES",
                            "[TRACE] xpc service monitor: sending lock screen status",
                            "connection 1: proxy taken", "connection 1: sent onScreenLocked: NO"));
}

TEST_F(XpcServiceClientMessages, AChangeOfTheTimeZoneIsSent) {
    connectClient();
    m_client->onTimeZoneChanged();
    EXPECT_THAT(trace().entries(),
                ElementsAre("[TRACE] xpc service monitor: sending time zone changed notification",
                            "connection 1: proxy taken", "connection 1: sent onTimeZoneChanged"));
}

TEST_F(XpcServiceClientMessages, TheLogLevelIsAskedForInAPoolOfItsOwn) {
    connectClient();
    m_client->requestForLogLevel();
    EXPECT_THAT(trace().entries(), ElementsAre("[TRACE] xpc service: requested for log level", "pool: pushed",
                                               "connection 1: proxy taken",
                                               "connection 1: sent requestForLogLevel: 1", "pool: popped"));
}

TEST_F(XpcServiceClientMessages, WithoutAConnectionLinesAreWrittenAndNothingIsSent) {
    trace().clear();
    m_client->connect();
    m_client->pingWithReply();
    m_client->sendMessage(XpcData{});
    m_client->onScreenLocked(true);
    m_client->onTimeZoneChanged();
    m_client->requestForLogLevel();
    EXPECT_THAT(
        trace().entries(),
        ElementsAre("[TRACE] send message called", "[TRACE] xpc service monitor: sending lock screen status",
                    "[TRACE] xpc service monitor: sending time zone changed notification",
                    "[TRACE] xpc service: requested for log level", "pool: pushed", "pool: popped"));
}

TEST_F(XpcServiceClientMessages, APingAnsweredWithYesChangesNothing) {
    connectClient();
    m_client->pingWithReply();
    trace().clear();
    ASSERT_TRUE(fake::answerPing(true));
    EXPECT_THAT(trace().entries(), IsEmpty());
}

TEST_F(XpcServiceClientMessages, APingAnsweredWithNoIsAnErrorAndALossThatKeepsTheConnection) {
    const auto connection = connectClient();
    m_client->pingWithReply();
    trace().clear();
    ASSERT_TRUE(fake::answerPing(false));
    EXPECT_THAT(trace().entries(),
                ElementsAre("[ERROR] xpc: connection is not ready", "raised disconnected"));
    EXPECT_EQ(m_client->m_xpcConnection(), connection);
}

TEST_F(XpcServiceClientMessages, APingHoldsNoClientAndItsAnswerCountsWithoutOne) {
    const auto connection = connectClient();
    m_client->pingWithReply();
    ASSERT_TRUE(releaseClient(*connection));
    trace().clear();
    ASSERT_TRUE(fake::answerPing(false));
    EXPECT_THAT(trace().entries(),
                ElementsAre("[ERROR] xpc: connection is not ready", "raised disconnected"));
}

TEST_F(XpcServiceClientMessages, TheErrorLineNeedsTheErrorLevelAndTheSignalNone) {
    connectClient();
    Logging::Logger::instance().setLoggingLevel(Logging::Level::Error);
    m_client->pingWithReply();
    ASSERT_TRUE(fake::answerPing(false));
    EXPECT_THAT(trace().logLines(), ElementsAre("[ERROR] xpc: connection is not ready"));

    Logging::Logger::instance().setLoggingLevel(Logging::Level::Fatal);
    m_client->pingWithReply();
    trace().clear();
    ASSERT_TRUE(fake::answerPing(false));
    EXPECT_THAT(trace().entries(), ElementsAre("raised disconnected"));
}

TEST_F(XpcServiceClientMessages, ConnectedIsLoggedAndRaisedWhateverTheFlag) {
    trace().clear();
    m_client->connected(true);
    m_client->connected(false);
    EXPECT_THAT(trace().entries(),
                ElementsAre("[TRACE] xpc: connection is established: 1", "raised connected",
                            "[TRACE] xpc: connection is established: 0", "raised connected"));
}

TEST_F(XpcServiceClientMessages, ReceivedDataIsPassedOnWhereItLies) {
    const char* received = nullptr;
    m_client->subscribeOnReceived(XpcServiceClientImpl::ReceivedSlot(
        [&](const char* bytes, unsigned long long /*length*/) { received = bytes; }));
    trace().clear();
    m_client->putMessage(XpcData{fourBytes.data(), fourBytes.size()});
    EXPECT_THAT(trace().entries(),
                ElementsAre("[TRACE] agent: incomming message", "raised received <" + fourBytes + ">"));
    EXPECT_EQ(received, fourBytes.data());
}

TEST_F(XpcServiceClientMessages, EmptyDataIsPassedOnWithLengthZero) {
    std::vector<unsigned long long> lengths;
    m_client->subscribeOnReceived(XpcServiceClientImpl::ReceivedSlot(
        [&](const char* /*bytes*/, unsigned long long length) { lengths.push_back(length); }));
    m_client->putMessage(XpcData{});
    EXPECT_THAT(lengths, ElementsAre(0U));
}

TEST_F(XpcServiceClientMessages, ALogLevelIsPassedOnUnchanged) {
    trace().clear();
    m_client->logLevel(-7);
    m_client->logLevel(std::numeric_limits<std::int64_t>::max());
    EXPECT_THAT(trace().entries(),
                ElementsAre("[TRACE] xpc service: received log level: -7", "raised log level -7",
                            "[TRACE] xpc service: received log level: 9223372036854775807",
                            "raised log level 9223372036854775807"));
}

TEST_F(XpcServiceClientMessages, ALogLevelIsNotThisProgramsOwn) {
    m_client->logLevel(Logging::Level::Fatal);
    EXPECT_EQ(Logging::Logger::instance().loggingLevel(), Logging::Level::Trace);
}

// Runs `action` on a thread of its own, and returns that thread.
template <typename Action>
std::thread::id onAnotherThread(Action action) {
    std::thread thread(action);
    const std::thread::id id = thread.get_id();
    thread.join();
    return id;
}

TEST_F(XpcServiceClientMessages, WhatTheDaemonSaysIsRaisedOnTheThreadThatDeliversIt) {
    std::thread::id raisedOn;
    const auto raised = [&raisedOn](auto&&... /*values*/) { raisedOn = std::this_thread::get_id(); };
    m_client->subscribeOnConnected(XpcServiceClientImpl::EventSlot(raised));
    m_client->subscribeOnReceived(XpcServiceClientImpl::ReceivedSlot(raised));
    m_client->subscribeOnLogLevel(XpcServiceClientImpl::LogLevelSlot(raised));
    m_client->subscribeOnDisconnected(XpcServiceClientImpl::EventSlot(raised));
    connectClient();
    m_client->pingWithReply();
    EXPECT_EQ(onAnotherThread([this] { m_client->connected(true); }), raisedOn);
    EXPECT_EQ(onAnotherThread([this] { m_client->putMessage(XpcData{}); }), raisedOn);
    EXPECT_EQ(onAnotherThread([this] { m_client->logLevel(1); }), raisedOn);
    EXPECT_EQ(onAnotherThread([] { fake::answerPing(false); }), raisedOn);
}

TEST_F(XpcServiceClientMessages, ALossIsRaisedOnTheQueuesThread) {
    std::thread::id raisedOn;
    m_client->subscribeOnDisconnected(
        XpcServiceClientImpl::EventSlot([&raisedOn] { raisedOn = std::this_thread::get_id(); }));
    connectClient()->interrupt();
    EXPECT_EQ(onAnotherThread(&fake::Operations::runAll), raisedOn);
    connectClient()->invalidate();
    EXPECT_EQ(onAnotherThread(&fake::Operations::runAll), raisedOn);
}

TEST_F(XpcServiceClientMessages, CallsMeantForOtherAgentsChangeNothing) {
    trace().clear();
    m_client->initRmmMessage("message", "token", "subdomain", "url", "version");
    m_client->networkReachability(true);
    EXPECT_THAT(trace().entries(), IsEmpty());
}

TEST_F(XpcServiceClientMessages, ImplementsEveryMethodOfItsProtocolButOne) {
    std::vector<std::string_view> refused;
    for (const XpcMethod& method : xpcAgentProtocol) {
        if (!m_client->respondsToSelector(method.selector)) {
            refused.push_back(method.selector);
        }
    }
    EXPECT_THAT(refused, ElementsAre("rmmMessage:"));
}

TEST_F(XpcServiceClientMessages, BelowTheTraceLevelEverythingHappensInSilence) {
    Logging::Logger::instance().setLoggingLevel(Logging::Level::Debug);
    const auto connection = connectClient();
    m_client->sendMessage(XpcData{});
    m_client->onScreenLocked(true);
    m_client->onTimeZoneChanged();
    m_client->requestForLogLevel();
    m_client->connected(true);
    m_client->putMessage(XpcData{});
    m_client->logLevel(3);
    connection->interrupt();
    connection->invalidate();
    fake::Operations::runAll();
    EXPECT_THAT(trace().logLines(), IsEmpty());
    EXPECT_THAT(trace().entries(),
                testing::IsSupersetOf(
                    {"connection 1: sent putMessage: <>", "connection 1: sent onScreenLocked: YES",
                     "connection 1: sent onTimeZoneChanged", "connection 1: sent requestForLogLevel: 1",
                     "raised connected", "raised received <>", "raised log level 3", "raised disconnected",
                     "raised disconnected"}));
}

TEST_F(XpcServiceClientMessages, SignalsAreSharedByAllClientsAndOutliveThem) {
    m_client.reset();
    trace().clear();
    const auto other = XpcServiceClientImpl::create();
    other->connected(true);
    EXPECT_THAT(trace().entries(),
                ElementsAre("queue: created", "queue: width 1", "[TRACE] xpc: connection is established: 1",
                            "raised connected"));
}

TEST_F(XpcServiceClientMessages, SlotsAreCalledInTheOrderOfTheirSubscription) {
    m_client->subscribeOnConnected(XpcServiceClientImpl::EventSlot([] { trace().add("second"); }));
    m_client->subscribeOnConnected(XpcServiceClientImpl::EventSlot([] { trace().add("third"); }));
    trace().clear();
    m_client->connected(true);
    EXPECT_THAT(trace().entries(), ElementsAre("[TRACE] xpc: connection is established: 1",
                                               "raised connected", "second", "third"));
    m_client->subscribeOnDisconnected(XpcServiceClientImpl::EventSlot([] { trace().add("second"); }));
    const auto connection = connectClient();
    connection->interrupt();
    trace().clear();
    fake::Operations::runAll();
    EXPECT_THAT(trace().entries(),
                ElementsAre("[TRACE] xpc connection was inerrupted", "raised disconnected", "second"));

    m_client->subscribeOnReceived(XpcServiceClientImpl::ReceivedSlot(
        [](const char* /*bytes*/, unsigned long long /*length*/) { trace().add("second"); }));
    trace().clear();
    m_client->putMessage(XpcData{});
    EXPECT_THAT(trace().entries(),
                ElementsAre("[TRACE] agent: incomming message", "raised received <>", "second"));

    m_client->subscribeOnLogLevel(
        XpcServiceClientImpl::LogLevelSlot([](long /*level*/) { trace().add("second"); }));
    trace().clear();
    m_client->logLevel(3);
    EXPECT_THAT(trace().entries(),
                ElementsAre("[TRACE] xpc service: received log level: 3", "raised log level 3", "second"));
}

TEST_F(XpcServiceClientMessages, ASlotEndsWithTheObjectThatItTracks) {
    auto tracked = std::make_shared<int>(0);
    int calls = 0;
    m_client->subscribeOnLogLevel(
        XpcServiceClientImpl::LogLevelSlot([&](long /*level*/) { ++calls; }).track_foreign(tracked));
    m_client->logLevel(1);
    tracked.reset();
    m_client->logLevel(1);
    EXPECT_EQ(calls, 1);
}

}  // namespace
