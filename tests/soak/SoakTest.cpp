#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "link/support/LinkTest.h"
#include "link/support/Resources.h"

namespace soak {
namespace {

using namespace link_tests;
using std::chrono::milliseconds;

std::uint64_t fromEnvironment(const char* name, std::uint64_t otherwise) {
    const char* const text = std::getenv(name);
    return text != nullptr ? std::stoull(text) : otherwise;
}

/// Throws at the agent what a machine may throw at it, in random order, and keeps the books: what was done,
/// what the agent must have logged for it, and what the daemon must have been told. The books are balanced
/// after each deed.
class Soak : public LinkTest {
protected:
    void startAll() {
        startSystem();
        startLinked();
        ++m_expected[message::established];
        ++m_expected[message::connected];
        ASSERT_TRUE(awaitSessionRead(ownSession));
        ASSERT_TRUE(agent->awaitWatchOfEtc());
    }

    // Deeds. Each ends with the link up and the books balanced.

    void lockOrUnlock() {
        expectLock(!m_locked);
        logind->setLockedHint(ownSession, m_locked);
        balance("a lock or unlock");
    }

    void changeZone() {
        changeZoneOnly();
        balance("a change of zone");
    }

    void lockWhileTheZoneChanges() {
        changeZoneOnly();
        expectLock(!m_locked);
        logind->setLockedHint(ownSession, m_locked);
        balance("a lock while the zone changes");
    }

    void callTheAgent() {
        const std::size_t calls = upTo(50);
        for (std::size_t call = 0; call < calls; ++call) {
            daemon->send("putMessage", "ay", 3, 1, 2, 3);
            daemon->send("logLevel", "x", static_cast<std::int64_t>(call));
            ++m_expected[message::incoming];
            ++m_expected["xpc service: received log level: " + std::to_string(call)];
        }
        balance("calls of the daemon");
    }

    void lockAmidCalls() {
        expectLock(!m_locked);
        daemon->send("putMessage", "ay", 1, 7);
        logind->setLockedHint(ownSession, m_locked);
        daemon->send("putMessage", "ay", 1, 7);
        m_expected[message::incoming] += 2;
        balance("a lock amid calls");
    }

    void restartTheDaemon() {
        const std::size_t mark = agent->log().mark();
        daemon->crash();
        ASSERT_TRUE(agent->log().await(message::disconnected, mark));
        if (upTo(2) == 1) {
            // Told to nobody: logged, and never repeated.
            expectLoggedLock(!m_locked);
            logind->setLockedHint(ownSession, m_locked);
            ASSERT_TRUE(agent->log().await(message::sendingStatus, mark));
            ASSERT_TRUE(awaitThatNobodyIsThere());
        }
        pumpFor(milliseconds(upTo(2500)));
        relink(mark);
        EXPECT_EQ(agent->log().count(message::interrupted, mark), 1U);
        EXPECT_EQ(agent->log().count(message::invalidated, mark), 0U);
        balance("a restart of the daemon");
    }

    void replaceTheDaemon() {
        const std::size_t mark = agent->log().mark();
        relink(mark);
        EXPECT_EQ(agent->log().count(message::interrupted, mark), 1U);
        balance("a replacement of the daemon");
    }

    void restartLogind() {
        logind->stop();
        pumpFor(milliseconds(upTo(500)));
        const std::size_t before = sessionReads(ownSession);
        logind->start();
        logind->addSession(ownSession, agentUser);
        logind->announce(ownSession);
        ASSERT_TRUE(awaitSessionRead(ownSession, before + 1));
        // logind forgets the hint, and what the agent finds it takes over without a word.
        m_locked = false;
        balance("a restart of logind");
    }

    void restartTheBus() {
        const std::size_t mark = agent->log().mark();
        bus.stop();
        ASSERT_TRUE(agent->log().await(message::disconnected, mark));
        pumpFor(milliseconds(upTo(2500)));
        closeTheDaemonsBooks();
        daemon.reset();
        logind.reset();
        monitor.reset();
        startSystem();
        relink(mark);
        EXPECT_GE(agent->log().count(message::invalidated, mark), 1U);
        ASSERT_TRUE(awaitSessionRead(ownSession));
        m_locked = false;
        balance("a restart of the bus");
    }

