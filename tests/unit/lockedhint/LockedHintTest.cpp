#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "link/support/PrivateBus.h"
#include "platform/linux/process/FileDescriptor.h"
#include "unit/platform/runloop/LoopFixture.h"
#include "unit/platform/screenlock/FakeLogind.h"
#include "unit/sim/Child.h"

namespace {

using link_tests::PrivateBus;
using std::chrono::milliseconds;
using std::chrono::steady_clock;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
namespace fs = std::filesystem;

/// The real program on a bus of the test's own with a stand-in for logind, which has one session. Its lockers
/// read a pipe until the test writes to it.
class LockedHint : public LoopFixture {
protected:
    void SetUp() override {
        std::string pattern = (fs::temp_directory_path() / "velm-hint-XXXXXX").string();
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        m_directory = pattern;
        ASSERT_EQ(mkfifo(pipe().c_str(), 0600), 0);
        // Held open, so that what is written stays for a locker that has yet to open it.
        m_pipe = platform::FileDescriptor(open(pipe().c_str(), O_RDWR | O_CLOEXEC));
        ASSERT_TRUE(m_pipe);
        m_bus.start();
        m_logind = std::make_unique<FakeLogind>(loop(), m_bus.address());
        m_logind->have("s1", {getuid()});
    }
    void TearDown() override {
        m_pipe.reset();
        fs::remove_all(m_directory);
    }

    std::string pipe() const { return (m_directory / "pipe").string(); }

    std::unique_ptr<Child> run(std::vector<std::string> locker) const {
        locker.insert(locker.begin(), {VELM_LOCKED_HINT, "--"});
        return std::make_unique<Child>(locker, environment());
    }
    std::vector<std::string> environment() const {
        return {"DBUS_SYSTEM_BUS_ADDRESS=" + m_bus.address(), "XDG_RUNTIME_DIR=" + m_directory.string()};
    }
    std::unique_ptr<Child> runShell(const std::string& script) const {
        return run({"/bin/sh", "-c", script});
    }
    /// A locker that ends when the test wants it to.
    std::string untilTold() const { return "read line < " + pipe(); }
    /// Has the locker that reads the pipe, or soon will, end; returns when it knows.
    void endLocker() const {
        EXPECT_EQ(write(m_pipe.get(), "\n", 1), 1);
        EXPECT_TRUE(runUntil([this] {
            int unread = 0;
            return ioctl(m_pipe.get(), FIONREAD, &unread) == 0 && unread == 0;
        }));
    }

    bool waitUntilLocked(bool locked) const {
        return runUntil([this, locked] { return m_logind->isLocked("s1") == locked; });
    }
    int statusAtEnd(Child& child) const {
        EXPECT_TRUE(runUntil([&child] { return !child.running(); }));
        return child.awaitEnd();
    }

    /// Runs a locker that ends at once, again where the hint was set and so much time went by that the
    /// program had to take it for one that stays.
    std::unique_ptr<Child> runInNoTime(const std::string& locker, int status) const {
        constexpr milliseconds timeToFail(500);
        constexpr int attempts = 20;
        for (int attempt = 1;; ++attempt) {
            m_logind->forgetHintsSet();
            const auto start = steady_clock::now();
            auto hint = run({locker});
            EXPECT_EQ(statusAtEnd(*hint), status);
            const bool inTime = steady_clock::now() - start < timeToFail;
            if (m_logind->hintsSet().empty() || inTime || attempt == attempts) {
                return hint;
            }
        }
    }

