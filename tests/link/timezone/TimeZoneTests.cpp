#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "link/support/LinkTest.h"

namespace link_tests {
namespace {

class TimeZone : public LinkTest {
protected:
    void startOnBus() {
        bus.start();
        startLinked();
        ASSERT_TRUE(agent->awaitWatchOfEtc());
        mark = agent->log().mark();
    }

    /// Gives the agent time to react to what it should not react to: it may take several changes in quick
    /// succession for one.
    static void letItSettle() { pumpFor(std::chrono::milliseconds(1000)); }

    /// Waits for the `count`th change in all.
    ::testing::AssertionResult sees(std::size_t count) {
        return daemon->awaitEvents(count) ? ::testing::AssertionSuccess()
                                          : ::testing::AssertionFailure() << "no change number " << count;
    }

    void expectThatTheLastLinesStampIsIn(const Zone& zone) {
        const LogLine last = agent->log().lines().back();
        EXPECT_TRUE(last.wellFormed);
        EXPECT_EQ(minutesEastOf(last), zone.minutesEast) << zone.name;
    }

    /// What `count` changes leave, and nothing else.
    void expectExactly(std::size_t count) {
        Messages lines;
        for (std::size_t change = 0; change < count; ++change) {
            lines = lines + linesOfZoneChange();
        }
        EXPECT_EQ(agent->log().messages(mark), lines);
        EXPECT_EQ(daemon->events(), Messages(count, "onTimeZoneChanged"));
    }

    std::size_t mark = 0;
};

TEST_F(TimeZone, AChangeByRenamingIsOneEvent) {
    startOnBus();
    expectThatTheLastLinesStampIsIn(utcZone);
    machine.timeZones().setByRename(eastZone);
    ASSERT_TRUE(sees(1));
    expectThatTheLastLinesStampIsIn(eastZone);
    machine.timeZones().setByRename(westZone);
    ASSERT_TRUE(sees(2));
    expectThatTheLastLinesStampIsIn(westZone);
    expectExactly(2);
}

TEST_F(TimeZone, AChangeByLinkingIsOneEvent) {
    startOnBus();
    machine.timeZones().setByLinking(westZone);
    ASSERT_TRUE(sees(1));
    expectThatTheLastLinesStampIsIn(westZone);
    machine.timeZones().setByLinking(eastZone);
    ASSERT_TRUE(sees(2));
    expectThatTheLastLinesStampIsIn(eastZone);
    expectExactly(2);
}

TEST_F(TimeZone, ARegularFileThatIsRewrittenIsOneEvent) {
    machine.timeZones().makeRegularFile(westZone);
    startOnBus();
    expectThatTheLastLinesStampIsIn(westZone);
    machine.timeZones().rewrite(eastZone);
    ASSERT_TRUE(sees(1));
    expectThatTheLastLinesStampIsIn(eastZone);
    machine.timeZones().setByRename(utcZone);
    ASSERT_TRUE(sees(2));
    expectExactly(2);
}

TEST_F(TimeZone, ARegularFileThatIsRewrittenTwiceInASecondIsTwoEvents) {
    machine.timeZones().makeRegularFile(westZone);
    startOnBus();
    machine.timeZones().rewrite(eastZone);
    ASSERT_TRUE(sees(1));
    machine.timeZones().rewrite(westZone);
    ASSERT_TRUE(sees(2));
    machine.timeZones().setByRename(utcZone);
    ASSERT_TRUE(sees(3));
    expectThatTheLastLinesStampIsIn(utcZone);
    expectExactly(3);
}

TEST_F(TimeZone, TheSameZoneSetAgainIsNoEvent) {
    startOnBus();
    machine.timeZones().setByRename(utcZone);
    letItSettle();
    machine.timeZones().setByLinking(utcZone);
    letItSettle();
    machine.timeZones().setByRename(eastZone);
    ASSERT_TRUE(sees(1));
    machine.timeZones().setByLinking(eastZone);
    letItSettle();
    machine.timeZones().setByLinking(westZone);
    ASSERT_TRUE(sees(2));
    expectExactly(2);
}

TEST_F(TimeZone, ALinkThatIsRemovedLeavesUtcAndMayComeBack) {
    machine.timeZones().setByRename(eastZone);
    startOnBus();
    expectThatTheLastLinesStampIsIn(eastZone);
    machine.timeZones().remove();
    ASSERT_TRUE(sees(1));
    expectThatTheLastLinesStampIsIn(utcZone);
    machine.timeZones().setByLinking(westZone);
    ASSERT_TRUE(sees(2));
    expectThatTheLastLinesStampIsIn(westZone);
    expectExactly(2);
}

TEST_F(TimeZone, OtherFilesOfEtcAreNoEvent) {
    startOnBus();
    for (int round = 0; round < 50; ++round) {
        machine.touchInEtc("timezone");
        machine.touchInEtc("localtime.dpkg-new");
        machine.touchInEtc("localtime2");
    }
    letItSettle();
    machine.timeZones().setByRename(westZone);
    ASSERT_TRUE(sees(1));
    expectExactly(1);
}

TEST_F(TimeZone, ARegularFileThatIsRewrittenWithTheTimeOfBeforeIsOneEvent) {
    machine.timeZones().makeRegularFile(westZone);
    startOnBus();
    machine.timeZones().rewriteKeepingTheTime(eastZone);
    ASSERT_TRUE(sees(1));
    expectThatTheLastLinesStampIsIn(eastZone);
    expectExactly(1);
}

TEST_F(TimeZone, NewRulesOfTheSameZoneAreFollowedWithoutAnEvent) {
    startSystem();
    startLinked();
    ASSERT_TRUE(awaitSessionRead(ownSession));
    machine.timeZones().upgrade(utcZone, eastZone);
    ASSERT_TRUE(await([this] {
        daemon->call("logLevel", "x", std::int64_t{1});
        return minutesEastOf(agent->log().lines().back()) == eastZone.minutesEast;
    }));
    // Had it been an event, that would come first.
    logind->setLockedHint(ownSession, true);
    ASSERT_TRUE(daemon->awaitEvents(1));
    EXPECT_EQ(daemon->events(), daemonSawLock);
    expectThatTheLastLinesStampIsIn(eastZone);
}

TEST_F(TimeZone, APipeInItsPlaceIsUtcAndHoldsUpNothing) {
    machine.timeZones().makePipe();
    startOnBus();
    expectThatTheLastLinesStampIsIn(utcZone);
    machine.timeZones().remove();
    machine.timeZones().setByLinking(eastZone);
    ASSERT_TRUE(sees(1));
    machine.timeZones().makePipe();
    ASSERT_TRUE(sees(2));
    expectThatTheLastLinesStampIsIn(utcZone);
    expectExactly(2);
}

/// What is mounted where only the agent sees it.
class MountedTimeZone : public TimeZone {
protected:
    void inAgentsNamespace(const std::vector<std::string>& command) const {
        std::vector<std::string> whole{"/usr/bin/nsenter",
                                       "--mount=/proc/" + std::to_string(agent->pid()) + "/ns/mnt"};
        whole.insert(whole.end(), command.begin(), command.end());
        ASSERT_EQ(ChildProcess(whole, {"PATH=/usr/sbin:/usr/bin:/sbin:/bin"}).awaitEnd(), "exit 0")
            << command[0];
    }

