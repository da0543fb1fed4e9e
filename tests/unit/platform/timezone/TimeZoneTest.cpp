#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

#include "platform/linux/timezone/TimeZoneSource.h"
#include "platform/linux/timezone/TimeZoneState.h"
#include "unit/platform/runloop/LoopFixture.h"

namespace {

using platform::absoluteNormalPath;
using platform::readTimeZoneFile;
using platform::TimeZoneFile;
using platform::TimeZoneSource;
using platform::TimeZoneState;
using std::chrono::milliseconds;
namespace fs = std::filesystem;

TEST(AbsoluteNormalPath, JoinsARelativeTargetToTheDirectory) {
    EXPECT_EQ(absoluteNormalPath("/etc", "../usr/share/zoneinfo/UTC"), "/usr/share/zoneinfo/UTC");
    EXPECT_EQ(absoluteNormalPath("/etc", "zone"), "/etc/zone");
}

TEST(AbsoluteNormalPath, LeavesOutWhatMeansNothing) {
    EXPECT_EQ(absoluteNormalPath("/etc", "/usr//share/./zoneinfo/"), "/usr/share/zoneinfo");
    EXPECT_EQ(absoluteNormalPath("/etc", "/a/b/../../c"), "/c");
}

TEST(AbsoluteNormalPath, StopsAtTheRoot) {
    EXPECT_EQ(absoluteNormalPath("/etc", "../../../a"), "/a");
    EXPECT_EQ(absoluteNormalPath("/etc", ".."), "/");
}

TimeZoneFile link(const char* zone, const char* content) {
    return {zone, content, 0};
}
TimeZoneFile plainFile(const char* content) {
    return {"", content, 0};
}

TEST(TimeZoneState, DiffersByNameOrByContent) {
    TimeZoneState state(link("/zones/a", "1"));
    EXPECT_FALSE(state.differs(link("/zones/a", "1")));
    EXPECT_TRUE(state.differs(link("/zones/b", "1")));
    EXPECT_TRUE(state.differs(link("/zones/a", "2")));
}

TEST(TimeZoneState, TakesAPlainCopyForTheSameZone) {
    TimeZoneState state(link("/zones/a", "1"));
    EXPECT_FALSE(state.differs(plainFile("1")));
    EXPECT_TRUE(state.differs(plainFile("2")));
    state.take(plainFile("1"));
    EXPECT_FALSE(state.differs(link("/zones/a", "1")));
}

TEST(TimeZoneState, DiffersWhenTheFileComesOrGoes) {
    TimeZoneState state(link("/zones/a", "1"));
    EXPECT_TRUE(state.differs({}));
    state.take({});
    EXPECT_FALSE(state.differs({}));
    EXPECT_TRUE(state.differs(plainFile("")));
}

/// A directory in the place of /etc, and zones that its localtime may be.
class TimeZone : public LoopFixture {
protected:
    void SetUp() override {
        std::string pattern = (fs::temp_directory_path() / "velm-zone-XXXXXX").string();
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        m_root = pattern;
        fs::create_directories(etc());
        fs::create_directories(m_root / "zones");
        for (const char* zone : {"a", "b", "c"}) {
            std::ofstream(m_root / "zones" / zone) << "content of " << zone;
            // A zone's file is far older than the link to it.
            fs::last_write_time(m_root / "zones" / zone,
                                fs::file_time_type::clock::now() - std::chrono::hours(1));
        }
        fs::create_symlink("../zones/a", localtime());
    }
    void TearDown() override {
        m_source.reset();
        fs::remove_all(m_root);
    }

    fs::path etc() const { return m_root / "etc"; }
    fs::path localtime() const { return etc() / "localtime"; }
    fs::path zone(const char* name) const { return m_root / "zones" / name; }

    void start() {
        m_source = std::make_unique<TimeZoneSource>(loop(), etc().string(), [this] { reported(); });
    }
    void reported() {
        ++m_reports;
        struct stat status {};
        if (lstat(localtime().c_str(), &status) == 0 && S_ISREG(status.st_mode)) {
            EXPECT_GT(std::time(nullptr), status.st_mtime) << "tzset() may miss a later write of this second";
        }
    }

