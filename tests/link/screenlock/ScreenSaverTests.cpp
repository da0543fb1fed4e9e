#include <memory>
#include <string>

#include "link/support/LinkTest.h"

namespace link_tests {
namespace {

struct Saver {
    const char* name;  ///< also the interface
    const char* path;
};

constexpr Saver mate{"org.mate.ScreenSaver", "/org/mate/ScreenSaver"};
constexpr Saver cinnamon{"org.cinnamon.ScreenSaver", "/org/cinnamon/ScreenSaver"};
constexpr Saver xfce{"org.xfce.ScreenSaver", "/org/xfce/ScreenSaver"};

class ScreenSaver : public LinkTest {
protected:
    ScreenSaver() { options.sessionBus = sessionBus.address(); }

    void startSessionBus() {
        sessionBus.start();
        sessionMonitor = std::make_unique<BusMonitor>(sessionBus.address());
    }

    std::unique_ptr<BusPeer> startSaver(const Saver& saver, bool active = false) {
        auto peer = std::make_unique<BusPeer>(sessionBus.address(), agentUser);
        peer->answer("GetActive", active);
        EXPECT_EQ(peer->requestName(saver.name), 1U);
        return peer;
    }

    /// Waits until the agent has been told who the saver is.
    bool awaitOwnerKnown(const Saver& saver) {
        return await([&] {
            return sessionMonitor->answered("/org/freedesktop/DBus", saver.name, "GetNameOwner") > 0;
        });
    }

    static void setActive(BusPeer& peer, const Saver& saver, bool active) {
        peer.answer("GetActive", active);
        peer.emit({"", saver.path, saver.name}, "ActiveChanged", "b", static_cast<int>(active));
    }

    /// One saver that runs before the agent, and a link.
    void startWith(const Saver& saver, bool active = false) {
        startSystem();
        startSessionBus();
        savers = startSaver(saver, active);
        startLinked();
        // It asks the saver first; what the saver says after its answer reaches the agent after it.
        ASSERT_TRUE(await([this] { return !savers->calls().empty(); }));
        ASSERT_TRUE(awaitSessionRead(ownSession));
        mark = agent->log().mark();
    }

    void expectThatActiveIsLocked(const Saver& saver) {
        startWith(saver);
        setActive(*savers, saver, true);
        ASSERT_TRUE(daemon->awaitEvents(1));
        setActive(*savers, saver, false);
        ASSERT_TRUE(daemon->awaitEvents(2));
        EXPECT_EQ(daemon->events(), daemonSawLock + daemonSawUnlock);
        EXPECT_EQ(agent->log().messages(mark), linesOfLock() + linesOfUnlock());
    }

