#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <future>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "link/support/Await.h"
#include "link/support/BusPeer.h"
#include "link/support/Losses.h"
#include "link/support/PrivateBus.h"
#include "platform/LossPacing.h"
#include "platform/XpcConnection.h"
#include "platform/linux/link/WireNames.h"
#include "support/RecordingAgent.h"
#include "support/ScarceThreads.h"

// What a connection promises its users, on a real bus, with the daemon played by the test.

namespace {

using link_tests::await;
using link_tests::BusPeer;
using link_tests::BusTarget;
using link_tests::Losses;
using link_tests::MessageHandle;
using link_tests::PrivateBus;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr uid_t nobody = 65534;
constexpr const char* unknownMethod = "org.freedesktop.DBus.Error.UnknownMethod";

/// The first loss of a process comes a second after its launch at the earliest.
constexpr milliseconds pastTheFirstLoss{1500};

class Connection : public testing::Test {
protected:
    Connection() { setenv("DBUS_SYSTEM_BUS_ADDRESS", bus.address().c_str(), 1); }

    std::shared_ptr<platform::IXpcConnection> newConnection() {
        auto connection =
            platform::createXpcConnection("com.brovik.velmdaemon", platform::xpcConnectionPrivileged);
        connection->setRemoteObjectInterface(xpcDaemonProtocol);
        connection->setExportedInterface(xpcAgentProtocol);
        connection->setExportedObject(agent);
        connection->setInterruptionHandler([losses = losses] { ++losses->interruptions; });
        connection->setInvalidationHandler([losses = losses] { ++losses->invalidations; });
        return connection;
    }

    std::shared_ptr<platform::IXpcConnection> resumed() {
        auto connection = newConnection();
        connection->resume();
        return connection;
    }

    std::unique_ptr<BusPeer> newDaemon(uid_t user = 0) {
        auto daemon = std::make_unique<BusPeer>(bus.address(), user);
        EXPECT_EQ(daemon->requestName("com.brovik.velmdaemon"), 1U);
        return daemon;
    }

    /// Has the connection send, and returns where the daemon reaches the agent. The connection must be new or
    /// know the daemon: what it sends while it knows of none is lost.
    BusTarget linkUp(platform::IXpcConnection& connection, BusPeer& daemon) {
        const std::size_t before = daemon.calls().size();
        connection.remoteObjectProxy()->connect();
        const bool arrived = await([&] { return daemon.calls().size() > before; });
        EXPECT_TRUE(arrived);
        return agentAt(arrived ? daemon.calls().back().sender : "");
    }

    /// The name of this process's other connection, which no message need have come from.
    std::string nameOfAgent(BusPeer& observer) {
        std::string name;
        EXPECT_TRUE(await([&] {
            for (const std::string& candidate : observer.namesOf(getpid())) {
                if (candidate != observer.uniqueName()) {
                    name = candidate;
                }
            }
            return !name.empty();
        }));
        return name;
    }

    static BusTarget agentAt(const std::string& name) {
        return {name, platform::dbus::agentObjectPath, platform::dbus::interfaceName(xpcAgentProtocol)};
    }

    PrivateBus bus;
    std::shared_ptr<RecordingAgent> agent = std::make_shared<RecordingAgent>();
    std::shared_ptr<Losses> losses = std::make_shared<Losses>();
};

class ConnectionOnABus : public Connection {
protected:
    ConnectionOnABus() { bus.start(); }

    /// Until the bus has told the connection who the daemon is, it is denied everything, as everybody is.
    static void awaitKnown(BusPeer& daemon, const BusTarget& target) {
        ASSERT_TRUE(await([&] { return daemon.call(target, "nonsense", "").error == unknownMethod; }));
    }

    static constexpr std::size_t mebibyte = 1UL << 20U;

    static MessageHandle newPutMessage(BusPeer& daemon, const BusTarget& target, std::size_t size) {
        const std::vector<char> bytes(size, 'x');
        MessageHandle message = daemon.newCall(target, "putMessage");
        EXPECT_GE(sd_bus_message_append_array(message.get(), 'y', bytes.data(), bytes.size()), 0);
        return message;
    }

