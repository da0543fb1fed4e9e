#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <string>
#include <vector>

#include "link/faults/FaultTest.h"
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

class LargeSignals : public FaultTest {
protected:
    /// Locks or unlocks, and tells how long the event took from there to the daemon.
    milliseconds timeOfNextEvent() {
        m_locked = !m_locked;
        expected = expected + (m_locked ? linesOfLock() : linesOfUnlock());
        const auto start = Clock::now();
        logind->setLockedHint(ownSession, m_locked);
        EXPECT_TRUE(daemon->awaitEvents(++m_events));
        return std::chrono::duration_cast<milliseconds>(daemon->peer().calls().back().arrival - start);
    }

    static std::string summaryOf(std::vector<milliseconds> times) {
        std::sort(times.begin(), times.end());
        return std::to_string(times.size()) + " events, median " +
               std::to_string(times[times.size() / 2].count()) + " ms, slowest " +
               std::to_string(times.back().count()) + " ms";
    }

    Messages expected;

private:
    bool m_locked = false;
    std::size_t m_events = 0;
};

TEST_F(LargeSignals, OfAStrangerOnFourConnectionsCostNeitherMemoryNorTimeNorAnEvent) {
    startLinkedAndReady();
    // It copies whatever passes, which would be measured with the bus.
    monitor.reset();
    const std::vector<std::string> victims = daemon->peer().namesOf(agent->pid());
    ASSERT_GE(victims.size(), 2U);
    const std::size_t mark = agent->log().mark();
    std::vector<milliseconds> calm;
    for (int event = 0; event < 10; ++event) {
        calm.push_back(timeOfNextEvent());
        pumpFor(milliseconds(50));
    }

    const Resources before = resourcesOf(agent->pid());
    std::size_t most = 0;
    std::vector<milliseconds> flooded;
    const auto start = Clock::now();
    SignalFlood flood(bus.address(), intruderUser, victims);
    while (Clock::now() - start < floodLength()) {
        flooded.push_back(timeOfNextEvent());
        pumpFor(milliseconds(100));
        most = std::max(most, resourcesOf(agent->pid()).memory);
    }
    const std::chrono::duration<double> length = Clock::now() - start;
    const double share =
        (resourcesOf(agent->pid()).processorSeconds - before.processorSeconds) / length.count();

    std::cout << "calm: " << summaryOf(calm) << "\nflooded for " << length.count() << " s by " << flood.sent()
              << " signals of 1 MiB: " << summaryOf(flooded) << ", " << share << " of a processor, memory "
              << before.memory << " KiB before, " << most << " KiB at most\n";
    // The attack took place.
    EXPECT_GT(flood.sent(), 10U * static_cast<std::uint64_t>(length.count()));
    EXPECT_LT(share, 0.5);
    EXPECT_LT(most, before.memory + 16UL * 1024 * VELM_MEMORY_FACTOR) << "KiB";
    EXPECT_LT(*std::max_element(flooded.begin(), flooded.end()), std::chrono::seconds(10));
    EXPECT_EQ(agent->log().messages(mark), expected);
    EXPECT_EQ(agent->log().count(message::disconnected), 0U);
}

}  // namespace
}  // namespace link_tests
