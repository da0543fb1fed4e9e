#include <cstdint>
#include <string>

#include "link/support/LinkTest.h"

namespace link_tests {
namespace {

class ScreenLock : public LinkTest {
protected:
    void SetUp() override {
        startSystem();
        startLinked();
        ASSERT_TRUE(awaitSessionRead(ownSession));
        mark = agent->log().mark();
    }

    /// Locks and unlocks the own session, as events that must follow whatever must have had no effect, and
    /// compares with all that the agent did since the start of the test.
    void expectNothingBut(const Messages& lines, const Messages& events) {
        logind->setLockedHint(ownSession, true);
        ASSERT_TRUE(daemon->awaitEvents(events.size() + 1));
        logind->setLockedHint(ownSession, false);
        ASSERT_TRUE(daemon->awaitEvents(events.size() + 2));
        EXPECT_EQ(agent->log().messages(mark), lines + linesOfLock() + linesOfUnlock());
        EXPECT_EQ(daemon->events(), events + daemonSawLock + daemonSawUnlock);
    }

    std::size_t mark = 0;
};

TEST_F(ScreenLock, LockAndUnlockAreLoggedAndSentOnceEach) {
    expectNothingBut({}, {});
}

TEST_F(ScreenLock, IsSentAsTheContractSays) {
    logind->setLockedHint(ownSession, true);
    ASSERT_TRUE(daemon->awaitEvents(1));
    const ReceivedCall call = daemon->peer().calls().back();
    EXPECT_EQ(call.path, "/com/brovik/velmdaemon");
    EXPECT_EQ(call.interface, "com.brovik.XpcDaemonProtocol");
    EXPECT_EQ(call.signature, "b");
    EXPECT_EQ(call.sender, daemon->agent());
    EXPECT_FALSE(call.expectsReply);
}

TEST_F(ScreenLock, TheSameStateSaidAgainIsNoEvent) {
    logind->setLockedHint(ownSession, false);
    logind->setLockedHint(ownSession, true);
    logind->setLockedHint(ownSession, true);
    logind->setLockedHint(ownSession, false);
    logind->setLockedHint(ownSession, false);
    ASSERT_TRUE(daemon->awaitEvents(2));
    expectNothingBut(linesOfLock() + linesOfUnlock(), daemonSawLock + daemonSawUnlock);
}

TEST_F(ScreenLock, AnotherUsersSessionIsNoneOfOurs) {
    logind->addSession("40", otherUser);
    logind->announce("40");
    logind->setLockedHint("40", true);
    logind->setLockedHint("40", false);
    logind->removeSession("40");
    expectNothingBut({}, {});
}

TEST_F(ScreenLock, GreeterAndManagerSessionsHaveNoScreenOfTheUsers) {
    for (const char* sessionClass : {"greeter", "manager", "lock-screen", "background"}) {
        const std::string id = std::string("c") + sessionClass[0];
        logind->addSession(id, agentUser, sessionClass);
        logind->announce(id);
        logind->setLockedHint(id, true);
        logind->setLockedHint(id, false);
    }
    expectNothingBut({}, {});
}

TEST_F(ScreenLock, SessionsOfAllUserClassesCount) {
    Messages lines;
    Messages events;
    for (const char* sessionClass : {"user-early", "user-light", "user-early-light", "user"}) {
        const std::string id = std::string("u") + std::to_string(lines.size());
        logind->addSession(id, agentUser, sessionClass);
        logind->announce(id);
        ASSERT_TRUE(awaitSessionRead(id)) << sessionClass;
        logind->setLockedHint(id, true);
        logind->setLockedHint(id, false);
        lines = lines + linesOfLock() + linesOfUnlock();
        events = events + daemonSawLock + daemonSawUnlock;
        ASSERT_TRUE(daemon->awaitEvents(events.size())) << sessionClass;
    }
    expectNothingBut(lines, events);
}

TEST_F(ScreenLock, ASessionThatAppearsLaterIsFollowed) {
    logind->addSession("50", agentUser);
    logind->announce("50");
    ASSERT_TRUE(awaitSessionRead("50"));
    logind->setLockedHint("50", true);
    ASSERT_TRUE(daemon->awaitEvents(1));
    logind->setLockedHint("50", false);
    ASSERT_TRUE(daemon->awaitEvents(2));
    expectNothingBut(linesOfLock() + linesOfUnlock(), daemonSawLock + daemonSawUnlock);
}

TEST_F(ScreenLock, TheScreenIsLockedWhileAnyOwnSessionIs) {
    logind->addSession("50", agentUser);
    logind->announce("50");
    ASSERT_TRUE(awaitSessionRead("50"));
    logind->setLockedHint(ownSession, true);
    logind->setLockedHint("50", true);
    logind->setLockedHint(ownSession, false);
    logind->setLockedHint("50", false);
    ASSERT_TRUE(daemon->awaitEvents(2));
    expectNothingBut(linesOfLock() + linesOfUnlock(), daemonSawLock + daemonSawUnlock);
}

TEST_F(ScreenLock, ASessionThatIsRemovedWhileLockedReportsNothing) {
    logind->addSession("50", agentUser);
    logind->announce("50");
    ASSERT_TRUE(awaitSessionRead("50"));
    logind->setLockedHint("50", true);
    ASSERT_TRUE(daemon->awaitEvents(1));
    logind->removeSession("50");
    expectNothingBut(linesOfLock(), daemonSawLock);
}

TEST_F(ScreenLock, RequestsToLockAreNotLocks) {
    logind->request(ownSession, "Lock");
    logind->request(ownSession, "Unlock");
    expectNothingBut({}, {});
}

TEST_F(ScreenLock, MalformedSignalsAreIgnored) {
    const std::string path = MockLogind::pathOf(ownSession);
    logind->emitText(path, "org.freedesktop.DBus.Properties", "PropertiesChanged", "no properties at all");
    logind->emitText("/org/freedesktop/login1", "org.freedesktop.login1.Manager", "SessionNew", "only text");
    logind->emitText("/org/freedesktop/login1", "org.freedesktop.login1.Manager", "SessionRemoved",
                     ownSession);
    logind->emitPropertiesChanged(ownSession, "org.freedesktop.login1.Session", "LockedHint", "u", 1);
    logind->emitPropertiesChanged(ownSession, "org.freedesktop.login1.Seat", "LockedHint", "b", 1);
    expectNothingBut({}, {});
}

TEST_F(ScreenLock, AfterARestartOfLogindItsStateIsTakenOverSilently) {
    logind->setLockedHint(ownSession, true);
    ASSERT_TRUE(daemon->awaitEvents(1));
    const std::size_t reads = sessionReads(ownSession);
    logind->stop();
    logind->start();
    logind->addSession(ownSession, agentUser);
    logind->announce(ownSession);
    ASSERT_TRUE(awaitSessionRead(ownSession, reads + 1));
    expectNothingBut(linesOfLock(), daemonSawLock);
}

class ScreenLockAtStart : public LinkTest {};

TEST_F(ScreenLockAtStart, TheStateThatIsFoundIsTakenOverSilently) {
    startSystem();
    logind->setLockedHint(ownSession, true);
    startLinked();
    ASSERT_TRUE(awaitSessionRead(ownSession));
    logind->setLockedHint(ownSession, false);
    ASSERT_TRUE(daemon->awaitEvents(1));
    EXPECT_EQ(daemon->events(), daemonSawUnlock);
    EXPECT_EQ(agent->log().count(message::locked), 0U);
}

TEST_F(ScreenLockAtStart, WithoutLogindTheAgentRunsOnAndFollowsTheOneThatComes) {
    bus.start();
    monitor = std::make_unique<BusMonitor>(bus.address());
    startLinked();
    const std::size_t mark = agent->log().mark();
    logind = std::make_unique<MockLogind>(bus);
    logind->addSession(ownSession, agentUser);
    logind->announce(ownSession);
    ASSERT_TRUE(awaitSessionRead(ownSession));
    logind->setLockedHint(ownSession, true);
    ASSERT_TRUE(daemon->awaitEvents(1));
    EXPECT_EQ(daemon->events(), daemonSawLock);
    EXPECT_EQ(agent->log().messages(mark), linesOfLock());
}

TEST_F(ScreenLockAtStart, ALockIsLoggedAndForwardedAlsoBeforeTheDaemonAnswered) {
    startSystem();
    daemon = std::make_unique<FakeDaemon>(bus.address());
    startAgent();
    ASSERT_TRUE(awaitSessionRead(ownSession));
    ASSERT_TRUE(daemon->awaitConnects(1));
    logind->setLockedHint(ownSession, true);
    ASSERT_TRUE(daemon->awaitEvents(1));
    EXPECT_EQ(daemon->events(), daemonSawLock);
    EXPECT_TRUE(agent->log().await(message::sendingStatus));
}

}  // namespace
}  // namespace link_tests
