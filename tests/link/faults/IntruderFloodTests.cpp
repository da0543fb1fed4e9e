#include <algorithm>
#include <chrono>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "link/faults/FaultTest.h"
#include "link/faults/RawPeer.h"

namespace link_tests {
namespace {

constexpr const char* accessDenied = "org.freedesktop.DBus.Error.AccessDenied";

/// What another user of the machine may throw at an agent whose link is up.
class IntruderFlood : public FaultTest {
protected:
    void SetUp() override {
        startLinkedAndReady();
        pumpFor(std::chrono::milliseconds(1500));
        before = resourcesOf(agent->pid());
        mark = agent->log().mark();
    }

    /// No line, no loss, no memory, and everything works.
    void expectUnharmed() {
        EXPECT_EQ(agent->log().messages(mark), Messages{});
        expectThatAllWorks();
        EXPECT_EQ(agent->log().count(message::disconnected), 0U);
        expectNoMoreThan(before);
        expectAQuickEnd();
    }

    Resources before;
    std::size_t mark = 0;
};

TEST_F(IntruderFlood, AHundredThousandCallsInARowAreRefusedInBoundedMemory) {
    BusPeer intruder(bus.address(), intruderUser);
    const BusTarget target = daemon->agentTarget();
    constexpr int calls = 100000;
    std::size_t most = 0;
    for (int call = 0; call < calls; ++call) {
        intruder.send(target, "connected", "b", 1);
        if (call % 5000 == 0) {
            pumpFor(std::chrono::milliseconds(1));
            most = std::max(most, resourcesOf(agent->pid()).memory);
        }
    }
    // Refused after all of them.
    EXPECT_EQ(intruder.call(intruder.newCall(target, "connected", "b", 1), patience).error, accessDenied);
    EXPECT_LT(std::max(most, resourcesOf(agent->pid()).memory), before.memory + 64UL * 1024) << "KiB";
    expectUnharmed();
}

TEST_F(IntruderFlood, ATenThousandForgedSignalsOfEachKindChangeNothing) {
    Intruder intruder(bus.address(), intruderUser);
    intruder.aimAt(agent->pid());
    ASSERT_GE(intruder.victims().size(), 2U);
    const std::string session = MockLogind::pathOf(ownSession);
    for (int round = 0; round < 10000; ++round) {
        intruder.forgeNameOwnerChanged(daemonName, daemon->peer().uniqueName().c_str(), "");
        intruder.forgeNameOwnerChanged("org.freedesktop.login1", ":1.1", "");
        intruder.forgeLockedHint(session, true);
        intruder.forgeSession("SessionRemoved", ownSession, session);
        intruder.forgeActiveChanged("org.mate.ScreenSaver", "/org/mate/ScreenSaver", true);
        if (round % 500 == 0) {
            intruder.delivered();
        }
    }
    intruder.delivered();
    expectUnharmed();
}

TEST_F(IntruderFlood, EveryKindOfCallIsRefused) {
    BusPeer intruder(bus.address(), intruderUser);
    const std::string agentName = daemon->agent();
    const std::vector<BusTarget> targets{
        {agentName, agentPath, agentInterface},
        {agentName, agentPath, ""},
        {agentName, agentPath, "org.freedesktop.DBus.Properties"},
        {agentName, agentPath, "org.freedesktop.DBus.Peer"},
        {agentName, agentPath, "org.freedesktop.DBus.Introspectable"},
        {agentName, agentPath, "org.freedesktop.DBus.ObjectManager"},
        {agentName, agentPath, "com.brovik.Other"},
        {agentName, "/", "org.freedesktop.DBus.Introspectable"},
        {agentName, "/", "org.freedesktop.DBus.Peer"},
        {agentName, "/other", agentInterface},
    };
    const std::vector<std::string> members{
        "connected",    "putMessage", "logLevel", "initRmmMessage", "networkReachability", "rmmMessage",
        "Introspect",   "Get",        "Set",      "GetAll",         "GetManagedObjects",   "Ping",
        "GetMachineId", "other"};
    for (const BusTarget& target : targets) {
        for (const std::string& member : members) {
            SCOPED_TRACE(target.path + " " + target.interface + " " + member);
            EXPECT_EQ(intruder.call(target, member.c_str(), "").error, accessDenied);
            EXPECT_EQ(intruder.call(target, member.c_str(), "ssb", "", "", 1).error, accessDenied);
        }
    }
    expectUnharmed();
}

TEST_F(IntruderFlood, BrokenMessagesCostTheirSenderTheConnectionAndNobodyElse) {
    std::mt19937 random(7);  // NOLINT(cert-msc32-c,cert-msc51-cpp): the same bytes each time
    for (int round = 0; round < 30; ++round) {
        const RawPeer oversized(bus.socketPath(), intruderUser);
        oversized.say(startOfCall(daemon->agent(), 200U * 1024 * 1024) + std::string(4096, 'x'));
        const RawPeer truncated(bus.socketPath(), intruderUser);
        truncated.say(startOfCall(daemon->agent(), 64) + "half");
        const RawPeer garbled(bus.socketPath(), intruderUser);
        std::string bytes = startOfCall(daemon->agent(), 8) + std::string(8, '\377');
        for (int change = 0; change < 8; ++change) {
            bytes[random() % bytes.size()] = static_cast<char>(random());
        }
        garbled.say(bytes);
        pumpFor(std::chrono::milliseconds(5));
    }
    expectUnharmed();
}

TEST_F(IntruderFlood, TheLargestMessagesOfAStrangerAreRefused) {
    BusPeer intruder(bus.address(), intruderUser);
    const std::vector<std::uint8_t> bytes(16UL * 1024 * 1024);
    for (int round = 0; round < 5; ++round) {
        const MessageHandle call = intruder.newCall(daemon->agentTarget(), "putMessage");
        check(sd_bus_message_append_array(call.get(), 'y', bytes.data(), bytes.size()), "append");
        EXPECT_EQ(intruder.call(call).error, accessDenied);
    }
    EXPECT_EQ(agent->log().messages(mark), Messages{});
    expectThatAllWorks();
    EXPECT_EQ(agent->log().count(message::disconnected), 0U);
    expectAQuickEnd();
}

}  // namespace
}  // namespace link_tests
