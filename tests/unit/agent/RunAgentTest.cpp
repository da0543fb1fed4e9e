#include <gmock/gmock.h>

#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <iostream>
#include <new>
#include <sstream>
#include <stdexcept>

#include "logging/Log.h"
#include "support/ScarceMemory.h"
#include "unit/agent/AgentFixture.h"
#include "unit/logging/ScratchDirectory.h"
#include "velmmonitord/Agent.h"

// The life of the process, from the log's path to the last thing torn down.

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

const std::string pathAsked = "path in home directory: Library/Logs/velmmonitord.log";
const std::string started = "[TRACE] velmmonitord started";

/// What is written to std::cout while it lives.
class ConsoleCapture {
public:
    ConsoleCapture() : m_console(std::cout.rdbuf(m_text.rdbuf())) {}
    ~ConsoleCapture() { std::cout.rdbuf(m_console); }
    ConsoleCapture(const ConsoleCapture&) = delete;
    ConsoleCapture& operator=(const ConsoleCapture&) = delete;

    std::string text() const { return m_text.str(); }

private:
    std::ostringstream m_text;
    std::streambuf* m_console;
};

class RunAgent : public AgentTest {
protected:
    /// Makes a home directory of this name, with a directory for logs.
    std::string makeHome(const std::string& name) {
        std::string home = m_directory.path(name);
        std::filesystem::create_directories(home + "/Library/Logs");
        fake::setHomeDirectory(home);
        return home;
    }

    /// How many plain files the process has open.
    static int openFiles() {
        int count = 0;
        for (int descriptor = 0; descriptor < 256; ++descriptor) {
            struct stat status {};
            count += fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode) ? 1 : 0;
        }
        return count;
    }

    static std::string firstLineOf(const std::string& path) {
        std::ifstream file(path);
        std::string line;
        std::getline(file, line);
        return line;
    }

    logtest::ScratchDirectory m_directory;
    ConsoleCapture m_console;
};

TEST_F(RunAgent, RunsThroughItsStepsAndBack) {
    makeHome("home");
    EXPECT_EQ(runAgent(), 0);
    EXPECT_THAT(
        entriesWithoutTicks(),
        ElementsAre("process prepared", "pool: pushed", pathAsked, started, "queue: created",
                    "queue: width 1", "queue: operation added", "[TRACE] Monitor launcher is running",
                    "[TRACE] Screen lock monitor is running",
                    "distributed centre: added an observer for com.apple.screenIsLocked",
                    "distributed centre: added an observer for com.apple.screenIsUnlocked",
                    "[TRACE] Time zone change monitor is running",
                    "local centre: added an observer for kCFTimeZoneSystemTimeZoneDidChangeNotification",
                    "run loop: obtained", "run loop: run", "run loop: returned",
                    "local centre: removed an observer for kCFTimeZoneSystemTimeZoneDidChangeNotification",
                    "distributed centre: removed null for com.apple.screenIsLocked",
                    "distributed centre: removed null for com.apple.screenIsUnlocked", "queue: released",
                    "pool: popped"));
}

TEST_F(RunAgent, LogsToTheConsoleAndToTheFileInTheHomeDirectory) {
    const std::string home = makeHome("home");
    runAgent();
    EXPECT_EQ(firstLineOf(home + "/Library/Logs/velmmonitord.log"), started);
    EXPECT_THAT(m_console.text(), testing::StartsWith(started + "\n"));
}

TEST_F(RunAgent, TakesAHomeDirectoryThatIsNotAsciiAsItIs) {
    const std::string home = makeHome("Zo\xC3\xAB \xE5\xAE\xB6");
    runAgent();
    EXPECT_EQ(firstLineOf(home + "/Library/Logs/velmmonitord.log"), started);
}

TEST_F(RunAgent, WithoutAHomeDirectoryLogsToTheConsoleAlone) {
    fake::setHomeDirectory(std::nullopt);
    EXPECT_EQ(runAgent(), 0);
    EXPECT_THAT(m_console.text(), testing::StartsWith(started + "\n"));
    EXPECT_THAT(trace().entries(), testing::Not(testing::Contains(testing::StartsWith("system log: "))));
    EXPECT_TRUE(std::filesystem::is_empty(m_directory.path("")));
}