    /// Mounts something and takes it away again for so long, all the time. In one process: as many commands
    /// would take longer than a busy machine has time for.
    void changeTheMountTableFor(std::chrono::milliseconds span) const {
        const std::string table = "/proc/" + std::to_string(agent->pid()) + "/ns/mnt";
        const auto change = [&] {
            // A thread sanitizer's own thread shares the working directory, and whoever shares it stays where
            // he is.
            bool done = ::unshare(CLONE_FS) == 0 &&
                        ::setns(::open(table.c_str(), O_RDONLY | O_CLOEXEC), CLONE_NEWNS) == 0;
            const auto end = std::chrono::steady_clock::now() + span;
            while (done && std::chrono::steady_clock::now() < end) {
                done = ::mount("none", "/dev/shm", "tmpfs", 0, nullptr) == 0 &&
                       ::umount2("/dev/shm", MNT_DETACH) == 0;
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
            if (!done) {
                throw std::system_error(errno, std::generic_category(), "/dev/shm");
            }
        };
        ASSERT_EQ(ChildProcess({"/bin/true"}, {}, change).awaitEnd(), "exit 0");
    }
};

TEST_F(MountedTimeZone, OverTheFileIsOneEventAndItsGoingAnother) {
    startOnBus();
    inAgentsNamespace({"mount", "--bind", machine.timeZones().fileOf(eastZone), "/etc/localtime"});
    ASSERT_TRUE(sees(1));
    expectThatTheLastLinesStampIsIn(eastZone);
    inAgentsNamespace({"umount", machine.timeZones().fileOf(utcZone)});
    ASSERT_TRUE(sees(2));
    expectThatTheLastLinesStampIsIn(utcZone);
    expectExactly(2);
}

TEST_F(MountedTimeZone, OverTheDirectoryIsOneEventAndFollowedThere) {
    const std::string other = machine.pathOf("other-etc");
    std::filesystem::create_directory(other);
    std::filesystem::create_symlink(machine.timeZones().fileOf(westZone), other + "/localtime");
    startOnBus();
    inAgentsNamespace({"mount", "--bind", other, "/etc"});
    ASSERT_TRUE(sees(1));
    expectThatTheLastLinesStampIsIn(westZone);
    std::filesystem::create_symlink(machine.timeZones().fileOf(eastZone), other + "/localtime.new");
    std::filesystem::rename(other + "/localtime.new", other + "/localtime");
    ASSERT_TRUE(sees(2));
    inAgentsNamespace({"umount", "/etc"});
    ASSERT_TRUE(sees(3));
    expectThatTheLastLinesStampIsIn(utcZone);
    expectExactly(3);
}

TEST_F(MountedTimeZone, ATableThatChangesAllTheTimeIsNoEventAndHidesNone) {
    startOnBus();
    changeTheMountTableFor(std::chrono::milliseconds(3000));
    EXPECT_EQ(daemon->events(), Messages());
    machine.timeZones().setByRename(eastZone);
    ASSERT_TRUE(sees(1));
    expectExactly(1);
}

}  // namespace
}  // namespace link_tests
