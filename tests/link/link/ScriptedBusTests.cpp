#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "link/support/Await.h"
#include "link/support/Losses.h"
#include "link/support/ScriptedBus.h"
#include "link/support/TempDirectory.h"
#include "platform/LossPacing.h"
#include "platform/XpcConnection.h"
#include "support/RecordingAgent.h"

// What a connection makes of a bus that answers late, in another order, with errors, or not at all.

namespace {

using link_tests::await;
using link_tests::Losses;
using link_tests::ScriptedBus;

constexpr const char* daemonName = "com.brovik.velmdaemon";
constexpr const char* askOwner = "GetNameOwner \"com.brovik.velmdaemon\"";
constexpr const char* accessDenied = "org.freedesktop.DBus.Error.AccessDenied";
constexpr const char* limitsExceeded = "org.freedesktop.DBus.Error.LimitsExceeded";
constexpr const char* noOwner = "org.freedesktop.DBus.Error.NameHasNoOwner";
constexpr const char* agentPath = "/com/brovik/velmmonitord";
constexpr const char* introspectable = "org.freedesktop.DBus.Introspectable";
constexpr std::uint32_t stranger = 4321;

std::string askUser(const std::string& name) {
    return "GetConnectionUnixUser \"" + name + "\"";
}

class ConnectionOnAScriptedBus : public testing::Test {
protected:
    ConnectionOnAScriptedBus() {
        setenv("DBUS_SYSTEM_BUS_ADDRESS", ("unix:path=" + socketPath).c_str(), 1);
        connection = platform::createXpcConnection(daemonName, platform::xpcConnectionPrivileged);
        connection->setRemoteObjectInterface(xpcDaemonProtocol);
        connection->setExportedInterface(xpcAgentProtocol);
        connection->setExportedObject(agent);
        connection->setInterruptionHandler([losses = losses] { ++losses->interruptions; });
        connection->setInvalidationHandler([losses = losses] { ++losses->invalidations; });
        connection->resume();
    }

    std::shared_ptr<XpcDaemonProtocol> daemon() { return connection->remoteObjectProxy(); }

    /// The bus says that root runs a daemon as ":1.5".
    void linkUp() {
        tellOwner(":1.5");
        daemon()->connect();
        answerUntil([this] { return bus.count("connect") > 0; }, askUser(":1.5"), "u", 0U);
        answerOwnerQuestions(":1.5");
    }
    /// Answers such a question until that shows: what is answered after the agent's patience is asked again.
    template <typename Condition, typename... Arguments>
    void answerUntil(Condition shows, const std::string& question, const char* types,
                     Arguments... arguments) {
        ASSERT_TRUE(await([&] {
            bus.answerAll(question, types, arguments...);
            return shows();
        })) << question;
    }
    /// The same with an error.
    template <typename Condition>
    void refuseUntil(Condition shows, const std::string& question, const char* error) {
        ASSERT_TRUE(await([&] {
            bus.answerAllWithError(question, error);
            return shows();
        })) << question;
    }
    /// The bus says who owns the name; the agent asks for his user next.
    void tellOwner(const char* owner) {
        answerUntil([&] { return bus.count(askUser(owner)) > 0; }, askOwner, "s", owner);
    }
    /// Answers every question after the owner that is still open, until none comes any more.
    void answerOwnerQuestions(const char* owner) {
        while (await([&] { return bus.answerAll(askOwner, "s", owner); }, std::chrono::milliseconds(200))) {
        }
    }
    bool awaitReplies(std::size_t count) {
        return await([&] { return bus.replies().size() >= count; });
    }

    static std::int64_t now() { return std::chrono::steady_clock::now().time_since_epoch().count(); }

