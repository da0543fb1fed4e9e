#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <string>

#include "link/faults/FaultTest.h"
#include "link/support/MateDesktop.h"

namespace link_tests {
namespace {

namespace fs = std::filesystem;

/// A daemon that is a process of its own, and is stopped while much happens.
class StoppedDaemon : public FaultTest {
protected:
    void linkToAStandIn() {
        startSystem();
        options.sessionBus = m_desktop.busAddress();
        m_standIn = std::make_unique<ChildProcess>(
            std::vector<std::string>{VELM_STAND_IN_PATH},
            std::vector<std::string>{"DBUS_SYSTEM_BUS_ADDRESS=" + bus.address()}, [this] {
                ::close(STDIN_FILENO);
                ::dup2(::open(told().c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), STDOUT_FILENO);
            });
        startAgent();
        ASSERT_TRUE(agent->log().await(message::connected));
        awaitReady();
        // The first may come before the agent watches the saver.
        ASSERT_TRUE(await([&] {
            m_desktop.emit(true);
            return eventsTold() == 1;
        }));
    }

    /// VELM_EVENTS of the environment: a hundred thousand are some minutes' work for a busy machine.
    static std::size_t howMany() {
        const char* const events = std::getenv("VELM_EVENTS");
        return events != nullptr ? std::stoul(events) : 10000;
    }

    /// As many edges, an unlock first. The session bus's queue never holds more than some of them.
    void lockAndUnlock(std::size_t edges) {
        constexpr std::size_t atOnce = 1000;
        for (std::size_t edge = 0; edge < edges; ++edge) {
            m_desktop.emit(edge % 2 == 1);
            if (edge % atOnce == atOnce - 1) {
                ASSERT_TRUE(await([&] { return eventsInTheOutput() >= edge + 1 - atOnce; }, patience));
                lookAtItsMemory();
            }
        }
        m_desktop.await();
        lookAtItsMemory();
    }

    void lookAtItsMemory() { m_most = std::max(m_most, resourcesOf(agent->pid()).memory); }

    /// About how many the agent has sent: of its output, the last few thousand bytes have not been written
    /// yet.
    std::size_t eventsInTheOutput() const {
        constexpr std::size_t bytesOfAnEvent = std::size_t{3} * 72;
        return fs::file_size(machine.pathOf("stdout")) / bytesOfAnEvent;
    }

    std::string told() const { return machine.pathOf("told"); }
    /// What the stand-in was told, in order: an L for each lock, a U for each unlock, a Z for a change of
    /// zone.
    std::string story() const {
        std::string story;
        std::ifstream lines(told());
        for (std::string line; std::getline(lines, line);) {
            if (line.find("onScreenLocked") != std::string::npos) {
                story += line.find("YES") != std::string::npos || line.find("true") != std::string::npos
                             ? 'L'
                             : 'U';
            } else if (line.find("onTimeZoneChanged") != std::string::npos) {
                story += 'Z';
            }
        }
        return story;
    }
    std::size_t eventsTold() const { return story().size(); }

    MateDesktop m_desktop{agentUser};
    std::unique_ptr<ChildProcess> m_standIn;
    std::size_t m_most = 0;
};

TEST_F(StoppedDaemon, ManyEventsCostLittleMemoryAndHoldNobodyUp) {
    linkToAStandIn();
    const std::size_t before = resourcesOf(agent->pid()).memory;
    m_standIn->signal(SIGSTOP);
    const std::size_t edges = howMany();
    lockAndUnlock(edges);
    machine.timeZones().setByRename(eastZone);
    m_standIn->signal(SIGCONT);
    ASSERT_TRUE(await([&] { return eventsTold() >= edges + 2; }, patience));
    std::cout << edges << " events, " << m_most - before << " KiB more\n";
    std::string locks = story();
    EXPECT_EQ(std::count(locks.begin(), locks.end(), 'Z'), 1);
    locks.erase(std::remove(locks.begin(), locks.end(), 'Z'), locks.end());
    ASSERT_EQ(locks.size(), edges + 1);
    for (std::size_t place = 0; place < locks.size(); ++place) {
        ASSERT_EQ(locks[place], place % 2 == 0 ? 'L' : 'U') << place;
    }
    EXPECT_LT(m_most, before + 64UL * 1024) << "KiB";
    expectAQuickEnd();
}

}  // namespace
}  // namespace link_tests