    /// As timedated does it: a new link, moved over the old one.
    void setByRename(const fs::path& target) const {
        const fs::path temporary = etc() / ".#localtime123";
        fs::create_symlink(target, temporary);
        fs::rename(temporary, localtime());
    }
    void setByRemoving(const fs::path& target) const {
        fs::remove(localtime());
        fs::create_symlink(target, localtime());
    }
    void write(const char* content) const { std::ofstream(localtime()) << content; }
    void makePlain(const char* content) const {
        fs::remove(localtime());
        write(content);
    }
    bool waitForReports(int count) const {
        return runUntil([this, count] { return m_reports >= count; });
    }
    /// What happened so far is looked at: far more time than the source takes to settle.
    void settle() const { runFor(milliseconds(600)); }

    fs::path m_root;
    int m_reports = 0;
    std::unique_ptr<TimeZoneSource> m_source;
};

TEST_F(TimeZone, ReadsALinkWithItsContent) {
    const TimeZoneFile file = readTimeZoneFile(etc().string());
    EXPECT_EQ(file.zone, zone("a").string());
    EXPECT_EQ(file.content, "content of a");
    EXPECT_NE(file.modified, 0);
}

TEST_F(TimeZone, ReadsAMissingFileAndADanglingLinkAsNoContent) {
    setByRemoving("../zones/none");
    EXPECT_EQ(readTimeZoneFile(etc().string()).content, std::nullopt);
    EXPECT_EQ(readTimeZoneFile(etc().string()).zone, zone("none").string());
    fs::remove(localtime());
    EXPECT_EQ(readTimeZoneFile(etc().string()).content, std::nullopt);
    EXPECT_EQ(readTimeZoneFile(etc().string()).zone, "");
}

TEST_F(TimeZone, NeitherWaitsForAPipeNorReadsADirectory) {
    fs::remove(localtime());
    ASSERT_EQ(mkfifo(localtime().c_str(), 0600), 0);
    EXPECT_EQ(readTimeZoneFile(etc().string()).content, std::nullopt);
    fs::remove(localtime());
    fs::create_directory(localtime());
    EXPECT_EQ(readTimeZoneFile(etc().string()).content, std::nullopt);
}

TEST_F(TimeZone, ReadsNoMoreThanItsBound) {
    fs::remove(localtime());
    constexpr std::size_t bound = 256UL * 1024;
    std::ofstream(localtime()) << std::string(3 * bound, 'x');
    EXPECT_EQ(readTimeZoneFile(etc().string()).content, std::string(bound, 'x'));
}

TEST_F(TimeZone, ReportsALinkThatIsMovedIntoPlace) {
    start();
    setByRename("../zones/b");
    EXPECT_TRUE(waitForReports(1));
    setByRename("../zones/a");
    EXPECT_TRUE(waitForReports(2));
    settle();
    EXPECT_EQ(m_reports, 2);
}

TEST_F(TimeZone, WaitsUntilTheLastEventHasSettled) {
    start();
    fs::remove(localtime());
    runFor(milliseconds(100));
    const auto lastEvent = std::chrono::steady_clock::now();
    fs::create_symlink("../zones/b", localtime());
    EXPECT_TRUE(waitForReports(1));
    EXPECT_GE(std::chrono::steady_clock::now() - lastEvent, milliseconds(200));
}

TEST_F(TimeZone, ReportsALinkThatIsRemovedAndMadeAgain) {
    start();
    setByRemoving("../zones/b");
    EXPECT_TRUE(waitForReports(1));
    settle();
    EXPECT_EQ(m_reports, 1);
}

TEST_F(TimeZone, ReportsAZoneWithTheSameContentAndAnotherName) {
    fs::copy_file(zone("a"), zone("d"));
    start();
    setByRename("../zones/d");
    EXPECT_TRUE(waitForReports(1));
}

TEST_F(TimeZone, ReportsTheMissingFileAsAChange) {
    start();
    fs::remove(localtime());
    EXPECT_TRUE(waitForReports(1));
    fs::create_symlink("../zones/a", localtime());
    EXPECT_TRUE(waitForReports(2));
}

TEST_F(TimeZone, ReportsAPlainFileThatIsRewrittenInPlace) {
    makePlain("one");
    start();
    write("two");
    EXPECT_TRUE(waitForReports(1));
    settle();
    EXPECT_EQ(m_reports, 1);
}

TEST_F(TimeZone, ReportsTheLastOfSeveralWritesWithinOneSecondOnce) {
    makePlain("one");
    start();
    write("two");
    settle();
    write("three");
    EXPECT_TRUE(waitForReports(1));
    runFor(milliseconds(1500));
    EXPECT_LE(m_reports, 2) << "two only if a second ended between the writes";
}

TEST_F(TimeZone, ReportsAFileThatIsCreatedAndWrittenOnce) {
    fs::remove(localtime());
    start();
    write("one");
    EXPECT_TRUE(waitForReports(1));
    runFor(milliseconds(1500));
    EXPECT_EQ(m_reports, 1);
}

TEST_F(TimeZone, SaysNothingOfTheZoneThatIsThereAtStart) {
    start();
    settle();
    EXPECT_EQ(m_reports, 0);
}

TEST_F(TimeZone, SaysNothingWhenTheSameZoneIsSetAgain) {
    start();
    setByRename("../zones/a");
    settle();
    setByRename(zone("a"));
    settle();
    setByRemoving("../zones/../zones//a");
    settle();
    makePlain("content of a");
    runFor(milliseconds(1500));
    EXPECT_EQ(m_reports, 0);
}

TEST_F(TimeZone, SaysNothingWhenAChangeIsTakenBackBeforeItSettles) {
    start();
    setByRename("../zones/b");
    setByRename("../zones/a");
    settle();
    EXPECT_EQ(m_reports, 0);
}

TEST_F(TimeZone, IgnoresOtherFiles) {
    start();
    std::ofstream(zone("a")) << "changed, which nobody announces";
    std::ofstream(etc() / "timezone") << "x";
    std::ofstream(etc() / "localtime.dpkg-new") << "x";
    runFor(milliseconds(1500));
    EXPECT_EQ(m_reports, 0);
}

TEST_F(TimeZone, LooksAgainWhenEventsWereLost) {
    start();
    std::ifstream limit("/proc/sys/fs/inotify/max_queued_events");
    int events = 0;
    limit >> events;
    ASSERT_GT(events, 0);
    // Creating, closing and deleting are three events.
    for (int count = 0; count < events / 3 + 10; ++count) {
        const fs::path file = etc() / ("file" + std::to_string(count));
        std::ofstream(file).close();
        fs::remove(file);
    }
    setByRename("../zones/b");
    EXPECT_TRUE(waitForReports(1));
}

TEST_F(TimeZone, FollowsADirectoryThatIsReplaced) {
    start();
    fs::rename(etc(), m_root / "old");
    fs::create_directory(etc());
    fs::create_symlink("../zones/b", localtime());
    EXPECT_TRUE(waitForReports(1));
    setByRename("../zones/c");
    EXPECT_TRUE(waitForReports(2));
}

TEST_F(TimeZone, FollowsADirectoryThatIsDeletedAndMadeAgain) {
    start();
    fs::remove_all(etc());
    runFor(milliseconds(1200));
    fs::create_directory(etc());
    fs::create_symlink("../zones/b", localtime());
    EXPECT_TRUE(waitForReports(1));
    setByRename("../zones/c");
    EXPECT_TRUE(waitForReports(2));
}

TEST_F(TimeZone, FollowsADirectoryThatIsMissingAtStart) {
    fs::remove_all(etc());
    start();
    fs::create_directory(etc());
    fs::create_symlink("../zones/b", localtime());
    EXPECT_TRUE(waitForReports(1));
}

}  // namespace
