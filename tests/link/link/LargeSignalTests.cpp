#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <string>
#include <vector>

#include "link/faults/FaultTest.h"
#include "link/support/BareReader.h"
#include "link/support/SignalFlood.h"

namespace link_tests {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

/// How long the flood lasts: VELM_FLOOD_SECONDS, or a few seconds.
std::chrono::seconds floodLength() {
    const char* const wanted = std::getenv("VELM_FLOOD_SECONDS");
    return std::chrono::seconds(wanted == nullptr ? 5 : std::atoi(wanted));
}

/// So many it must be at least; a machine that hardly runs the attacker gets the time for it.
constexpr std::uint64_t fewestSignals = 100;
/// So many that one which meets a stall of the machine is not their median.
constexpr std::size_t fewestEvents = 5;

milliseconds medianOf(std::vector<milliseconds> times) {
    std::sort(times.begin(), times.end());
    return times[times.size() / 2];
}

class LargeSignals : public FaultTest {
protected:
    /// How long events took, from the call that has logind tell of one to the daemon; and how long only that
    /// call took, which shares the bus with the flood but not the agent; and how long a call of a program
    /// took that is flooded like the agent and does nothing but read: what is above that is the agent's.
    struct Times {
        std::vector<milliseconds> events;
        std::vector<milliseconds> calls;
        std::vector<milliseconds> bareReader;
    };

    /// Locks or unlocks.
    void addEvent(Times& times) {
        m_locked = !m_locked;
        expected = expected + (m_locked ? linesOfLock() : linesOfUnlock());
        const auto start = Clock::now();
        logind->setLockedHint(ownSession, m_locked);
        const auto told = Clock::now();
        EXPECT_TRUE(daemon->awaitEvents(++m_events));
        const auto arrival = daemon->peer().calls().back().arrival;
        times.events.push_back(std::chrono::duration_cast<milliseconds>(arrival - start));
        times.calls.push_back(std::chrono::duration_cast<milliseconds>(told - start));
    }

    void addCallOf(const BareReader& reader, Times& times) {
        const auto start = Clock::now();
        const BusTarget target{reader.uniqueName(), "/", "org.freedesktop.DBus.Peer"};
        EXPECT_TRUE(daemon->peer().call(target, "Ping", "").ok());
        times.bareReader.push_back(std::chrono::duration_cast<milliseconds>(Clock::now() - start));
    }

    static std::string summaryOf(const Times& times) {
        return std::to_string(times.events.size()) + " events, " + spanOf(times.events) +
               " (the call of logind " + spanOf(times.calls) + "; a call of a bare reader " +
               spanOf(times.bareReader) + ")";
    }

    Messages expected;

private:
    static std::string spanOf(const std::vector<milliseconds>& times) {
        return "median " + std::to_string(medianOf(times).count()) + " ms, slowest " +
               std::to_string(std::max_element(times.begin(), times.end())->count()) + " ms";
    }

    bool m_locked = false;
    std::size_t m_events = 0;
};

TEST_F(LargeSignals, OfAStrangerOnFourConnectionsCostNeitherMemoryNorTimeNorAnEvent) {
    startLinkedAndReady();
    // It copies whatever passes, which would be measured with the bus.
    monitor.reset();
    std::vector<std::string> victims = daemon->peer().namesOf(agent->pid());
    ASSERT_GE(victims.size(), 2U);
    const BareReader reader(bus.address());
    victims.push_back(reader.uniqueName());
    const std::size_t mark = agent->log().mark();
    Times calm;
    for (int event = 0; event < 10; ++event) {
        addEvent(calm);
        addCallOf(reader, calm);
        pumpFor(milliseconds(50));
    }

    const Resources before = resourcesOf(agent->pid());
    std::size_t most = 0;
    Times flooded;
    const auto start = Clock::now();
    SignalFlood flood(bus.address(), intruderUser, victims);
    const auto underAttack = [&] {
        const auto passed = Clock::now() - start;
        const bool enough = flood.sent() >= fewestSignals && flooded.events.size() >= fewestEvents;
        return passed < floodLength() || (!enough && passed < floodLength() + waitCap);
    };
    while (underAttack()) {
        addEvent(flooded);
        addCallOf(reader, flooded);
        pumpFor(milliseconds(100));
        most = std::max(most, resourcesOf(agent->pid()).memory);
    }
    const std::chrono::duration<double> length = Clock::now() - start;
    const double share =
        (resourcesOf(agent->pid()).processorSeconds - before.processorSeconds) / length.count();

    std::cout << "calm: " << summaryOf(calm) << "\nflooded for " << length.count() << " s by " << flood.sent()
              << " signals of 1 MiB: " << summaryOf(flooded) << ", " << share << " of a processor, memory "
              << before.memory << " KiB before, " << most << " KiB at most\n";
    EXPECT_GE(flood.sent(), fewestSignals);
    EXPECT_LT(share, 0.5);
    EXPECT_LT(most, before.memory + 16UL * 1024 * VELM_MEMORY_FACTOR) << "KiB";
    EXPECT_LT(medianOf(flooded.events), std::chrono::seconds(10));
    EXPECT_EQ(agent->log().messages(mark), expected);
    EXPECT_EQ(agent->log().count(message::disconnected), 0U);
}

}  // namespace
}  // namespace link_tests