TEST_F(RunAgent, WithoutAHomeDirectoryOpensNoFileAnywhere) {
    fake::setHomeDirectory(std::nullopt);
    const int before = openFiles();
    int during = -1;
    fake::setRunLoopBody([&] { during = openFiles(); });
    runAgent();
    EXPECT_EQ(during, before);
    makeHome("home");
    Logging::Logger::destroyInstance();
    runAgent();
    EXPECT_EQ(during, before + 1) << "an open log would have been seen";
}

TEST_F(RunAgent, SaysOnceInTheSystemLogThatTheLogCannotBeOpenedAndCarriesOn) {
    const std::string home = m_directory.path("missing");
    fake::setHomeDirectory(home);
    fake::setRunLoopBody([] {
        fake::Operations::runAll();
        fake::postScreenLocked();
    });
    EXPECT_EQ(runAgent(), 0);
    const std::vector<std::string> entries = trace().entriesOfThisThread();
    ASSERT_GE(entries.size(), 5U);
    EXPECT_THAT(std::vector<std::string>(entries.begin(), entries.begin() + 5),
                ElementsAre("process prepared", "pool: pushed", pathAsked,
                            "system log: [ERROR] Failed to create or open log file at path = " + home +
                                "/Library/Logs/velmmonitord.log",
                            started));
    EXPECT_THAT(entries, testing::Contains(testing::StartsWith("system log: ")).Times(1));
    EXPECT_THAT(entries, testing::Contains("connection 1: sent onScreenLocked: YES"));
    EXPECT_THAT(m_console.text(), testing::StartsWith(started + "\n"));
}

TEST_F(RunAgent, AnyOtherFailureOfTheLogEndsIt) {
    if (!fake::ScarceMemory::isAvailable()) {
        GTEST_SKIP() << "a sanitizer's allocator cannot be made to fail";
    }
    makeHome("home");
    {
        const fake::ScarceMemory memory;
        EXPECT_THROW(runAgent(), std::bad_alloc);
    }
    EXPECT_THAT(trace().entries(),
                ElementsAre("process prepared", "pool: pushed", pathAsked, "pool: popped"));
}

TEST_F(RunAgent, BelowTheTraceLevelStartsInSilence) {
    const std::string home = makeHome("home");
    Logging::Logger::instance().setLoggingLevel(Logging::Level::Debug);
    EXPECT_EQ(runAgent(), 0);
    EXPECT_THAT(trace().logLines(), IsEmpty());
    EXPECT_EQ(firstLineOf(home + "/Library/Logs/velmmonitord.log"), "");
    EXPECT_THAT(trace().entries(), testing::Contains("run loop: run"));
}

TEST_F(RunAgent, WhatTheLauncherThrowsWhileItIsMadeEndsIt) {
    makeHome("home");
    trace().onNext("queue: created", [] { throw std::runtime_error("no queue"); });
    EXPECT_THROW(runAgent(), std::runtime_error);
    EXPECT_EQ(trace().entries().back(), "pool: popped");
    EXPECT_THAT(trace().entries(), testing::Not(testing::Contains("run loop: obtained")));
}

TEST_F(RunAgent, WhatTheLaunchThrowsTakesTheLauncherApart) {
    makeHome("home");
    trace().onNext("distributed centre: added an observer for com.apple.screenIsUnlocked",
                   [] { throw std::runtime_error("no observer"); });
    EXPECT_THROW(runAgent(), std::runtime_error);
    const std::vector<std::string> entries = entriesWithoutTicks();
    ASSERT_GE(entries.size(), 5U);
    EXPECT_THAT(
        std::vector<std::string>(entries.end() - 5, entries.end()),
        ElementsAre("local centre: removed an observer for kCFTimeZoneSystemTimeZoneDidChangeNotification",
                    "distributed centre: removed null for com.apple.screenIsLocked",
                    "distributed centre: removed null for com.apple.screenIsUnlocked", "queue: released",
                    "pool: popped"));
}

}  // namespace
