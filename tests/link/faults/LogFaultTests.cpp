#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>

#include "link/faults/FaultTest.h"

namespace link_tests {
namespace {

namespace fs = std::filesystem;

class LogFault : public FaultTest {
protected:
    std::string logDirectory() const { return machine.home() + "/Library/Logs"; }

    /// One line in the log for each.
    void causeLines(std::int64_t from, std::int64_t to) {
        for (std::int64_t level = from; level < to; ++level) {
            if (level % 500 == 499) {
                // A busy machine would let the answer to all of them wait for too long.
                EXPECT_TRUE(daemon->call("logLevel", "x", level).ok());
            } else {
                daemon->send("logLevel", "x", level);
            }
        }
        // What was sent before it has been dealt with.
        EXPECT_TRUE(daemon->call("logLevel", "x", to).ok());
    }

    /// A log that the next few lines take over the limit.
    void fillLog() const {
        std::ofstream(machine.logPath()) << std::string(5999999, 'x') << "\n";
        ASSERT_EQ(::chown(machine.logPath().c_str(), agentUser, agentUser), 0);
    }

    void linkWithoutReadingTheLog() {
        startSystem();
        daemon = std::make_unique<FakeDaemon>(bus.address());
        startAgent();
        ASSERT_TRUE(daemon->awaitConnects(1));
        ASSERT_TRUE(daemon->confirm().ok());
        awaitReady();
    }
};

TEST_F(LogFault, AFullDiskCostsTheFilesLinesForGoodAndNothingElse) {
    options.asRoot = [this] {
        if (::mount("none", logDirectory().c_str(), "tmpfs", 0, "size=64k,mode=777") != 0) {
            throw std::system_error(errno, std::generic_category(), "tmpfs");
        }
    };
    linkWithoutReadingTheLog();
    constexpr std::int64_t lines = 3000;
    causeLines(0, lines);
    expectThatAllWorks();
    const std::string file = "/proc/" + std::to_string(agent->pid()) + "/root" + machine.logPath();
    EXPECT_GT(fs::file_size(file), 32U * 1024);
    EXPECT_LE(fs::file_size(file), 64U * 1024);

    // Freed again: the stream of the file stays in error.
    fs::resize_file(file, 0);
    causeLines(lines, lines + 100);
    expectThatAllWorks();
    EXPECT_EQ(fs::file_size(file), 0U);
    expectAQuickEnd();
    EXPECT_EQ(agent->output().count("xpc service: received log level: 3099"), 1U);
    EXPECT_EQ(agent->errors().rawLines(), Messages{});
}

TEST_F(LogFault, ADirectoryThatIsTakenAwayCostsNothing) {
    startLinkedAndReady();
    const std::string aside = machine.pathOf("aside");
    fs::rename(logDirectory(), aside);
    expectThatAllWorks();
    expectAQuickEnd();
    AgentLog moved(aside + "/velmmonitord.log");
    EXPECT_EQ(moved.rawLines(), agent->output().rawLines());
}

TEST_F(LogFault, ADirectoryThatTakesNoBackupCostsTheFilesLinesUntilItDoes) {
    fillLog();
    const auto size = fs::file_size(machine.logPath());
    ASSERT_EQ(::chmod(logDirectory().c_str(), 0555), 0);
    linkWithoutReadingTheLog();
    causeLines(0, 200);
    expectThatAllWorks();
    EXPECT_EQ(fs::file_size(machine.logPath()), size);

    ASSERT_EQ(::chmod(logDirectory().c_str(), 0755), 0);
    causeLines(200, 400);
    expectThatAllWorks();
    EXPECT_TRUE(fs::exists(machine.logPath() + "1"));
    expectAQuickEnd();
    EXPECT_EQ(agent->output().count("xpc service: received log level: 199"), 1U);
    EXPECT_EQ(agent->errors().rawLines(), Messages{});
}

TEST_F(LogFault, ABackupsNameThatADirectoryHasTakenCostsThatBackup) {
    fillLog();
    fs::create_directory(machine.logPath() + "1");
    linkWithoutReadingTheLog();
    causeLines(0, 400);
    expectThatAllWorks();
    expectAQuickEnd();
    EXPECT_TRUE(fs::is_directory(machine.logPath() + "1"));
    EXPECT_EQ(agent->output().count("xpc service: received log level: 399"), 1U);
    EXPECT_EQ(agent->errors().rawLines(), Messages{});
}

}  // namespace
}  // namespace link_tests
