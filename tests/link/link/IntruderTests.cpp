#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "link/support/Await.h"
#include "link/support/LinkTest.h"

namespace link_tests {
namespace {

constexpr const char* accessDenied = "org.freedesktop.DBus.Error.AccessDenied";

class LinkIntruder : public LinkTest {
protected:
    void expectAllCallsRefused(BusPeer& caller, const BusTarget& target) {
        EXPECT_EQ(caller.call(target, "connected", "b", 1).error, accessDenied);
        EXPECT_EQ(caller.call(target, "putMessage", "ay", 1, 65).error, accessDenied);
        EXPECT_EQ(caller.call(target, "logLevel", "x", std::int64_t{1}).error, accessDenied);
        EXPECT_EQ(caller.call(target, "networkReachability", "b", 1).error, accessDenied);
        EXPECT_EQ(caller.call(target, "initRmmMessage", "sssss", "", "", "", "", "").error, accessDenied);
        caller.send(target, "connected", "b", 1);
        caller.call(busDriver, "GetId", "");
    }

    /// The lines that the agent wrote before one that the daemon causes now.
    Messages linesBeforeTheDaemons(std::size_t mark) {
        EXPECT_TRUE(daemon->call("logLevel", "x", std::int64_t{99}).ok());
        EXPECT_TRUE(agent->log().await("xpc service: received log level: 99", mark));
        Messages lines = agent->log().messages(mark);
        EXPECT_FALSE(lines.empty());
        lines.pop_back();
        return lines;
    }

    /// The agent's connection that carries the link, whether or not there is a daemon: root finds it by
    /// looking. A new one is on the bus some time after the agent has said that it makes one.
    std::string agentsName() {
        EXPECT_TRUE(agent->log().awaitCount(message::tick, 1));
        BusPeer observer(bus.address(), 0);
        std::vector<std::string> names;
        EXPECT_TRUE(await([&] { return (names = exportingNames(observer)).size() == 1; }));
        return names.empty() ? "" : names.front();
    }

