#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "link/faults/FaultTest.h"
#include "link/support/DrippingBus.h"
#include "link/support/SilentBus.h"

namespace link_tests {
namespace {

using std::chrono::milliseconds;

class SystemFault : public FaultTest {
protected:
    /// All taken already; poll(2) itself refuses more descriptors than the limit.
    static constexpr unsigned fewest = 3;

    /// As the agent's user, who may do that to its own processes without any privilege.
    void limitDescriptors(unsigned limit) {
        ChildProcess limiting({"/usr/bin/prlimit", "--pid", std::to_string(agent->pid()),
                               "--nofile=" + std::to_string(limit) + ":"},
                              {}, [] { becomeUser(agentUser); });
        ASSERT_EQ(limiting.awaitEnd(), "exit 0");
    }

    /// Where the distribution's package puts it.
    static std::string fakeTimeLibrary() {
        std::vector<std::filesystem::path> places{"/usr/lib", "/usr/lib64"};
        for (const auto& entry : std::filesystem::directory_iterator("/usr/lib")) {
            places.push_back(entry.path());
        }
        for (const auto& place : places) {
            std::string library = place / "faketime/libfaketimeMT.so.1";
            if (std::filesystem::exists(library)) {
                return library;
            }
        }
        return "";
    }

    void setWallClock(const std::string& offset) const {
        // Replaced in one step, as the agent reads it at any moment.
        std::ofstream(machine.pathOf("offset.new")) << offset << "\n";
        std::filesystem::rename(machine.pathOf("offset.new"), machine.pathOf("offset"));
    }