    std::atomic<std::int64_t> lastCall{0};        ///< in nanoseconds
    std::atomic<std::int64_t> lossAfterCall{-1};  ///< in nanoseconds
    link_tests::TempDirectory directory;
    const std::string socketPath = directory.path() + "/bus";
    ScriptedBus bus{socketPath};
    std::shared_ptr<RecordingAgent> agent = std::make_shared<RecordingAgent>();
    std::shared_ptr<Losses> losses = std::make_shared<Losses>();
    std::shared_ptr<platform::IXpcConnection> connection;
};

TEST_F(ConnectionOnAScriptedBus, WatchesTheNameBeforeItAsksWhoOwnsIt) {
    const std::size_t question = bus.awaitQuestion(askOwner);
    EXPECT_LT(bus.awaitQuestion("AddMatch \"type='signal',sender='org.freedesktop.DBus'"), question);
}

TEST_F(ConnectionOnAScriptedBus, AnAnswerThatComesBehindTheChangeItSpeaksOfChangesNothing) {
    bus.awaitQuestion(askOwner);
    bus.nameOwnerChanged(daemonName, "", ":1.5");
    daemon()->connect();
    answerUntil([this] { return bus.count("connect") > 0; }, askUser(":1.5"), "u", 0U);
    const std::size_t asked = bus.count(askUser(":1.5"));
    bus.answerAll(askOwner, "s", ":1.5");
    bus.call(":1.5", "connected", "b", 1);
    ASSERT_TRUE(await([&] { return agent->calls().size() == 1; }));
    EXPECT_EQ(losses->all(), 0);
    EXPECT_EQ(bus.count(askUser(":1.5")), asked);
}

TEST_F(ConnectionOnAScriptedBus, WhatTheBusLeavesUnansweredIsAskedAgain) {
    bus.awaitQuestion(askOwner, 2);
    tellOwner(":1.5");
    daemon()->connect();
    bus.awaitQuestion(askUser(":1.5"), 2);
    answerUntil([this] { return bus.count("connect") > 0; }, askUser(":1.5"), "u", 0U);
    EXPECT_EQ(losses->all(), 0);
}

TEST_F(ConnectionOnAScriptedBus, AChangeOfAnotherNameChangesNothing) {
    linkUp();
    bus.nameOwnerChanged("com.brovik.other", ":1.5", ":1.6");
    bus.call(":1.5", "connected", "b", 1);
    ASSERT_TRUE(await([&] { return agent->calls().size() == 1; }));
    EXPECT_EQ(losses->all(), 0);
}

TEST_F(ConnectionOnAScriptedBus, ALateAnswerAboutAFormerOwnersUserIsNotTakenForTheNextOnes) {
    tellOwner(":1.5");
    const std::size_t former = bus.awaitQuestion(askUser(":1.5"));
    bus.nameOwnerChanged(daemonName, ":1.5", ":1.6");
    bus.awaitQuestion(askUser(":1.6"));
    daemon()->connect();
    bus.answer(former, "u", 0U);
    bus.call(":1.6", "connected", "b", 1);
    answerUntil([this] { return !bus.replies().empty(); }, askUser(":1.6"), "u", stranger);
    EXPECT_EQ(bus.replies().back(), accessDenied);
    EXPECT_TRUE(agent->calls().empty());
}

TEST_F(ConnectionOnAScriptedBus, ALateAnswerAboutAFormerOwnersUserOpensNoWayToNobody) {
    tellOwner(":1.5");
    const std::size_t former = bus.awaitQuestion(askUser(":1.5"));
    bus.nameOwnerChanged(daemonName, ":1.5", "");
    bus.answer(former, "u", 0U);
    bus.call(":1.9", "connected", "b", 1);
    ASSERT_TRUE(awaitReplies(1)) << "all that came before has been seen";
    daemon()->connect();
    bus.answerWithError(bus.awaitQuestion(askOwner, 2), noOwner);
    bus.awaitQuestion(askOwner, 3);
    EXPECT_EQ(bus.count("connect"), 0U);
}

TEST_F(ConnectionOnAScriptedBus, CallsThatWaitForTheirSendersUserOutlastTheFirstMessage) {
    tellOwner(":1.5");
    bus.call(":1.5", "connected", "b", 1);
    daemon()->connect();
    bus.call(":1.9", "connected", "b", 1);
    ASSERT_TRUE(awaitReplies(1)) << "all that came before has been seen";
    EXPECT_EQ(bus.replies(), std::vector<std::string>{accessDenied});
    answerUntil([this] { return agent->calls().size() == 1; }, askUser(":1.5"), "u", 0U);
    bus.awaitQuestion("connect");
}

TEST_F(ConnectionOnAScriptedBus, CallsThatWaitedForTheirSendersUserWaitForTheFirstMessageToo) {
    tellOwner(":1.5");
    bus.call(":1.5", "connected", "b", 1);
    bus.answerAll(askUser(":1.5"), "u", 0U);
    bus.call(":1.9", "connected", "b", 1);
    ASSERT_TRUE(awaitReplies(1)) << "all that came before has been seen";
    EXPECT_EQ(bus.replies().back(), accessDenied);
    EXPECT_TRUE(agent->calls().empty());
    daemon()->connect();
    answerUntil([this] { return agent->calls().size() == 1; }, askUser(":1.5"), "u", 0U);
}

TEST_F(ConnectionOnAScriptedBus, TrustEndsWithTheOwnerWhoHadIt) {
    tellOwner(":1.5");
    bus.answer(bus.awaitQuestion(askUser(":1.5")), "u", 0U);
    bus.nameOwnerChanged(daemonName, ":1.5", ":1.6");
    bus.awaitQuestion(askUser(":1.6"));
    daemon()->connect();
    bus.call(":1.6", "connected", "b", 1);
    answerUntil([this] { return !bus.replies().empty(); }, askUser(":1.6"), "u", stranger);
    EXPECT_EQ(bus.replies().back(), accessDenied);
    EXPECT_TRUE(agent->calls().empty());
    EXPECT_EQ(bus.count("connect"), 0U);
}

TEST_F(ConnectionOnAScriptedBus, AUserThatTheBusCouldNotTellIsAskedForAgainAtTheNextCall) {
    tellOwner(":1.5");
    bus.call(":1.5", "connected", "b", 1);
    refuseUntil([this] { return !bus.replies().empty(); }, askUser(":1.5"), limitsExceeded);
    EXPECT_EQ(bus.replies().back(), accessDenied);

    const std::size_t asked = bus.count(askUser(":1.5"));
    bus.call(":1.5", "logLevel", "x", std::int64_t{7});
    bus.awaitQuestion(askUser(":1.5"), asked + 1);
    daemon()->connect();
    answerUntil([this] { return !agent->calls().empty(); }, askUser(":1.5"), "u", 0U);
    EXPECT_EQ(agent->calls(), std::vector<std::string>{"logLevel:7"});
}

TEST_F(ConnectionOnAScriptedBus, AsksWhoTheDaemonIsWithEachMessageOneQuestionAtATime) {
    linkUp();
    const std::size_t before = bus.count(askOwner);
    for (int i = 0; i < 20; ++i) {
        daemon()->onScreenLocked(true);
    }
    bus.awaitQuestion("onScreenLocked", 20);
    bus.awaitQuestion(askOwner, before + 1);
    EXPECT_EQ(bus.count(askOwner), before + 1);
    // What was sent behind the question has one of its own once that is answered.
    bus.answer(bus.awaitQuestion(askOwner, before + 1), "s", ":1.5");
    bus.answer(bus.awaitQuestion(askOwner, before + 2), "s", ":1.5");
    daemon()->onScreenLocked(false);
    bus.awaitQuestion(askOwner, before + 3);
    EXPECT_EQ(losses->all(), 0);
}

TEST_F(ConnectionOnAScriptedBus, AnotherOwnerThanTheKnownOneIsAnInterruption) {
    linkUp();
    daemon()->onScreenLocked(true);
    answerUntil([this] { return losses->interruptions == 1; }, askOwner, "s", ":1.9");
}

TEST_F(ConnectionOnAScriptedBus, NoOwnerWhereOneWasKnownIsAnInterruption) {
    linkUp();
    daemon()->onScreenLocked(true);
    refuseUntil([this] { return losses->interruptions == 1; }, askOwner, noOwner);
}

TEST_F(ConnectionOnAScriptedBus, AStrangersCallHasTheBusAskedWhetherHeIsTheDaemon) {
    linkUp();
    bus.call(":1.9", "connected", "b", 1);
    answerUntil([this] { return losses->interruptions == 1; }, askOwner, "s", ":1.9");
    EXPECT_TRUE(agent->calls().empty());
}

TEST_F(ConnectionOnAScriptedBus, AnErrorThatIsNotAboutTheOwnerSaysNothing) {
    linkUp();
    const std::size_t before = bus.count(askOwner);
    daemon()->onScreenLocked(true);
    bus.answerWithError(bus.awaitQuestion(askOwner, before + 1), limitsExceeded);
    bus.call(":1.5", "connected", "b", 1);
    ASSERT_TRUE(await([&] { return agent->calls().size() == 1; }));
    EXPECT_EQ(losses->all(), 0);
}

TEST_F(ConnectionOnAScriptedBus, MessagesWaitUntilTheBusHasSaidWhoTheDaemonIs) {
    daemon()->connect();
    daemon()->onScreenLocked(true);
    tellOwner(":1.5");
    EXPECT_EQ(bus.count("connect"), 0U);
    answerUntil([this] { return bus.count("connect") > 0; }, askUser(":1.5"), "u", 0U);
    EXPECT_LT(bus.awaitQuestion("connect"), bus.awaitQuestion("onScreenLocked true"));
}

TEST_F(ConnectionOnAScriptedBus, AnErrorForAnAnswerReachesNoReplyBlockOfAnyKind) {
    linkUp();
    const auto guard = std::make_shared<std::atomic<int>>(0);
    daemon()->pingWithReply([guard](bool) { ++*guard; });
    daemon()->loggedUser([guard](const std::string&) { ++*guard; });
    daemon()->upTime([guard](const XpcNumber&) { ++*guard; });
    for (const char* question : {"pingWithReply", "loggedUser", "upTime"}) {
        bus.answerWithError(bus.awaitQuestion(question), "org.freedesktop.DBus.Error.Failed");
    }
    EXPECT_TRUE(await([&] { return guard.use_count() == 1; })) << "what the blocks held is let go";
    EXPECT_EQ(*guard, 0);
}

TEST_F(ConnectionOnAScriptedBus, AnswersThatAreNeverGivenAreAwaitedAHundredAtATime) {
    linkUp();
    for (int i = 0; i < 150; ++i) {
        daemon()->pingWithReply([](bool) {});
    }
    const std::size_t first = bus.awaitQuestion("pingWithReply");
    bus.awaitQuestion("pingWithReply", 100);
    bus.answer(first, "b", 1);
    // Answers come in order, so this one says that the first has been seen.
    bus.call(":1.5", "connected", "b", 1);
    ASSERT_TRUE(awaitReplies(1));
    daemon()->pingWithReply([](bool) {});
    bus.awaitQuestion("pingWithReply", 101);
    daemon()->onTimeZoneChanged();
    bus.awaitQuestion("onTimeZoneChanged");
    EXPECT_EQ(bus.count("pingWithReply"), 101U);
}

TEST_F(ConnectionOnAScriptedBus, BlocksAreDestroyedAtALossWhileHandlersSend) {
    std::atomic<bool> end{false};
    std::atomic<bool> sending{false};
    agent->onConnected = [&] {
        std::thread([&] {
            while (!end) {
                daemon()->pingWithReply([](bool) {});
                sending = true;
            }
        }).join();
    };
    linkUp();
    const auto guard = std::make_shared<int>(0);
    daemon()->loggedUser([guard, proxy = daemon()](const std::string&) {});
    bus.awaitQuestion("loggedUser");
    bus.call(":1.5", "connected", "b", 1);
    ASSERT_TRUE(await([&] { return sending.load(); }));
    bus.nameOwnerChanged(daemonName, ":1.5", "");
    end = true;
    EXPECT_TRUE(await([&] { return guard.use_count() == 1 && losses->interruptions == 1; }));
}

TEST_F(ConnectionOnAScriptedBus, NoCallIsDeliveredAfterTheLossAndNoneOnceItIsReleased) {
    linkUp();
    bus.call(":1.5", "logLevel", "x", std::int64_t{1});
    bus.nameOwnerChanged(daemonName, ":1.5", ":1.6");
    bus.call(":1.5", "logLevel", "x", std::int64_t{2});
    bus.call(":1.6", "logLevel", "x", std::int64_t{3});
    ASSERT_TRUE(await([&] { return losses->interruptions == 1; }));
    EXPECT_EQ(agent->calls(), std::vector<std::string>{"logLevel:1"});
}

TEST_F(ConnectionOnAScriptedBus, TheLossKeepsItsDistanceFromTheLastCall) {
    linkUp();
    agent->onConnected = [this] { lastCall = now(); };
    connection->setInterruptionHandler([this] { lossAfterCall = now() - lastCall; });
    bus.call(":1.5", "connected", "b", 1);
    bus.nameOwnerChanged(daemonName, ":1.5", "");
    ASSERT_TRUE(await([&] { return lossAfterCall >= 0; }));
    EXPECT_GE(std::chrono::nanoseconds(lossAfterCall), platform::LossPacing::distanceToCalls);
}

TEST_F(ConnectionOnAScriptedBus, TheLossKeepsItsDistanceFromTheLastAnswerToo) {
    linkUp();
    connection->setInterruptionHandler([this] { lossAfterCall = now() - lastCall; });
    daemon()->pingWithReply([this](bool) { lastCall = now(); });
    bus.answer(bus.awaitQuestion("pingWithReply"), "b", 1);
    bus.nameOwnerChanged(daemonName, ":1.5", "");
    ASSERT_TRUE(await([&] { return lossAfterCall >= 0; }));
    EXPECT_GE(std::chrono::nanoseconds(lossAfterCall), platform::LossPacing::distanceToCalls);
}

TEST_F(ConnectionOnAScriptedBus, NoAnswerIsDeliveredOnceItIsReleased) {
    std::atomic<bool> released{false};
    agent->onConnected = [&] {
        connection.reset();
        released = true;
    };
    linkUp();
    const auto answers = std::make_shared<std::atomic<int>>(0);
    for (int i = 0; i < 50; ++i) {
        daemon()->pingWithReply([answers](bool) { ++*answers; });
    }
    const std::size_t last = bus.awaitQuestion("pingWithReply", 50);
    bus.call(":1.5", "connected", "b", 1);
    for (std::size_t place = bus.awaitQuestion("pingWithReply"); place <= last; ++place) {
        bus.answer(place, "b", 1);
    }
    ASSERT_TRUE(await([&] { return released.load(); }));
    EXPECT_TRUE(await([&] { return answers.use_count() == 1; })) << "the blocks are let go";
    EXPECT_EQ(*answers, 0);
}

TEST_F(ConnectionOnAScriptedBus, WhatHandlersHoldIsLetGoWhenItIsReleasedWhileItsProxyLives) {
    linkUp();
    const auto proxy = daemon();
    connection.reset();
    EXPECT_EQ(losses.use_count(), 1);
}

TEST_F(ConnectionOnAScriptedBus, AStrangerIsDeniedWhateverHeCalls) {
    linkUp();
    bus.call(":1.9", "connected", "b", 1);
    bus.call(":1.9", "connected", "s", "yes");
    bus.call(":1.9", "nonsense", "");
    bus.callOther(":1.9", "/nowhere", "com.example.Other", "Nonsense");
    bus.callOther(":1.9", agentPath, "org.freedesktop.DBus.Properties", "GetAll");
    bus.callOther(":1.9", agentPath, "org.freedesktop.DBus.Peer", "Ping");
    ASSERT_TRUE(awaitReplies(6));
    EXPECT_EQ(bus.replies(), std::vector<std::string>(6, accessDenied));
    EXPECT_TRUE(agent->calls().empty());
}

TEST_F(ConnectionOnAScriptedBus, OnlyRootMayIntrospect) {
    linkUp();
    bus.callOther(":1.8", agentPath, introspectable, "Introspect");
    bus.answer(bus.awaitQuestion(askUser(":1.8")), "u", stranger);
    ASSERT_TRUE(awaitReplies(1));
    EXPECT_EQ(bus.replies().back(), accessDenied);
    // One whose user the bus told too late is denied and asks again.
    std::size_t replies = 0;
    ASSERT_TRUE(await([&] {
        if (bus.replies().size() > replies) {
            replies = bus.replies().size();
            bus.callOther(":1.9", agentPath, introspectable, "Introspect");
        }
        bus.answerAll(askUser(":1.9"), "u", 0U);
        return bus.replies().back().empty();
    })) << "described";
    replies = bus.replies().size();
    bus.callOther(":1.7", agentPath, introspectable, "Introspect");
    bus.answerWithError(bus.awaitQuestion(askUser(":1.7")), limitsExceeded);
    ASSERT_TRUE(awaitReplies(replies + 1));
    EXPECT_EQ(bus.replies().back(), accessDenied) << "where the bus cannot tell who he is";
}

TEST_F(ConnectionOnAScriptedBus, StrangersHaveTheBusAskedAboutNoMoreThanSixteenOfThemAtATime) {
    linkUp();
    for (int i = 0; i < 17; ++i) {
        bus.callOther(":1.8", agentPath, introspectable, "Introspect");
    }
    ASSERT_TRUE(awaitReplies(1));
    EXPECT_EQ(bus.replies().back(), accessDenied);
    bus.answer(bus.awaitQuestion(askUser(":1.8"), 16), "u", 0U);
    ASSERT_TRUE(awaitReplies(2));
    EXPECT_EQ(bus.count(askUser(":1.8")), 16U);
    bus.callOther(":1.8", agentPath, introspectable, "Introspect");
    bus.awaitQuestion(askUser(":1.8"), 17);
}

TEST_F(ConnectionOnAScriptedBus, AStrangerWhoTakesNoRefusalsGetsNoMoreOfThem) {
    linkUp();
    // Far more than the sockets have room for: some twenty thousand each way.
    constexpr std::size_t calls = 120000;
    for (std::size_t i = 0; i < calls; ++i) {
        bus.call(":1.9", "connected", "b", 1);
    }
    bus.flush();
    bus.call(":1.5", "connected", "b", 1);
    ASSERT_TRUE(await([&] { return agent->calls().size() == 1; })) << "all calls have been seen";
    daemon()->onTimeZoneChanged();
    bus.awaitQuestion("onTimeZoneChanged");  // Behind all that was said before.
    EXPECT_LT(bus.replies().size(), calls / 4 * 3);
    EXPECT_GE(bus.replies().size(), 1024U);
    EXPECT_EQ(losses->all(), 0);
}

}  // namespace