    /// The agent's connections on which root finds the agent's interface.
    std::vector<std::string> exportingNames(BusPeer& observer) {
        std::vector<std::string> names;
        for (const std::string& name : observer.namesOf(agent->pid())) {
            if (observer.call({name, agentPath, "org.freedesktop.DBus.Introspectable"}, "Introspect", "")
                    .text.find(agentInterface) != std::string::npos) {
                names.push_back(name);
            }
        }
        return names;
    }
};

TEST_F(LinkIntruder, WhoIsNotTheDaemonIsDeniedWhateverItsUser) {
    bus.start();
    startLinked();
    const std::size_t mark = agent->log().mark();
    for (const uid_t user : {intruderUser, otherUser, agentUser, uid_t{0}}) {
        SCOPED_TRACE(user);
        BusPeer caller(bus.address(), user);
        expectAllCallsRefused(caller, daemon->agentTarget());
    }
    EXPECT_EQ(linesBeforeTheDaemons(mark), Messages{});
}

TEST_F(LinkIntruder, WhatTheLibraryAnswersByItselfIsDeniedToStrangers) {
    bus.start();
    startLinked();
    const std::string name = daemon->agent();
    for (const uid_t user : {intruderUser, agentUser}) {
        for (const char* path : {agentPath, "/", "/other"}) {
            SCOPED_TRACE(std::to_string(user) + " " + path);
            BusPeer caller(bus.address(), user);
            const BusTarget peer{name, path, "org.freedesktop.DBus.Peer"};
            EXPECT_EQ(caller.call(peer, "Ping", "").error, accessDenied);
            EXPECT_EQ(caller.call(peer, "GetMachineId", "").error, accessDenied);
            const BusTarget properties{name, path, "org.freedesktop.DBus.Properties"};
            EXPECT_EQ(caller.call(properties, "Get", "ss", agentInterface, "any").error, accessDenied);
            EXPECT_EQ(caller.call(properties, "GetAll", "s", agentInterface).error, accessDenied);
            EXPECT_EQ(caller.call(properties, "Set", "ssv", agentInterface, "any", "b", 1).error,
                      accessDenied);
            const BusTarget introspectable{name, path, "org.freedesktop.DBus.Introspectable"};
            EXPECT_EQ(caller.call(introspectable, "Introspect", "").error, accessDenied);
            const BusTarget objects{name, path, "org.freedesktop.DBus.ObjectManager"};
            EXPECT_EQ(caller.call(objects, "GetManagedObjects", "").error, accessDenied);
        }
    }
}

TEST_F(LinkIntruder, NoneOfTheAgentsConnectionsTakesCallsFromStrangers) {
    startSystem();
    startLinked();
    ASSERT_TRUE(awaitSessionRead(ownSession));
    const std::size_t mark = agent->log().mark();
    BusPeer caller(bus.address(), intruderUser);
    const std::vector<std::string> names = caller.namesOf(agent->pid());
    EXPECT_GE(names.size(), 2U);
    for (const std::string& name : names) {
        SCOPED_TRACE(name);
        EXPECT_EQ(caller.call({name, agentPath, agentInterface}, "connected", "b", 1).error, accessDenied);
        EXPECT_EQ(caller.call({name, "/", "com.brovik.XpcDaemonProtocol"}, "connect", "").error,
                  accessDenied);
        EXPECT_EQ(caller.call({name, "/org/freedesktop/login1", "org.freedesktop.login1.Manager"}, "Lock", "")
                      .error,
                  accessDenied);
        EXPECT_EQ(caller.call({name, "/", "org.freedesktop.DBus.Peer"}, "Ping", "").error, accessDenied);
        EXPECT_EQ(caller.call({name, "/", "org.freedesktop.DBus.Peer"}, "GetMachineId", "").error,
                  accessDenied);
        EXPECT_EQ(caller.call({name, "/", "org.freedesktop.DBus.Introspectable"}, "Introspect", "").error,
                  accessDenied);
    }
    EXPECT_EQ(linesBeforeTheDaemons(mark), Messages{});
}

TEST_F(LinkIntruder, NobodyIsHeardWhileThereIsNoDaemon) {
    bus.start();
    startAgent();
    BusPeer caller(bus.address(), 0);
    const std::string name = agentsName();
    expectAllCallsRefused(caller, {name, agentPath, agentInterface});

    daemon = std::make_unique<FakeDaemon>(bus.address());
    ASSERT_TRUE(daemon->awaitConnects(1));
    EXPECT_EQ(linesBeforeTheDaemons(agent->log().mark()), Messages{});
    EXPECT_EQ(agent->log().count(message::connected), 0U);
}

TEST_F(LinkIntruder, AnOwnerOfTheDaemonsNameWhoIsNeitherRootNorTheAgentsUserIsDenied) {
    bus.start();
    FakeDaemon impostor(bus.address(), intruderUser);
    startAgent();
    const BusTarget target{agentsName(), agentPath, agentInterface};
    ASSERT_TRUE(agent->log().awaitCount(message::tick, 1));
    expectAllCallsRefused(impostor.peer(), target);
    // Denied, it has not stopped the ticks; and it is told nothing.
    ASSERT_TRUE(agent->log().awaitCount(message::tick, 3));
    EXPECT_EQ(agent->log().count(message::connected), 0U);
    EXPECT_TRUE(impostor.peer().calls().empty());

    daemon = std::make_unique<FakeDaemon>(bus.address());
    EXPECT_TRUE(confirmLink(*daemon));
    EXPECT_EQ(agent->log().count(message::connected), 1U);
}

TEST_F(LinkIntruder, ADaemonOfTheAgentsOwnUserIsHeard) {
    bus.start();
    daemon = std::make_unique<FakeDaemon>(bus.address(), agentUser);
    startAgent();
    EXPECT_TRUE(confirmLink(*daemon));
}

TEST_F(LinkIntruder, ADaemonThatWasReplacedIsDenied) {
    bus.start();
    startLinked();
    FakeDaemon successor(bus.address());
    ASSERT_TRUE(confirmLink(successor));
    BusTarget target = successor.agentTarget();
    expectAllCallsRefused(daemon->peer(), target);
}

TEST_F(LinkIntruder, AnyUserMayOwnTheNameForAMomentWithoutBeingHeardLater) {
    bus.start();
    startLinked();
    const std::size_t before = agent->log().count(message::xpcRuns);
    FakeDaemon impostor(bus.address(), intruderUser);
    ASSERT_TRUE(agent->log().awaitCount(message::xpcRuns, before + 1));
    const std::size_t mark = agent->log().mark();
    expectAllCallsRefused(impostor.peer(), {agentsName(), agentPath, agentInterface});
    EXPECT_TRUE(impostor.peer().calls().empty());
    impostor.crash();

    FakeDaemon successor(bus.address());
    ASSERT_TRUE(confirmLink(successor));
    EXPECT_EQ(agent->log().count(message::connected, mark), 1U);
}

TEST_F(LinkIntruder, ACallRightAfterTheDaemonAppearedWaitsUntilItsUserIsKnown) {
    bus.start();
    startAgent();
    BusPeer early(bus.address(), 0);
    const std::string name = agentsName();
    // Both on their way before the agent can have asked anything about the new owner.
    early.send(busDriver, "RequestName", "su", daemonName, 0);
    early.send({name, agentPath, agentInterface}, "logLevel", "x", std::int64_t{1});
    early.send({name, agentPath, agentInterface}, "logLevel", "x", std::int64_t{2});
    ASSERT_TRUE(agent->log().await("xpc service: received log level: 2"));
    EXPECT_EQ(agent->log().count("xpc service: received log level: 1"), 1U);
}

TEST_F(LinkIntruder, AForgedLossOfTheDaemonIsIgnored) {
    bus.start();
    startLinked();
    Intruder intruder(bus.address(), intruderUser);
    intruder.aimAt(agent->pid());
    ASSERT_FALSE(intruder.victims().empty());
    const std::size_t mark = agent->log().mark();
    const std::string owner = daemon->peer().uniqueName();
    const std::string liar = intruder.peer().uniqueName();
    intruder.forgeNameOwnerChanged(daemonName, owner.c_str(), "");
    intruder.forgeNameOwnerChanged(daemonName, owner.c_str(), liar.c_str());
    intruder.delivered();
    expectAllCallsRefused(intruder.peer(), daemon->agentTarget());
    EXPECT_EQ(linesBeforeTheDaemons(mark), Messages{});
}

TEST_F(LinkIntruder, AForgedAppearanceOfTheDaemonIsIgnored) {
    bus.start();
    startAgent();
    Intruder intruder(bus.address(), intruderUser);
    const std::string name = agentsName();
    intruder.aimAt(agent->pid());
    intruder.forgeNameOwnerChanged(daemonName, "", intruder.peer().uniqueName().c_str());
    intruder.delivered();
    expectAllCallsRefused(intruder.peer(), {name, agentPath, agentInterface});
    daemon = std::make_unique<FakeDaemon>(bus.address());
    ASSERT_TRUE(confirmLink(*daemon));
    EXPECT_EQ(agent->log().count(message::connected), 1U);
    EXPECT_EQ(agent->log().count(message::interrupted), 0U);
}

TEST_F(LinkIntruder, ForgedStatesOfTheScreenAreIgnored) {
    startSystem();
    startLinked();
    ASSERT_TRUE(awaitSessionRead(ownSession));
    Intruder intruder(bus.address(), intruderUser);
    intruder.aimAt(agent->pid());
    ASSERT_FALSE(intruder.victims().empty());
    const std::size_t mark = agent->log().mark();
    const std::string path = MockLogind::pathOf(ownSession);

    intruder.forgeLockedHint(path, true);
    intruder.delivered();
    logind->setLockedHint(ownSession, true);
    ASSERT_TRUE(agent->log().awaitMessages(3, mark));
    intruder.forgeLockedHint(path, false);
    intruder.delivered();
    logind->setLockedHint(ownSession, false);
    ASSERT_TRUE(daemon->awaitEvents(2));
    EXPECT_EQ(linesBeforeTheDaemons(mark), linesOfLock() + linesOfUnlock());
}

TEST_F(LinkIntruder, ForgedComingsAndGoingsOfSessionsAndOfLogindAreIgnored) {
    startSystem();
    startLinked();
    ASSERT_TRUE(awaitSessionRead(ownSession));
    Intruder intruder(bus.address(), intruderUser);
    intruder.aimAt(agent->pid());
    const std::size_t mark = agent->log().mark();
    const std::string path = MockLogind::pathOf(ownSession);
    const std::string liar = intruder.peer().uniqueName();
    logind->setLockedHint(ownSession, true);
    ASSERT_TRUE(agent->log().awaitMessages(3, mark));

    intruder.forgeSession("SessionRemoved", ownSession, path);
    intruder.forgeSession("SessionNew", "99", MockLogind::pathOf("99"));
    intruder.forgeNameOwnerChanged("org.freedesktop.login1", logind->uniqueName().c_str(), "");
    intruder.forgeNameOwnerChanged("org.freedesktop.login1", "", liar.c_str());
    intruder.forgeLockedHint(path, false);
    intruder.delivered();
    // Had the agent believed any of it, it would not know of the lock, or of the real logind, any more.
    logind->setLockedHint(ownSession, false);
    ASSERT_TRUE(daemon->awaitEvents(2));
    EXPECT_EQ(linesBeforeTheDaemons(mark), linesOfLock() + linesOfUnlock());
}

}  // namespace
}  // namespace link_tests