    void freezeTheBus() {
        bus.freeze();
        changeZoneOnly();
        pumpFor(milliseconds(upTo(1500)));
        bus.thaw();
        balance("a frozen bus");
    }

    void stopTheAgentForAWhile() {
        agent->signal(SIGSTOP);
        changeZoneOnly();
        expectLock(!m_locked);
        logind->setLockedHint(ownSession, m_locked);
        pumpFor(milliseconds(upTo(2500)));
        agent->signal(SIGCONT);
        balance("an agent that was stopped");
    }

    void rest() { pumpFor(milliseconds(upTo(1500))); }

    // The books.

    void expectLoggedLock(bool locked) {
        m_locked = locked;
        for (const std::string& line : locked ? linesOfLock() : linesOfUnlock()) {
            ++m_expected[line];
        }
    }

    void expectLock(bool locked) {
        expectLoggedLock(locked);
        m_expectedLocks.push_back(locked ? "onScreenLocked true" : "onScreenLocked false");
    }

    void changeZoneOnly() {
        static constexpr std::array<Zone, 3> zones{utcZone, eastZone, westZone};
        m_zone = (m_zone + 1 + upTo(2)) % zones.size();
        machine.timeZones().setByRename(zones.at(m_zone));
        for (const std::string& line : linesOfZoneChange()) {
            ++m_expected[line];
        }
        ++m_expectedZoneEvents;
    }

    /// The agent's link keeps what it is to send until the bus has said that nobody has the daemon's name; it
    /// asks as it starts, and again with each thing that it drops. One question is under way at a time, so
    /// the second answer from here on is one to a question from here on.
    bool awaitThatNobodyIsThere() {
        const auto answers = [this] {
            return monitor->answered("/org/freedesktop/DBus", daemonName, "GetNameOwner");
        };
        const std::size_t before = answers();
        return await([&] { return answers() >= before + 2; });
    }

    /// Gives the agent a new daemon, which answers when it likes.
    void relink(std::size_t mark) {
        closeTheDaemonsBooks();
        daemon = std::make_unique<FakeDaemon>(bus.address());
        ASSERT_TRUE(await([&] { return agent->log().count(message::disconnected, mark) > 0; }));
        std::size_t confirmations = 0;
        ASSERT_TRUE(await([&] {
            if (confirmations == 0 && daemon->connects() > 0) {
                // Late at times, when the agent has asked again.
                pumpFor(milliseconds(upTo(4) == 0 ? upTo(1500) : 0));
                confirmations = daemon->confirm().ok() ? 1 : 0;
            }
            return confirmations > 0;
        }));
        m_expected[message::established] += confirmations;
        m_expected[message::connected] += confirmations;
        ASSERT_TRUE(agent->log().await(message::connected, mark));
    }

    void closeTheDaemonsBooks() {
        if (daemon) {
            const Messages events = daemon->events();
            m_arrivedBefore.insert(m_arrivedBefore.end(), events.begin(), events.end());
        }
    }

    Messages arrived() const { return m_arrivedBefore + (daemon ? daemon->events() : Messages{}); }

    static Messages only(const Messages& events, const std::string& prefix) {
        Messages chosen;
        std::copy_if(events.begin(), events.end(), std::back_inserter(chosen),
                     [&](const std::string& event) { return event.rfind(prefix, 0) == 0; });
        return chosen;
    }

    std::size_t total(const std::string& line) {
        const std::vector<LogLine>& lines = agent->log().lines();
        for (; m_counted < lines.size(); ++m_counted) {
            ++m_logged[lines[m_counted].message];
        }
        const auto found = m_logged.find(line);
        return found == m_logged.end() ? 0 : found->second;
    }

    bool everythingIsThere() {
        const bool logged = std::all_of(m_expected.begin(), m_expected.end(), [this](const auto& entry) {
            return total(entry.first) >= entry.second;
        });
        const Messages events = arrived();
        return logged && events.size() >= m_expectedLocks.size() + m_expectedZoneEvents;
    }