    fs::path m_directory;
    platform::FileDescriptor m_pipe;
    PrivateBus m_bus;
    std::unique_ptr<FakeLogind> m_logind;
};

TEST_F(LockedHint, IsSetWhileTheLockerRuns) {
    const auto hint = runShell(untilTold() + "; exit 3");
    ASSERT_TRUE(waitUntilLocked(true));
    EXPECT_TRUE(hint->running());
    endLocker();
    ASSERT_TRUE(waitUntilLocked(false));
    EXPECT_EQ(statusAtEnd(*hint), 3);
    EXPECT_THAT(m_logind->hintsSet(), ElementsAre(true, false));
    EXPECT_EQ(hint->errors(), "");
}

TEST_F(LockedHint, IsSetWhileALockerRunsThatHasGoneIntoTheBackground) {
    const auto hint = runShell("setsid sh -c '(" + untilTold() + ") &' & exit 0");
    ASSERT_TRUE(waitUntilLocked(true));
    runFor(milliseconds(500));
    EXPECT_TRUE(m_logind->isLocked("s1"));
    EXPECT_TRUE(hint->running());
    endLocker();
    ASSERT_TRUE(waitUntilLocked(false));
    EXPECT_EQ(statusAtEnd(*hint), 0);
}

TEST_F(LockedHint, IsClearedWhenTheLockerIsKilled) {
    const auto hint = runShell(untilTold() + "; kill -KILL $$");
    ASSERT_TRUE(waitUntilLocked(true));
    endLocker();
    ASSERT_TRUE(waitUntilLocked(false));
    EXPECT_EQ(statusAtEnd(*hint), 128 + SIGKILL);
}

TEST_F(LockedHint, IsClearedWhenASignalToTheProgramEndsTheLocker) {
    for (const int signal : {SIGTERM, SIGINT, SIGHUP, SIGQUIT, SIGUSR1, SIGUSR2}) {
        const auto hint = runShell("exec sleep 1000");
        ASSERT_TRUE(waitUntilLocked(true)) << signal;
        hint->signal(signal);
        EXPECT_EQ(statusAtEnd(*hint), 128 + signal);
        EXPECT_TRUE(waitUntilLocked(false)) << signal;
    }
}

TEST_F(LockedHint, StaysSetWhileALockerIgnoresTheSignal) {
    const auto hint = runShell("trap '' TERM; " + untilTold());
    ASSERT_TRUE(waitUntilLocked(true));
    hint->signal(SIGTERM);
    runFor(milliseconds(500));
    EXPECT_TRUE(hint->running());
    EXPECT_TRUE(m_logind->isLocked("s1"));
    endLocker();
    ASSERT_TRUE(waitUntilLocked(false));
    EXPECT_EQ(statusAtEnd(*hint), 0);
}

TEST_F(LockedHint, IsLeftAloneForALockerThatEndsAtOnce) {
    const auto fails = runInNoTime("false", 1);
    EXPECT_EQ(fails->errors(), "");
    EXPECT_THAT(m_logind->hintsSet(), IsEmpty());
    const auto asksAnother = runInNoTime("true", 0);
    EXPECT_THAT(asksAnother->errors(), HasSubstr("true ended at once"));
    EXPECT_THAT(m_logind->hintsSet(), IsEmpty());
}

TEST_F(LockedHint, IsLeftAloneWhenSomebodyElseHasSetIt) {
    m_logind->setHint("s1", true);
    const auto hint = run({"sleep", "1"});
    EXPECT_EQ(statusAtEnd(*hint), 0);
    EXPECT_TRUE(m_logind->isLocked("s1"));
    EXPECT_THAT(m_logind->hintsSet(), IsEmpty());
}

TEST_F(LockedHint, IsNotClearedByASecondLockerThatEndsFirst) {
    const auto first = runShell(untilTold());
    ASSERT_TRUE(waitUntilLocked(true));
    const auto second = run({"sleep", "1"});
    EXPECT_EQ(statusAtEnd(*second), 0);
    EXPECT_TRUE(m_logind->isLocked("s1"));
    endLocker();
    EXPECT_EQ(statusAtEnd(*first), 0);
    EXPECT_FALSE(m_logind->isLocked("s1"));
    EXPECT_THAT(m_logind->hintsSet(), ElementsAre(true, false));
}

TEST_F(LockedHint, IsClearedAlsoWhenTheProgramItselfIsKilled) {
    const auto killed = runShell(untilTold());
    ASSERT_TRUE(waitUntilLocked(true));
    killed->signal(SIGKILL);
    EXPECT_EQ(statusAtEnd(*killed), -SIGKILL);
    runFor(milliseconds(300));
    EXPECT_TRUE(m_logind->isLocked("s1")) << "the locker runs on";
    endLocker();
    EXPECT_TRUE(waitUntilLocked(false));
}

/// The child that does the work.
pid_t keeperOf(const Child& program) {
    const std::string pid = std::to_string(program.pid());
    std::ifstream children("/proc/" + pid + "/task/" + pid + "/children");
    pid_t keeper = 0;
    children >> keeper;
    return keeper;
}

TEST_F(LockedHint, IsClearedByTheNextRunWhenAllOfOneWasKilled) {
    const auto killed = runShell(untilTold());
    ASSERT_TRUE(waitUntilLocked(true));
    const pid_t keeper = keeperOf(*killed);
    ASSERT_GT(keeper, 0);
    kill(keeper, SIGKILL);
    EXPECT_EQ(statusAtEnd(*killed), 128 + SIGKILL);
    endLocker();
    EXPECT_TRUE(m_logind->isLocked("s1"));
    const auto next = runShell(untilTold());
    ASSERT_TRUE(runUntil([this] { return m_logind->hintsSet().size() == 2; }));
    endLocker();
    EXPECT_EQ(statusAtEnd(*next), 0);
    EXPECT_FALSE(m_logind->isLocked("s1"));
}

TEST_F(LockedHint, WaitsForNoChildrenButTheLockers) {
    const std::string script =
        "sleep 300 & echo $! ; exec '" + std::string(VELM_LOCKED_HINT) + "' -- sh -c '" + untilTold() + "'";
    Child program({"/bin/sh", "-c", script}, environment());
    const pid_t stranger = std::stoi(program.awaitLine(""));
    ASSERT_TRUE(waitUntilLocked(true));
    endLocker();
    EXPECT_TRUE(waitUntilLocked(false));
    EXPECT_EQ(statusAtEnd(program), 0);
    kill(stranger, SIGKILL);
}

TEST_F(LockedHint, IsClearedByALogindThatWasAwayJustThen) {
    const auto hint = runShell(untilTold());
    ASSERT_TRUE(waitUntilLocked(true));
    m_logind.reset();
    endLocker();
    runFor(milliseconds(500));
    m_logind = std::make_unique<FakeLogind>(loop(), m_bus.address());
    m_logind->have("s1", {getuid(), "user", true});
    EXPECT_TRUE(waitUntilLocked(false));
    EXPECT_EQ(statusAtEnd(*hint), 0);
}

TEST_F(LockedHint, HoldsUpNoLockerWithoutLogind) {
    m_logind.reset();
    const std::string script =
        "exec 2>&1 '" + std::string(VELM_LOCKED_HINT) + "' -- sh -c '" + untilTold() + "; exit 7'";
    Child hint({"/bin/sh", "-c", script}, environment());
    hint.awaitLine("velm-locked-hint: cannot find the session: ");
    endLocker();
    EXPECT_EQ(statusAtEnd(hint), 7);
}

TEST_F(LockedHint, SaysWhyALockerCannotBeRun) {
    const auto missing = run({"no-such-locker"});
    EXPECT_EQ(statusAtEnd(*missing), 127);
    EXPECT_EQ(missing->errors(), "velm-locked-hint: no-such-locker: No such file or directory\n");
    const auto unfit = run({m_directory.string()});
    EXPECT_EQ(statusAtEnd(*unfit), 126);
    EXPECT_THAT(m_logind->hintsSet(), IsEmpty());
}

TEST_F(LockedHint, SaysHowItIsUsed) {
    for (const std::vector<std::string>& arguments :
         std::vector<std::vector<std::string>>{{}, {"--"}, {"--unknown"}}) {
        std::vector<std::string> command{VELM_LOCKED_HINT};
        command.insert(command.end(), arguments.begin(), arguments.end());
        Child wrong(command);
        EXPECT_EQ(wrong.awaitEnd(), 125);
        EXPECT_THAT(wrong.errors(), HasSubstr("Usage: velm-locked-hint -- LOCKER"));
    }
    Child help({VELM_LOCKED_HINT, "--help"});
    EXPECT_NE(help.awaitLine("Usage:"), "");
    EXPECT_EQ(help.awaitEnd(), 0);
}

}  // namespace
