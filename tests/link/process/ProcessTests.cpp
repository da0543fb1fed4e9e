#include <chrono>
#include <csignal>
#include <cstdint>
#include <string>

#include "link/support/LinkTest.h"

namespace link_tests {
namespace {

constexpr const char* logFailure = "[ERROR] Failed to create or open log file at path = ";

bool endsWith(const std::string& text, const std::string& end) {
    return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

class AgentLife : public LinkTest {
protected:
    /// An event of each kind, in both directions, on a link that is up.
    void expectThatAllWorks() {
        logind->setLockedHint(ownSession, true);
        ASSERT_TRUE(daemon->awaitEvents(1));
        machine.timeZones().setByRename(eastZone);
        ASSERT_TRUE(daemon->awaitEvents(2));
        EXPECT_EQ(daemon->events(), (Messages{"onScreenLocked true", "onTimeZoneChanged"}));
        EXPECT_TRUE(daemon->call("logLevel", "x", std::int64_t{2}).ok());
    }

    /// A link to an agent whose log cannot be read while it runs.
    void startLinkedWithoutLog() {
        startSystem();
        daemon = std::make_unique<FakeDaemon>(bus.address());
        startAgent();
        ASSERT_TRUE(daemon->awaitConnects(1));
        ASSERT_TRUE(daemon->confirm().ok());
        ASSERT_TRUE(agent->awaitWatchOfEtc());
        ASSERT_TRUE(awaitSessionRead(ownSession));
    }

    void expectAnEndWithZero(int signal) {
        startSystem();
        startLinked();
        agent->signal(signal);
        EXPECT_EQ(agent->awaitEnd(), "exit 0");
    }

    /// Neither the agent nor the log file, and no file or socket takes the place of the output.
    void expectThatOnlyLinesOfTheOutputAreLost(AgentOptions::Output output) {
        options.output = output;
        startLinkedAndReady();
        const std::size_t mark = agent->log().mark();
        constexpr std::int64_t calls = 2000;
        Messages expected;
        for (std::int64_t level = 0; level < calls; ++level) {
            daemon->send("logLevel", "x", level);
            expected.push_back("xpc service: received log level: " + std::to_string(level));
        }
        ASSERT_TRUE(agent->log().awaitMessages(calls, mark));
        EXPECT_EQ(agent->log().messages(mark), expected);
        expectThatAllWorks();
        EXPECT_EQ(agent->terminate(), "exit 0");
        EXPECT_EQ(agent->log().count(message::started), 1U);
    }

    void startLinkedAndReady() {
        startSystem();
        startLinked();
        ASSERT_TRUE(agent->awaitWatchOfEtc());
        ASSERT_TRUE(awaitSessionRead(ownSession));
    }
};

TEST_F(AgentLife, EndsWithZeroOnSigterm) {
    expectAnEndWithZero(SIGTERM);
}

TEST_F(AgentLife, EndsWithZeroOnSigint) {
    expectAnEndWithZero(SIGINT);
}

TEST_F(AgentLife, EndsWithZeroWithoutAnyBus) {
    startAgent();
    ASSERT_TRUE(agent->log().awaitCount(message::tick, 2));
    EXPECT_EQ(agent->terminate(), "exit 0");
}

TEST_F(AgentLife, EndsWithZeroRightAfterItsStart) {
    bus.start();
    startAgent();
    ASSERT_TRUE(agent->log().await(message::started));
    EXPECT_EQ(agent->terminate(), "exit 0");
}

TEST_F(AgentLife, EndsWithZeroInTheMiddleOfTraffic) {
    startLinkedAndReady();
    std::int64_t level = 0;
    const std::size_t mark = agent->log().mark();
    const auto traffic = [&] {
        for (int call = 0; call < 20; ++call) {
            daemon->send("logLevel", "x", ++level);
            daemon->send("connected", "b", 1);
        }
        logind->setLockedHint(ownSession, level % 40 == 0);
        machine.timeZones().setByRename(level % 80 == 0 ? eastZone : westZone);
    };
    ASSERT_TRUE(await([&] {
        traffic();
        return agent->log().lines().size() > mark + 1000;
    }));
    agent->signal(SIGTERM);
    ASSERT_TRUE(await([&] {
        if (agent->running()) {
            traffic();
        }
        return !agent->running();
    }));
    EXPECT_EQ(agent->awaitEnd(), "exit 0");
    for (const LogLine& line : agent->log().lines()) {
        ASSERT_TRUE(line.wellFormed) << line.message;
    }
}

TEST_F(AgentLife, EndsWithZeroWhileTheBusIsStopped) {
    startLinkedAndReady();
    bus.freeze();
    machine.timeZones().setByRename(eastZone);
    EXPECT_TRUE(agent->log().await(message::sendingZone));
    EXPECT_EQ(agent->terminate(), "exit 0");
    bus.thaw();
}

TEST_F(AgentLife, ALogFileThatCannotBeOpenedIsOneLineInTheSystemLogAndNoMore) {
    machine.removeLogDirectory();
    startLinkedWithoutLog();
    expectThatAllWorks();
    EXPECT_EQ(agent->terminate(), "exit 0");

    const std::vector<std::string>& lines = machine.systemLog().lines();
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_TRUE(endsWith(lines[0], logFailure + machine.logPath())) << lines[0];
    EXPECT_EQ(agent->errors().rawLines(), Messages{});
    EXPECT_EQ(agent->output().lines().front().message, message::started);
    EXPECT_EQ(agent->output().count(message::sendingZone), 1U);
}

TEST_F(AgentLife, WithoutASystemLogThatLineGoesToStandardError) {
    machine.removeLogDirectory();
    machine.removeSystemLog();
    startLinkedWithoutLog();
    expectThatAllWorks();
    EXPECT_EQ(agent->terminate(), "exit 0");
    ASSERT_EQ(agent->errors().rawLines().size(), 1U);
    EXPECT_TRUE(endsWith(agent->errors().rawLines()[0], logFailure + machine.logPath()))
        << agent->errors().rawLines()[0];
}

TEST_F(AgentLife, WithALogFileNothingGoesToTheSystemLog) {
    startLinkedAndReady();
    expectThatAllWorks();
    EXPECT_EQ(agent->terminate(), "exit 0");
    EXPECT_EQ(machine.systemLog().lines(), std::vector<std::string>{});
    EXPECT_EQ(agent->errors().rawLines(), Messages{});
}

TEST_F(AgentLife, AnOutputThatNobodyReadsCostsItsLinesOnly) {
    expectThatOnlyLinesOfTheOutputAreLost(AgentOptions::Output::BrokenPipe);
}

TEST_F(AgentLife, AFullPipeWhoseReaderSleepsCostsItsLinesOnly) {
    expectThatOnlyLinesOfTheOutputAreLost(AgentOptions::Output::FullPipe);
}

TEST_F(AgentLife, AClosedStandardOutputCostsItsLinesOnly) {
    expectThatOnlyLinesOfTheOutputAreLost(AgentOptions::Output::Closed);
}

TEST_F(AgentLife, ClosedStandardStreamsCostTheirLinesOnly) {
    expectThatOnlyLinesOfTheOutputAreLost(AgentOptions::Output::AllClosed);
}

}  // namespace
}  // namespace link_tests