    /// As many calls with a mebibyte each: larger ones keep the address sanitizer's allocator busy for long.
    static void sendMebibytes(int calls, BusPeer& daemon, const BusTarget& target) {
        for (int i = 0; i < calls; ++i) {
            daemon.send(newPutMessage(daemon, target, mebibyte));
        }
    }
};

std::vector<std::string> textsOf(const BusPeer& peer) {
    std::vector<std::string> texts;
    for (const auto& call : peer.calls()) {
        texts.push_back(call.text);
    }
    return texts;
}

std::size_t residentBytes() {
    std::ifstream statm("/proc/self/statm");
    std::size_t size = 0;
    std::size_t resident = 0;
    statm >> size >> resident;
    return resident * static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
}

TEST_F(ConnectionOnABus, CarriesEachCallOfTheAgentToTheDaemon) {
    auto daemon = newDaemon();
    auto connection = resumed();
    auto proxy = connection->remoteObjectProxy();
    proxy->connect();
    proxy->putMessage({"\x01\x00\x02", 3});
    proxy->putMessage({});
    proxy->onScreenLocked(true);
    proxy->onScreenLocked(false);
    proxy->onTimeZoneChanged();
    proxy->requestForNetworkReachability();
    proxy->requestForInitRmm();
    proxy->requestForLogLevel(-7);
    proxy->requestForRmmMonitors();
    ASSERT_TRUE(await([&] { return daemon->calls().size() == 10; }));
    EXPECT_EQ(textsOf(*daemon),
              (std::vector<std::string>{"connect", "putMessage <3 bytes>", "putMessage <0 bytes>",
                                        "onScreenLocked true", "onScreenLocked false", "onTimeZoneChanged",
                                        "requestForNetworkReachability", "requestForInitRmm",
                                        "requestForLogLevel -7", "requestForRmmMonitors"}));
    for (const auto& call : daemon->calls()) {
        EXPECT_EQ(call.path, "/com/brovik/velmdaemon");
        EXPECT_EQ(call.interface, "com.brovik.XpcDaemonProtocol");
        EXPECT_FALSE(call.expectsReply) << call.text;
    }
}

TEST_F(ConnectionOnABus, CarriesEachCallOfTheDaemonToTheExportedObjectInOrder) {
    auto daemon = newDaemon();
    auto connection = resumed();
    const BusTarget target = linkUp(*connection, *daemon);
    daemon->send(target, "connected", "b", 1);
    daemon->send(target, "connected", "b", 0);
    daemon->send(target, "putMessage", "ay", 3, 1, 2, 3);
    daemon->send(target, "putMessage", "ay", 0);
    daemon->send(target, "initRmmMessage", "sssss", "a", "b", "c", "d", "e");
    daemon->send(target, "networkReachability", "b", 1);
    daemon->send(target, "logLevel", "x", std::int64_t{-9});
    ASSERT_TRUE(await([&] { return agent->calls().size() == 7; }));
    EXPECT_EQ(agent->calls(), (std::vector<std::string>{"connected:1", "connected:0", "putMessage:\1\2\3",
                                                        "putMessage:", "initRmmMessage:a|b|c|d|e",
                                                        "networkReachability:1", "logLevel:-9"}));
}

TEST_F(ConnectionOnABus, DeliversEverythingOnOneThreadThatIsNotTheCallers) {
    auto daemon = newDaemon();
    auto connection = newConnection();
    std::promise<std::thread::id> interruptionThread;
    connection->setInterruptionHandler([&] { interruptionThread.set_value(std::this_thread::get_id()); });
    connection->resume();
    const BusTarget target = linkUp(*connection, *daemon);
    for (int i = 0; i < 50; ++i) {
        daemon->send(target, "logLevel", "x", std::int64_t{i});
    }
    ASSERT_TRUE(await([&] { return agent->calls().size() == 50; }));
    daemon->disconnect();
    const std::thread::id thread = interruptionThread.get_future().get();
    EXPECT_NE(thread, std::this_thread::get_id());
    for (const std::thread::id id : agent->threads()) {
        EXPECT_EQ(id, thread);
    }
}

TEST_F(ConnectionOnABus, AnswersTheDaemonsCallWhenAnAnswerIsAskedFor) {
    auto daemon = newDaemon();
    auto connection = resumed();
    const BusTarget target = linkUp(*connection, *daemon);
    EXPECT_TRUE(daemon->call(target, "connected", "b", 1).ok());
    EXPECT_EQ(daemon->call(target, "connected", "s", "yes").error, "org.freedesktop.DBus.Error.InvalidArgs");
    EXPECT_EQ(daemon->call(target, "nonsense", "").error, unknownMethod);
    EXPECT_EQ(daemon->call(target, "rmmMessage", "ay", 0).error, unknownMethod);
    // The answer says that the call was taken; it is delivered after that.
    EXPECT_TRUE(await([&] { return !agent->calls().empty(); }));
    EXPECT_EQ(agent->calls(), std::vector<std::string>{"connected:1"});
}

TEST_F(ConnectionOnABus, RefusesWhoeverIsNotTheDaemon) {
    auto daemon = newDaemon();
    auto connection = resumed();
    const BusTarget target = linkUp(*connection, *daemon);
    BusPeer intruder(bus.address(), nobody);
    BusPeer otherRoot(bus.address(), 0);
    for (BusPeer* stranger : {&intruder, &otherRoot}) {
        EXPECT_EQ(stranger->call(target, "connected", "b", 1).error,
                  "org.freedesktop.DBus.Error.AccessDenied");
    }
    EXPECT_TRUE(daemon->call(target, "logLevel", "x", std::int64_t{3}).ok());
    EXPECT_TRUE(await([&] { return !agent->calls().empty(); }));
    EXPECT_EQ(agent->calls(), std::vector<std::string>{"logLevel:3"});
}

TEST_F(ConnectionOnABus, RefusesADaemonThatRunsAsAnotherUserAndTellsItNothing) {
    auto daemon = newDaemon(nobody);
    auto connection = resumed();
    const BusTarget target = agentAt(nameOfAgent(*daemon));
    connection->remoteObjectProxy()->connect();
    connection->remoteObjectProxy()->onScreenLocked(true);
    EXPECT_EQ(daemon->call(target, "connected", "b", 1).error, "org.freedesktop.DBus.Error.AccessDenied");
    // It is asked for again with each message; an answer has come by then.
    connection->remoteObjectProxy()->onScreenLocked(false);
    EXPECT_EQ(daemon->call(target, "connected", "b", 1).error, "org.freedesktop.DBus.Error.AccessDenied");
    EXPECT_TRUE(agent->calls().empty());
    EXPECT_TRUE(daemon->calls().empty());
}

TEST_F(ConnectionOnABus, HoldsCallsUntilItHasSentSomething) {
    auto daemon = newDaemon();
    auto connection = resumed();
    const BusTarget target = agentAt(nameOfAgent(*daemon));
    awaitKnown(*daemon, target);
    daemon->send(target, "connected", "b", 1);
    daemon->send(target, "logLevel", "x", std::int64_t{1});
    // The refusal comes in its turn, so those before it were seen.
    EXPECT_EQ(daemon->call(target, "nonsense", "").error, unknownMethod);
    EXPECT_EQ(agent->calls(), std::vector<std::string>{});
    connection->remoteObjectProxy()->connect();
    daemon->send(target, "logLevel", "x", std::int64_t{2});
    ASSERT_TRUE(await([&] { return agent->calls().size() == 3; }));
    EXPECT_EQ(agent->calls(), (std::vector<std::string>{"connected:1", "logLevel:1", "logLevel:2"}));
}

TEST_F(ConnectionOnABus, HoldsNoMoreCallsThanADaemonInAHurryMakes) {
    auto daemon = newDaemon();
    auto connection = resumed();
    const BusTarget target = agentAt(nameOfAgent(*daemon));
    awaitKnown(*daemon, target);
    for (int i = 0; i < 128; ++i) {
        daemon->send(target, "logLevel", "x", std::int64_t{i});
    }
    EXPECT_EQ(daemon->call(target, "connected", "b", 1).error, "org.freedesktop.DBus.Error.LimitsExceeded");
    connection->remoteObjectProxy()->connect();
    EXPECT_TRUE(await([&] { return agent->calls().size() == 128; }));
    EXPECT_TRUE(daemon->call(target, "connected", "b", 1).ok());
}

TEST_F(ConnectionOnABus, HoldsNoMoreBytesThanTwoLargeCallsHave) {
    auto daemon = newDaemon();
    auto connection = resumed();
    const BusTarget target = agentAt(nameOfAgent(*daemon));
    awaitKnown(*daemon, target);
    sendMebibytes(63, *daemon, target);
    const MessageHandle twoMore = newPutMessage(*daemon, target, 2 * mebibyte);
    EXPECT_EQ(daemon->call(twoMore).error, "org.freedesktop.DBus.Error.LimitsExceeded");
    connection->remoteObjectProxy()->connect();
    EXPECT_TRUE(await([&] { return agent->calls().size() == 63; }));
}

TEST_F(ConnectionOnABus, HasRoomForTheCallsOfTheNextDaemonInAHurry) {
    auto daemon = newDaemon();
    auto connection = resumed();
    const BusTarget target = agentAt(nameOfAgent(*daemon));
    const auto fill = [&] {
        awaitKnown(*daemon, target);
        sendMebibytes(63, *daemon, target);
        // The refusal comes in its turn, so those before it were seen.
        EXPECT_EQ(daemon->call(target, "nonsense", "").error, unknownMethod);
    };
    fill();
    daemon->disconnect();
    daemon = newDaemon();
    fill();
    connection->remoteObjectProxy()->connect();
    EXPECT_TRUE(await([&] { return agent->calls().size() == 63; }));
}

TEST_F(ConnectionOnABus, KeepsCallsThatComeBeforeTheBusSaidWhoRunsTheDaemon) {
    auto connection = resumed();
    connection->remoteObjectProxy()->connect();
    BusPeer daemon(bus.address(), 0);
    const BusTarget target = agentAt(nameOfAgent(daemon));
    // The refusal comes in its turn, so the bus has been told to report changes of the name.
    EXPECT_EQ(daemon.call(target, "connected", "b", 1).error, "org.freedesktop.DBus.Error.AccessDenied");
    // In one go, so that the bus passes the call on before it can answer the agent's question about its
    // sender.
    daemon.send(link_tests::busDriver, "RequestName", "su", "com.brovik.velmdaemon", 0U);
    daemon.send(target, "logLevel", "x", std::int64_t{1});
    daemon.send(target, "logLevel", "x", std::int64_t{2});
    ASSERT_TRUE(await([&] { return agent->calls().size() == 2; }));
    EXPECT_EQ(agent->calls(), (std::vector<std::string>{"logLevel:1", "logLevel:2"}));
}

TEST_F(ConnectionOnABus, DeniesCallsThatCameBeforeTheBusSaidThatAStrangerRunsTheDaemon) {
    auto connection = resumed();
    BusPeer daemon(bus.address(), nobody);
    const BusTarget target = agentAt(nameOfAgent(daemon));
    daemon.send(link_tests::busDriver, "RequestName", "su", "com.brovik.velmdaemon", 0U);
    EXPECT_EQ(daemon.call(target, "logLevel", "x", std::int64_t{1}).error,
              "org.freedesktop.DBus.Error.AccessDenied");
    EXPECT_TRUE(agent->calls().empty());
}

TEST_F(ConnectionOnABus, ReportsAnInterruptionWhenTheDaemonGoes) {
    auto daemon = newDaemon();
    auto connection = resumed();
    linkUp(*connection, *daemon);
    daemon->disconnect();
    ASSERT_TRUE(await([&] { return losses->all() > 0; }));
    EXPECT_EQ(losses->interruptions, 1);
    EXPECT_EQ(losses->invalidations, 0);
}

TEST_F(ConnectionOnABus, ReportsAnInterruptionWhenAnotherTakesTheDaemonsPlace) {
    BusPeer first(bus.address(), 0);
    constexpr std::uint32_t allowReplacement = 1;
    constexpr std::uint32_t replace = 2;
    ASSERT_EQ(first.requestName("com.brovik.velmdaemon", allowReplacement), 1U);
    auto connection = resumed();
    linkUp(*connection, first);
    BusPeer second(bus.address(), 0);
    ASSERT_EQ(second.requestName("com.brovik.velmdaemon", replace), 1U);
    ASSERT_TRUE(await([&] { return losses->all() > 0; }));
    EXPECT_EQ(losses->interruptions, 1);
}

TEST_F(ConnectionOnABus, AfterAnInterruptionReportsNoInvalidation) {
    auto daemon = newDaemon();
    auto connection = resumed();
    const BusTarget target = linkUp(*connection, *daemon);
    daemon->disconnect();
    ASSERT_TRUE(await([&] { return losses->interruptions == 1; }));
    connection->remoteObjectProxy()->connect();
    BusPeer observer(bus.address(), 0);
    ASSERT_TRUE(await([&] { return !observer.nameHasOwner(target.destination); }));
    observer.disconnect();
    bus.stop();
    connection->remoteObjectProxy()->connect();
    link_tests::pumpFor(milliseconds(1500));
    EXPECT_EQ(losses->interruptions, 1);
    EXPECT_EQ(losses->invalidations, 0);
}

TEST_F(ConnectionOnABus, ReportsAnInvalidationOnceWhenTheBusIsLost) {
    auto daemon = newDaemon();
    auto connection = resumed();
    linkUp(*connection, *daemon);
    daemon->disconnect();
    ASSERT_TRUE(await([&] { return losses->interruptions == 1; }));
    // There before the connection is: what is sent to a daemon of whom it has not yet heard is lost.
    auto nextDaemon = newDaemon();
    auto next = resumed();
    linkUp(*next, *nextDaemon);
    nextDaemon->disconnect();
    bus.stop();
    ASSERT_TRUE(await([&] { return losses->all() == 2; }));
    link_tests::pumpFor(milliseconds(1500));
    EXPECT_EQ(losses->all(), 2);
}

TEST_F(ConnectionOnABus, ReleasingItCallsNoHandler) {
    auto daemon = newDaemon();
    auto connection = resumed();
    const BusTarget target = linkUp(*connection, *daemon);
    const auto proxy = connection->remoteObjectProxy();
    connection.reset();
    EXPECT_EQ(agent.use_count(), 1) << "the exported object is let go, though the proxy is not";
    ASSERT_TRUE(await([&] { return !daemon->nameHasOwner(target.destination); }));
    EXPECT_EQ(losses->all(), 0);
}

TEST_F(ConnectionOnABus, KeepsItsExportedObjectAlive) {
    std::weak_ptr<RecordingAgent> watch = agent;
    auto connection = resumed();
    agent.reset();
    EXPECT_FALSE(watch.expired());
    connection.reset();
    EXPECT_TRUE(await([&] { return watch.expired(); }));
}

TEST_F(ConnectionOnABus, AnOwnerThatLeavesBeforeAnythingWasSentIsNoLoss) {
    auto first = newDaemon();
    auto connection = resumed();
    const BusTarget target = agentAt(nameOfAgent(*first));
    awaitKnown(*first, target);
    BusPeer observer(bus.address(), 0);
    first->disconnect();
    ASSERT_TRUE(await([&] { return !observer.nameHasOwner("com.brovik.velmdaemon"); }));
    // Refused in its turn, so the connection has seen the daemon go: what it sends before that makes it a
    // loss.
    EXPECT_FALSE(observer.call(target, "connected", "b", 1).ok());
    auto second = newDaemon();
    awaitKnown(*second, target);
    linkUp(*connection, *second);
    EXPECT_EQ(losses->all(), 0);
    second->disconnect();
    EXPECT_TRUE(await([&] { return losses->interruptions == 1; }));
}

TEST_F(Connection, ResumingWithoutABusReportsNothingUntilAMessageIsSent) {
    auto connection = resumed();
    link_tests::pumpFor(pastTheFirstLoss);
    EXPECT_EQ(losses->all(), 0);
    connection->remoteObjectProxy()->onTimeZoneChanged();
    ASSERT_TRUE(await([&] { return losses->all() > 0; }));
    EXPECT_EQ(losses->invalidations, 1);
}

TEST_F(Connection, LossesAreNeverReportedTwiceWithinASecond) {
    using platform::LossPacing;
    const auto start = steady_clock::now();
    // The first one has a distance to keep too, whatever was reported in this process before.
    LossPacing::instance().callDelivered(start);
    for (int report = 1; report <= 3; ++report) {
        auto connection = resumed();
        connection->remoteObjectProxy()->connect();
        ASSERT_TRUE(await([&] { return losses->invalidations == report; }));
    }
    // From the start: a handler that begins late brings two reports closer, but none before its time.
    EXPECT_GE(steady_clock::now() - start, LossPacing::distanceToCalls + 2 * LossPacing::interval);
}

TEST_F(Connection, MessagesBeforeResumeAreLostQuietly) {
    bus.start();
    auto daemon = newDaemon();
    auto connection = newConnection();
    connection->remoteObjectProxy()->onScreenLocked(true);
    connection->resume();
    connection->remoteObjectProxy()->onScreenLocked(false);
    ASSERT_TRUE(await([&] { return !daemon->calls().empty(); }));
    EXPECT_EQ(textsOf(*daemon), std::vector<std::string>{"onScreenLocked false"});
}

TEST_F(Connection, MessagesBeforeResumeDoNotMakeALossShow) {
    auto connection = newConnection();
    connection->remoteObjectProxy()->connect();
    connection->resume();
    link_tests::pumpFor(pastTheFirstLoss);
    EXPECT_EQ(losses->all(), 0);
}

TEST_F(ConnectionOnABus, ResumedWithoutAThreadItStartsWithItsNextMessage) {
    auto daemon = newDaemon();
    auto connection = newConnection();
    {
        const fake::ScarceThreads scarce;
        connection->resume();
        connection->remoteObjectProxy()->onScreenLocked(true);
    }
    connection->remoteObjectProxy()->onScreenLocked(false);
    ASSERT_TRUE(await([&] { return daemon->calls().size() == 2; }));
    EXPECT_EQ(textsOf(*daemon), (std::vector<std::string>{"onScreenLocked true", "onScreenLocked false"}));
}

TEST_F(ConnectionOnABus, MadeWithoutADescriptorLeftItIsLostOnceItSends) {
    auto daemon = newDaemon();
    rlimit before{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    const rlimit none{0, before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    auto connection = newConnection();
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
    connection->resume();
    // What is said to a link that nothing wakes would otherwise wait for ever.
    link_tests::pumpFor(pastTheFirstLoss);
    EXPECT_EQ(losses->all(), 0);
    connection->remoteObjectProxy()->connect();
    ASSERT_TRUE(await([&] { return losses->invalidations == 1; }));
    linkUp(*resumed(), *daemon);
}

TEST_F(ConnectionOnABus, WhatWasSentRightBeforeItsReleaseStillGoesOut) {
    auto daemon = newDaemon();
    for (int round = 0; round < 20; ++round) {
        auto connection = resumed();
        linkUp(*connection, *daemon);
        const std::size_t before = daemon->calls().size();
        connection->remoteObjectProxy()->onScreenLocked(true);
        connection.reset();
        ASSERT_TRUE(await([&] { return daemon->calls().size() > before; }));
        EXPECT_EQ(daemon->calls().back().text, "onScreenLocked true");
    }
}

TEST_F(ConnectionOnABus, AProxyMayOutliveItsConnection) {
    auto daemon = newDaemon();
    auto connection = resumed();
    const BusTarget target = linkUp(*connection, *daemon);
    auto proxy = connection->remoteObjectProxy();
    connection.reset();
    proxy->onScreenLocked(true);
    proxy->pingWithReply([](bool) {});
    ASSERT_TRUE(await([&] { return !daemon->nameHasOwner(target.destination); }));
    EXPECT_EQ(textsOf(*daemon), std::vector<std::string>{"connect"});
}

TEST_F(ConnectionOnABus, AHandlerMayWaitForAThreadThatIsSending) {
    auto daemon = newDaemon();
    auto connection = newConnection();
    auto proxy = connection->remoteObjectProxy();
    agent->onConnected = [&] {
        std::thread([&] {
            for (int i = 0; i < 1000; ++i) {
                proxy->onTimeZoneChanged();
            }
        }).join();
    };
    connection->resume();
    const BusTarget target = linkUp(*connection, *daemon);
    daemon->send(target, "connected", "b", 1);
    EXPECT_TRUE(await([&] { return daemon->calls().size() == 1001; }));
}

TEST_F(ConnectionOnABus, AHandlerMayReleaseTheConnection) {
    auto daemon = newDaemon();
    auto connection = newConnection();
    std::promise<void> released;
    connection->setInterruptionHandler([&] {
        connection.reset();
        released.set_value();
    });
    connection->resume();
    linkUp(*connection, *daemon);
    daemon->disconnect();
    released.get_future().wait();
}

TEST_F(ConnectionOnABus, AHandlerMayClearOrReplaceItself) {
    auto daemon = newDaemon();
    auto connection = newConnection();
    std::promise<void> called;
    connection->setInterruptionHandler([&, token = std::make_shared<int>(7)] {
        connection->setInterruptionHandler(nullptr);
        connection->setInterruptionHandler([] {});
        EXPECT_EQ(*token, 7) << "the running handler is still whole";
        called.set_value();
    });
    connection->resume();
    linkUp(*connection, *daemon);
    daemon->disconnect();
    called.get_future().wait();
}

TEST_F(ConnectionOnABus, AClearedHandlerIsNotCalled) {
    auto daemon = newDaemon();
    auto connection = resumed();
    const BusTarget target = linkUp(*connection, *daemon);
    connection->setInterruptionHandler(nullptr);
    BusPeer observer(bus.address(), 0);
    daemon->disconnect();
    ASSERT_TRUE(await([&] { return !observer.nameHasOwner(target.destination); }));
    EXPECT_EQ(losses->all(), 0);
}

TEST_F(ConnectionOnABus, SendingIsSafeFromManyThreads) {
    auto daemon = newDaemon();
    auto connection = resumed();
    std::vector<std::thread> threads;
    threads.reserve(4);
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] {
            for (int n = 0; n < 250; ++n) {
                connection->remoteObjectProxy()->onTimeZoneChanged();
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_TRUE(await([&] { return daemon->calls().size() == 1000; }));
}

TEST_F(ConnectionOnABus, CarriesTwentyMebibytesBothWays) {
    auto daemon = newDaemon();
    auto connection = resumed();
    const BusTarget target = linkUp(*connection, *daemon);
    const std::vector<char> bytes(20 * mebibyte, 'x');
    connection->remoteObjectProxy()->putMessage({bytes.data(), bytes.size()});
    ASSERT_TRUE(await([&] { return daemon->calls().size() == 2; }));
    EXPECT_EQ(daemon->calls().back().text, "putMessage <20971520 bytes>");
    daemon->send(newPutMessage(*daemon, target, 20 * mebibyte));
    ASSERT_TRUE(await([&] { return agent->calls().size() == 1; }));
    EXPECT_EQ(agent->calls().front().size(), std::string("putMessage:").size() + 20971520);
}

TEST_F(ConnectionOnABus, DropsAMessageThatIsLargerThanTheBusCarries) {
    auto daemon = newDaemon();
    auto connection = resumed();
    linkUp(*connection, *daemon);
    const std::vector<char> bytes(32 * mebibyte, 'x');
    connection->remoteObjectProxy()->putMessage({bytes.data(), bytes.size()});
    connection->remoteObjectProxy()->onTimeZoneChanged();
    ASSERT_TRUE(await([&] { return daemon->calls().size() == 2; }));
    EXPECT_EQ(daemon->calls().back().text, "onTimeZoneChanged");
    EXPECT_EQ(losses->all(), 0);
}

TEST_F(ConnectionOnABus, ABusThatDoesNotReadCostsBoundedMemoryAndNoTime) {
    auto daemon = newDaemon();
    auto connection = resumed();
    linkUp(*connection, *daemon);
    bus.freeze();
    const std::vector<char> bytes(mebibyte, 'x');
    const std::size_t before = residentBytes();
    for (int i = 0; i < 512; ++i) {
        connection->remoteObjectProxy()->putMessage({bytes.data(), bytes.size()});
        // Time for the link to take it up, which it must not do for ever.
        std::this_thread::sleep_for(milliseconds(4));
    }
    EXPECT_LT(residentBytes() - before, VELM_MEMORY_FACTOR * (256 * mebibyte));
    bus.thaw();
    ASSERT_TRUE(await([&] { return daemon->calls().size() > 30; }));
    ASSERT_TRUE(await([&] {
        connection->remoteObjectProxy()->onTimeZoneChanged();
        return daemon->calls().back().text == "onTimeZoneChanged";
    })) << "the link takes messages again";
    EXPECT_EQ(losses->all(), 0);
}

TEST_F(ConnectionOnABus, HandsAnAnswerToItsReplyBlock) {
    auto daemon = newDaemon();
    auto connection = resumed();
    std::promise<bool> pinged;
    connection->remoteObjectProxy()->pingWithReply([&](bool ready) { pinged.set_value(ready); });
    ASSERT_TRUE(await([&] { return !daemon->calls().empty(); }));
    EXPECT_TRUE(daemon->calls().back().expectsReply);
}

}  // namespace
