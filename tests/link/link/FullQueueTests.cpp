#include <array>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "link/support/LinkTest.h"

namespace link_tests {
namespace {

constexpr const char* limitsExceeded = "org.freedesktop.DBus.Error.LimitsExceeded";
constexpr std::size_t queueBytes = std::size_t{1024} * 1024;

/// A user who fills what the bus keeps for somebody who stands still. A bus counts what one connection has
/// under way, so that it takes two to fill as much as one may leave unread.
class QueueFiller {
public:
    explicit QueueFiller(const std::string& busAddress)
        : m_peers{BusPeer(busAddress, intruderUser), BusPeer(busAddress, intruderUser)} {}

    /// More than two queues full, of signals that nobody follows. What the bus does not take now it gets
    /// with time.
    void fill(const std::string& victim) {
        const std::vector<std::uint8_t> bytes(std::size_t{64} * 1024);
        for (std::size_t sent = 0; sent < 2 * queueBytes; sent += bytes.size()) {
            for (BusPeer& peer : m_peers) {
                const MessageHandle signal = peer.newSignal({victim, "/", "com.example.Noise"}, "Noise");
                check(sd_bus_message_append_array(signal.get(), 'y', bytes.data(), bytes.size()), "append");
                peer.send(signal);
            }
        }
    }

private:
    std::array<BusPeer, 2> m_peers;
};

class FullQueue : public LinkTest {
protected:
    /// The daemon is replaced while the agent stands still, with a queue that has no room for the bus to
    /// tell it so.
    void replaceUnnoticed() {
        bus.boundQueues(queueBytes);
        startSystem();
        startLinked();
        ASSERT_TRUE(awaitSessionRead(ownSession));
        // A dbus-daemon before 1.14.8 ends with a failed assertion where it drops a signal of its own while
        // somebody monitors it (CVE-2023-34969).
        monitor.reset();
        mark = agent->log().mark();
        agentName = daemon->agent();
        agent->signal(SIGSTOP);
        QueueFiller filler(bus.address());
        filler.fill(agentName);
        // dbus-broker's limits are those of a user, and it parts with whoever goes beyond.
        ASSERT_TRUE(PrivateBus::isBroker() || awaitQueueFull());
        daemon->crash();
        daemon = std::make_unique<FakeDaemon>(bus.address());
        agent->signal(SIGCONT);
    }

    /// Only the daemon asks, for a call of anybody else would make the agent doubt who the daemon is.
    bool awaitQueueFull() {
        const auto patience = std::chrono::milliseconds(50);
        return await([&] {
            const MessageHandle call =
                daemon->peer().newCall(daemon->agentTarget(), "logLevel", "x", std::int64_t{1});
            return daemon->peer().call(call, patience).error == limitsExceeded;
        });
    }

    void expectLinkedAgain() {
        EXPECT_TRUE(confirmLink(*daemon));
        EXPECT_GE(agent->log().count(message::disconnected, mark), 1U);
    }

    std::string agentName;
    std::size_t mark = 0;
};

TEST_F(FullQueue, WithTheDaemonReplacedMeanwhileIsNoticedAtTheNextEvent) {
    ASSERT_NO_FATAL_FAILURE(replaceUnnoticed());
    logind->setLockedHint(ownSession, true);
    expectLinkedAgain();
}

TEST_F(FullQueue, WithTheDaemonReplacedMeanwhileIsNoticedWhenTheNewOneCalls) {
    ASSERT_NO_FATAL_FAILURE(replaceUnnoticed());
    // The queue empties only now.
    const BusTarget target{agentName, agentPath, agentInterface};
    ASSERT_TRUE(await([&] {
        return daemon->peer().call(target, "logLevel", "x", std::int64_t{2}).error != limitsExceeded;
    }));
    expectLinkedAgain();
}

}  // namespace
}  // namespace link_tests