    /// Waits until all that must come has come, and fails if there is anything else.
    void balance(const char* deed) {
        SCOPED_TRACE(deed);
        ++m_deeds[deed];
        EXPECT_TRUE(await([this] { return everythingIsThere(); }));
        for (const auto& [line, count] : m_expected) {
            EXPECT_EQ(total(line), count) << line;
        }
        const Messages events = arrived();
        EXPECT_EQ(only(events, "onScreenLocked"), m_expectedLocks);
        EXPECT_EQ(only(events, "onTimeZoneChanged").size(), m_expectedZoneEvents);
        EXPECT_EQ(events.size(), m_expectedLocks.size() + m_expectedZoneEvents);
        EXPECT_EQ(total(message::disconnected), total(message::interrupted) + total(message::invalidated));
    }

    std::size_t upTo(std::size_t bound) {
        return std::uniform_int_distribution<std::size_t>(0, bound - 1)(m_random);
    }

    void doSomething() {
        using Deed = void (Soak::*)();
        static constexpr std::array<Deed, 16> deeds{&Soak::lockOrUnlock,
                                                    &Soak::lockOrUnlock,
                                                    &Soak::lockOrUnlock,
                                                    &Soak::changeZone,
                                                    &Soak::changeZone,
                                                    &Soak::lockWhileTheZoneChanges,
                                                    &Soak::callTheAgent,
                                                    &Soak::callTheAgent,
                                                    &Soak::lockAmidCalls,
                                                    &Soak::restartTheDaemon,
                                                    &Soak::restartTheDaemon,
                                                    &Soak::replaceTheDaemon,
                                                    &Soak::restartLogind,
                                                    &Soak::freezeTheBus,
                                                    &Soak::stopTheAgentForAWhile,
                                                    &Soak::rest};
        // Rare in a machine's life, and everything else starts anew with it.
        if (upTo(40) == 0) {
            restartTheBus();
        } else {
            (this->*deeds.at(upTo(deeds.size())))();
        }
    }

    void seed(std::uint64_t number) { m_random.seed(number); }
    const std::map<std::string, std::size_t>& deeds() const { return m_deeds; }
    std::size_t eventsExpected() const { return m_expectedLocks.size() + m_expectedZoneEvents; }

private:
    std::mt19937_64 m_random;
    bool m_locked = false;
    std::size_t m_zone = 0;
    std::map<std::string, std::size_t> m_expected;
    Messages m_expectedLocks;
    std::size_t m_expectedZoneEvents = 0;
    std::map<std::string, std::size_t> m_logged;
    std::size_t m_counted = 0;
    Messages m_arrivedBefore;
    std::map<std::string, std::size_t> m_deeds;
};

TEST_F(Soak, TheBooksBalanceHoweverLongItGoesOn) {
    const auto duration = std::chrono::seconds(fromEnvironment("VELM_SOAK_SECONDS", 20));
    const std::uint64_t number = fromEnvironment("VELM_SOAK_SEED", std::random_device{}());
    std::cout << "soak: " << duration.count() << " s, seed " << number << std::endl;
    seed(number);
    startAll();
    if (HasFatalFailure()) {
        return;
    }
    // Each kind of thread and descriptor has been there once; what comes on top later is a leak.
    restartTheDaemon();
    // The reconnect timer's task takes up to a second to end.
    pumpFor(milliseconds(1500));
    const Resources before = resourcesOf(agent->pid());

    const auto began = std::chrono::steady_clock::now();
    while (std::chrono::steady_clock::now() - began < duration && !HasFailure() && agent->running()) {
        doSomething();
    }
    ASSERT_TRUE(agent->running());
    EXPECT_TRUE(await([&] { return resourcesOf(agent->pid()).threads <= before.threads; }));
    const Resources after = resourcesOf(agent->pid());
    std::cout << "before  " << before << "\nafter   " << after << "\n";
    for (const auto& [deed, times] : deeds()) {
        std::cout << times << " times " << deed << "\n";
    }
    std::cout << eventsExpected() << " events, " << agent->log().mark() << " lines" << std::endl;
    if (HasFailure()) {
        return;
    }
    EXPECT_LE(after.descriptors, before.descriptors);
    EXPECT_LE(after.memory, before.memory + 4096);

    EXPECT_EQ(agent->terminate(), "exit 0");
    EXPECT_EQ(agent->output().rawLines(), agent->log().rawLines());
}

}  // namespace
}  // namespace soak
