#include <gmock/gmock.h>
#include <gtest/gtest.h>
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
#include "unit/platform/runloop/LoopFixture.h"
#include "unit/platform/screenlock/FakeLogind.h"
#include "unit/sim/Child.h"

namespace {

using link_tests::PrivateBus;
using std::chrono::milliseconds;
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
        m_bus.start();
        m_logind = std::make_unique<FakeLogind>(loop(), m_bus.address());
        m_logind->have("s1", {getuid()});
    }
    void TearDown() override {
        endLockers();
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
    /// Has all lockers that read the pipe end.
    void endLockers() const {
        std::fstream(pipe(), std::ios::in | std::ios::out) << "end\nend\nend\n" << std::flush;
    }

    bool waitUntilLocked(bool locked) const {
        return runUntil([this, locked] { return m_logind->isLocked("s1") == locked; });
    }
    int statusAtEnd(Child& child) const {
        EXPECT_TRUE(runUntil([&child] { return !child.running(); }));
        return child.awaitEnd();
    }

    fs::path m_directory;
    PrivateBus m_bus;
    std::unique_ptr<FakeLogind> m_logind;
};

TEST_F(LockedHint, IsSetWhileTheLockerRuns) {
    const auto hint = runShell(untilTold() + "; exit 3");
    ASSERT_TRUE(waitUntilLocked(true));
    EXPECT_TRUE(hint->running());
    endLockers();
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
    endLockers();
    ASSERT_TRUE(waitUntilLocked(false));
    EXPECT_EQ(statusAtEnd(*hint), 0);
}

TEST_F(LockedHint, IsClearedWhenTheLockerIsKilled) {
    const auto hint = runShell(untilTold() + "; kill -KILL $$");
    ASSERT_TRUE(waitUntilLocked(true));
    endLockers();
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
    endLockers();
    ASSERT_TRUE(waitUntilLocked(false));
    EXPECT_EQ(statusAtEnd(*hint), 0);
}

TEST_F(LockedHint, IsLeftAloneForALockerThatEndsAtOnce) {
    const auto fails = run({"false"});
    EXPECT_EQ(statusAtEnd(*fails), 1);
    EXPECT_EQ(fails->errors(), "");
    const auto asksAnother = run({"true"});
    EXPECT_EQ(statusAtEnd(*asksAnother), 0);
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
    endLockers();
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
    endLockers();
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
    endLockers();
    EXPECT_TRUE(m_logind->isLocked("s1"));
    const auto next = run({"sleep", "3"});
    EXPECT_EQ(statusAtEnd(*next), 0);
    EXPECT_FALSE(m_logind->isLocked("s1"));
}

TEST_F(LockedHint, WaitsForNoChildrenButTheLockers) {
    const std::string script =
        "sleep 300 & echo $! ; exec '" + std::string(VELM_LOCKED_HINT) + "' -- sh -c '" + untilTold() + "'";
    Child program({"/bin/sh", "-c", script}, environment());
    const pid_t stranger = std::stoi(program.awaitLine(""));
    ASSERT_TRUE(waitUntilLocked(true));
    endLockers();
    EXPECT_TRUE(waitUntilLocked(false));
    EXPECT_EQ(statusAtEnd(program), 0);
    kill(stranger, SIGKILL);
}

TEST_F(LockedHint, IsClearedByALogindThatWasAwayJustThen) {
    const auto hint = runShell(untilTold());
    ASSERT_TRUE(waitUntilLocked(true));
    m_logind.reset();
    endLockers();
    runFor(milliseconds(500));
    m_logind = std::make_unique<FakeLogind>(loop(), m_bus.address());
    m_logind->have("s1", {getuid(), "user", true});
    EXPECT_TRUE(waitUntilLocked(false));
    EXPECT_EQ(statusAtEnd(*hint), 0);
}

TEST_F(LockedHint, HoldsUpNoLockerWithoutLogind) {
    m_logind.reset();
    const auto hint = run({"sh", "-c", "sleep 1; exit 7"});
    EXPECT_EQ(statusAtEnd(*hint), 7);
    EXPECT_THAT(hint->errors(), HasSubstr("velm-locked-hint: cannot find the session: "));
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