    PrivateBus sessionBus;
    std::unique_ptr<BusMonitor> sessionMonitor;
    std::unique_ptr<BusPeer> savers;
    std::size_t mark = 0;
};

TEST_F(ScreenSaver, ThatOfMateIsFollowed) {
    expectThatActiveIsLocked(mate);
}

TEST_F(ScreenSaver, ThatOfCinnamonIsFollowed) {
    expectThatActiveIsLocked(cinnamon);
}

TEST_F(ScreenSaver, ThatOfXfceIsFollowed) {
    expectThatActiveIsLocked(xfce);
}

TEST_F(ScreenSaver, TheSameStateSaidAgainIsNoEvent) {
    startWith(mate);
    setActive(*savers, mate, true);
    setActive(*savers, mate, true);
    ASSERT_TRUE(daemon->awaitEvents(1));
    setActive(*savers, mate, false);
    setActive(*savers, mate, false);
    ASSERT_TRUE(daemon->awaitEvents(2));
    setActive(*savers, mate, true);
    ASSERT_TRUE(daemon->awaitEvents(3));
    EXPECT_EQ(daemon->events(), daemonSawLock + daemonSawUnlock + daemonSawLock);
}

TEST_F(ScreenSaver, OnlyTheOwnerOfItsNameIsBelieved) {
    startWith(mate);
    Intruder intruder(sessionBus.address(), agentUser);
    intruder.aimAt(agent->pid());
    ASSERT_FALSE(intruder.victims().empty());
    intruder.forgeActiveChanged(mate.name, mate.path, true);
    intruder.forgeActiveChanged(xfce.name, xfce.path, true);
    intruder.forgeNameOwnerChanged(mate.name, savers->uniqueName().c_str(),
                                   intruder.peer().uniqueName().c_str());
    intruder.forgeActiveChanged(mate.name, mate.path, true);
    intruder.delivered();
    // Nobody has taken the real owner's place.
    setActive(*savers, mate, true);
    ASSERT_TRUE(daemon->awaitEvents(1));
    setActive(*savers, mate, false);
    ASSERT_TRUE(daemon->awaitEvents(2));

    setActive(*savers, mate, true);
    ASSERT_TRUE(daemon->awaitEvents(3));
    intruder.forgeActiveChanged(mate.name, mate.path, false);
    intruder.delivered();
    // An event of its own, had the forged one been believed.
    setActive(*savers, mate, true);
    setActive(*savers, mate, false);
    ASSERT_TRUE(daemon->awaitEvents(4));
    EXPECT_EQ(daemon->events(), daemonSawLock + daemonSawUnlock + daemonSawLock + daemonSawUnlock);
    EXPECT_EQ(agent->log().messages(mark), linesOfLock() + linesOfUnlock() + linesOfLock() + linesOfUnlock());
}

TEST_F(ScreenSaver, MalformedSignalsOfTheOwnerAreIgnored) {
    startWith(mate);
    savers->emit({"", mate.path, mate.name}, "ActiveChanged", "s", "yes");
    savers->emit({"", mate.path, mate.name}, "ActiveChanged", "u", 1U);
    savers->emit({"", mate.path, mate.name}, "ActiveChanged", "");
    setActive(*savers, mate, true);
    ASSERT_TRUE(daemon->awaitEvents(1));
    EXPECT_EQ(agent->log().messages(mark), linesOfLock());
}

TEST_F(ScreenSaver, HasNoSayOnceTheHintWasSeenSet) {
    startWith(mate);
    logind->setLockedHint(ownSession, true);
    ASSERT_TRUE(daemon->awaitEvents(1));
    logind->setLockedHint(ownSession, false);
    ASSERT_TRUE(daemon->awaitEvents(2));
    // The call that follows on the same connection is answered after the signals were passed on; what the
    // agent does with them shows at the latest with the next event but one.
    setActive(*savers, mate, true);
    setActive(*savers, mate, false);
    setActive(*savers, mate, true);
    savers->call(busDriver, "GetId", "");
    logind->setLockedHint(ownSession, true);
    ASSERT_TRUE(daemon->awaitEvents(3));
    setActive(*savers, mate, false);
    savers->call(busDriver, "GetId", "");
    machine.timeZones().setByRename(eastZone);
    ASSERT_TRUE(daemon->awaitEvents(4));
    logind->setLockedHint(ownSession, false);
    ASSERT_TRUE(daemon->awaitEvents(5));
    EXPECT_EQ(daemon->events(), daemonSawLock + daemonSawUnlock + daemonSawLock +
                                    Messages{"onTimeZoneChanged"} + daemonSawUnlock);
    EXPECT_EQ(agent->log().messages(mark),
              linesOfLock() + linesOfUnlock() + linesOfLock() + linesOfZoneChange() + linesOfUnlock());
}

TEST_F(ScreenSaver, ThatIsFoundActiveIsTakenOverSilently) {
    startWith(mate, true);
    setActive(*savers, mate, true);
    setActive(*savers, mate, false);
    ASSERT_TRUE(daemon->awaitEvents(1));
    EXPECT_EQ(daemon->events(), daemonSawUnlock);
    EXPECT_EQ(agent->log().messages(mark), linesOfUnlock());
}

TEST_F(ScreenSaver, OnASessionBusThatIsLostAndBackIsFollowedAgain) {
    startWith(mate);
    savers.reset();
    sessionMonitor.reset();
    sessionBus.stop();
    startSessionBus();
    savers = startSaver(mate);
    // The agent may be back before anybody watches the bus, but it asks each saver that comes.
    ASSERT_TRUE(await([this] { return !savers->calls().empty(); }));
    setActive(*savers, mate, true);
    ASSERT_TRUE(daemon->awaitEvents(1));
    setActive(*savers, mate, false);
    ASSERT_TRUE(daemon->awaitEvents(2));
    EXPECT_EQ(agent->log().messages(mark), linesOfLock() + linesOfUnlock());
}

TEST_F(ScreenSaver, ThatIsStartedLaterIsFollowed) {
    startSystem();
    startSessionBus();
    startLinked();
    ASSERT_TRUE(awaitSessionRead(ownSession));
    ASSERT_TRUE(awaitOwnerKnown(mate));
    mark = agent->log().mark();
    savers = startSaver(mate);
    setActive(*savers, mate, true);
    ASSERT_TRUE(daemon->awaitEvents(1));
    EXPECT_EQ(agent->log().messages(mark), linesOfLock());
}

TEST_F(ScreenSaver, WithoutASessionBusTheAgentRunsOn) {
    startSystem();
    startLinked();
    ASSERT_TRUE(awaitSessionRead(ownSession));
    mark = agent->log().mark();
    logind->setLockedHint(ownSession, true);
    ASSERT_TRUE(daemon->awaitEvents(1));
    EXPECT_EQ(agent->log().messages(mark), linesOfLock());
}

}  // namespace
}  // namespace link_tests