    void expectThatABusThatSays(const std::string& piece) {
        {
            const SilentBus silent(bus.socketPath(), piece);
            startAgent();
            ASSERT_TRUE(agent->log().awaitCount(message::tick, 2));
            ASSERT_TRUE(await([&] { return silent.callers() >= 1; }));
            expectNoHotLoop();
        }
        startSystem();
        relink();
        awaitReady();
        expectThatAllWorks();
        expectAQuickEnd();

        const SilentBus again(bus.socketPath() + "2", piece);
        options.systemBus += "2";
        startAgent();
        ASSERT_TRUE(await([&] { return again.callers() >= 1; }));
        expectAQuickEnd();
    }
};

TEST_F(SystemFault, WithoutDescriptorsItWaitsAndLinksOnceThereAreSome) {
    startLinkedAndReady();
    limitDescriptors(fewest);
    const std::size_t mark = agent->log().mark();
    daemon->crash();
    ASSERT_TRUE(agent->log().awaitCount(message::tick, 3, mark));
    expectNoHotLoop();
    limitDescriptors(1024);
    relink();
    expectThatAllWorks();
    expectAQuickEnd();
}

TEST_F(SystemFault, WithoutDescriptorsItEndsAllTheSame) {
    startLinkedAndReady();
    limitDescriptors(fewest);
    const std::size_t mark = agent->log().mark();
    daemon->crash();
    ASSERT_TRUE(agent->log().awaitCount(message::tick, 2, mark));
    expectAQuickEnd();
}

TEST_F(SystemFault, AWallClockThatIsSetByHoursLeavesTheTicksASecondApart) {
    const std::string library = fakeTimeLibrary();
    ASSERT_FALSE(library.empty()) << "libfaketime is not installed";
    setWallClock("+0");
    options.environment = {"LD_PRELOAD=" + library, "FAKETIME_TIMESTAMP_FILE=" + machine.pathOf("offset"),
                           "FAKETIME_NO_CACHE=1", "FAKETIME_DONT_FAKE_MONOTONIC=1"};
    bus.start();
    startAgent();
    ASSERT_TRUE(agent->log().awaitCount(message::tick, 2));
    for (const char* offset : {"+5h", "-9h", "+0"}) {
        SCOPED_TRACE(offset);
        setWallClock(offset);
        const auto began = std::chrono::steady_clock::now();
        const std::size_t mark = agent->log().mark();
        ASSERT_TRUE(agent->log().awaitCount(message::tick, 4, mark));
        // Three whole intervals and a part of one, however late the test looks.
        EXPECT_GE(std::chrono::steady_clock::now() - began, milliseconds(2900));
    }
    relink();
    expectAQuickEnd();
}

TEST_F(SystemFault, StoppedAndContinuedItTellsWhatHappenedMeanwhile) {
    startLinkedAndReady();
    for (int round = 0; round < 3; ++round) {
        agent->signal(SIGSTOP);
        pumpFor(milliseconds(1200));
        agent->signal(SIGCONT);
        expectThatAllWorks();
    }
    EXPECT_EQ(agent->log().count(message::disconnected), 0U);
    expectAQuickEnd();
}

TEST_F(SystemFault, ABusThatAcceptsAndNeverAnswersIsLeftForOneThatDoes) {
    expectThatABusThatSays("");
}

TEST_F(SystemFault, ABusThatStopsInItsGreetingIsLeftForOneThatAnswers) {
    expectThatABusThatSays("DATA\r\nOK 0123456789abcd");
}

TEST_F(SystemFault, ABusThatSendsHalfAMessageIsLeftForOneThatSendsWholeOnes) {
    expectThatABusThatSays(std::string("DATA\r\nOK 0123456789abcdef0123456789abcdef\r\n") +
                           std::string("l\1\0\1\377\0\0\0\1\0\0\0", 12));
}

TEST_F(SystemFault, AHundredRestartsOfTheBusLeaveNothingBehind) {
    startLinkedAndReady();
    pumpFor(milliseconds(1500));
    const Resources before = resourcesOf(agent->pid());
    logind.reset();
    monitor.reset();
    daemon.reset();
    for (int round = 0; round < 100; ++round) {
        bus.stop();
        bus.start();
        pumpFor(milliseconds(20));
    }
    bus.stop();
    startSystem();
    relink();
    awaitReady();
    expectThatAllWorks();
    expectNoMoreThan(before);
    expectAQuickEnd();
}

TEST_F(SystemFault, TwentyRestartsOfLogindLeaveNothingBehind) {
    startLinkedAndReady();
    pumpFor(milliseconds(1500));
    const Resources before = resourcesOf(agent->pid());
    for (int round = 0; round < 20; ++round) {
        logind->stop();
        logind->start();
    }
    const std::size_t reads = sessionReads(ownSession);
    logind->addSession(ownSession, agentUser);
    logind->announce(ownSession);
    ASSERT_TRUE(awaitSessionRead(ownSession, reads + 1));
    expectThatAllWorks();
    expectNoMoreThan(before);
    expectAQuickEnd();
}

TEST_F(SystemFault, ABusThatAnswersByteByByteIsLinkedOverAllTheSame) {
    startSystem();
    const DrippingBus dripping(machine.pathOf("dripping"), bus.socketPath(), agentUser);
    options.systemBus = "unix:path=" + machine.pathOf("dripping");
    startAgent();
    relink();
    ASSERT_TRUE(agent->log().await(message::connected));
    awaitReady();
    // What was asked has been answered; the answers come late.
    ASSERT_TRUE(await([&] { return dripping.quietTurns() > 1000; }));
    expectThatAllWorks();
    EXPECT_GT(dripping.given(), 1000U);
    EXPECT_EQ(agent->log().count(message::disconnected), 0U);
    expectAQuickEnd();
}

TEST_F(SystemFault, ABusThatAnswersByteByByteDoesNotHoldTheEndUp) {
    startSystem();
    const DrippingBus dripping(machine.pathOf("dripping"), bus.socketPath(), agentUser);
    options.systemBus = "unix:path=" + machine.pathOf("dripping");
    startAgent();
    // In the middle of the greeting.
    ASSERT_TRUE(await([&] { return dripping.given() >= 20; }));
    expectAQuickEnd();
}

}  // namespace
}  // namespace link_tests
