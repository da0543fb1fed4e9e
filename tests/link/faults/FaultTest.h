#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "link/support/LinkTest.h"
#include "link/support/Resources.h"

namespace link_tests {

/// A link that is up, something that goes wrong, and what must be true during it and afterwards.
class FaultTest : public LinkTest {
protected:
    /// For what takes even a quick machine seconds.
    static constexpr std::chrono::minutes patience{5};

    void startLinkedAndReady() {
        startSystem();
        startLinked();
        awaitReady();
    }

    void awaitReady() {
        ASSERT_TRUE(awaitSessionRead(ownSession));
        ASSERT_TRUE(agent->awaitWatchOfEtc());
    }

    /// An event of each kind reaches the daemon, once each, and a call of the daemon is answered.
    void expectThatAllWorks() {
        const Messages before = daemon->events();
        m_locked = !m_locked;
        logind->setLockedHint(ownSession, m_locked);
        EXPECT_TRUE(daemon->awaitEvents(before.size() + 1));
        m_east = !m_east;
        machine.timeZones().setByRename(m_east ? eastZone : westZone);
        EXPECT_TRUE(daemon->awaitEvents(before.size() + 2));
        const char* const lockEvent = m_locked ? "onScreenLocked true" : "onScreenLocked false";
        EXPECT_EQ(daemon->events(), (before + Messages{lockEvent, "onTimeZoneChanged"}));
        EXPECT_TRUE(daemon->call("logLevel", "x", std::int64_t{3}).ok());
    }

    /// Answers each `connect` of a new daemon until an answer is taken.
    void relink() {
        daemon = std::make_unique<FakeDaemon>(bus.address());
        std::size_t answered = 0;
        ASSERT_TRUE(await([&] {
            if (daemon->connects() == answered) {
                return false;
            }
            answered = daemon->connects();
            return daemon->confirm().ok();
        }));
    }

    /// SIGTERM ends it soon, with status 0. It is promised within 2 s, and took 9 s on a machine with 86
    /// processes to run; one that waits for an answer of the bus takes 25 s
    /// (sd_bus_set_method_call_timeout(3)).
    void expectAQuickEnd() {
        const auto asked = std::chrono::steady_clock::now();
        EXPECT_EQ(agent->terminate(), "exit 0");
        EXPECT_LT(std::chrono::steady_clock::now() - asked, std::chrono::seconds(20));
    }

    /// It sleeps, rather than going round and round: less than a tenth of the processor.
    void expectNoHotLoop() {
        const double before = resourcesOf(agent->pid()).processorSeconds;
        pumpFor(std::chrono::milliseconds(2000));
        EXPECT_LT(resourcesOf(agent->pid()).processorSeconds - before, 0.2);
    }

    /// Threads and descriptors come back to what they were, and memory has grown by less than 8 MiB.
    void expectNoMoreThan(const Resources& before) {
        Resources now;
        EXPECT_TRUE(await([&] {
            now = resourcesOf(agent->pid());
            return now.threads <= before.threads && now.descriptors <= before.descriptors;
        })) << now;
        EXPECT_LT(now.memory, before.memory + 8192) << now;
    }

private:
    bool m_locked = false;
    bool m_east = false;
};

}  // namespace link_tests
