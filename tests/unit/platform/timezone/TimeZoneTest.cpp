#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "platform/linux/timezone/TimeZone.h"
#include "platform/linux/timezone/TimeZoneSource.h"
#include "unit/platform/runloop/LoopFixture.h"

namespace {

using platform::isSameZone;
using platform::readTimeZone;
using platform::TimeZoneSource;
using std::chrono::milliseconds;
namespace fs = std::filesystem;

platform::TimeZone named(const char* name, const char* rules) {
    return {name, rules};
}
platform::TimeZone plainFile(const char* rules) {
    return {"", rules};
}

TEST(IsSameZone, GoesByTheNameWhereBothHaveOne) {
    EXPECT_TRUE(isSameZone(named("A", "1"), named("A", "1")));
    EXPECT_FALSE(isSameZone(named("A", "1"), named("B", "1")));
    EXPECT_TRUE(isSameZone(named("A", "1"), named("A", "2"))) << "new rules";
}

TEST(IsSameZone, GoesByTheRulesOtherwise) {
    EXPECT_TRUE(isSameZone(named("A", "1"), plainFile("1")));
    EXPECT_TRUE(isSameZone(plainFile("1"), named("A", "1")));
    EXPECT_FALSE(isSameZone(named("A", "1"), plainFile("2")));
    EXPECT_FALSE(isSameZone(plainFile("1"), plainFile("2")));
    EXPECT_FALSE(isSameZone(plainFile(""), {})) << "an empty file is not a missing one";
    EXPECT_TRUE(isSameZone({}, {}));
}

/// A directory in the place of /etc, and zones that its localtime may be.
class TimeZone : public LoopFixture {
protected:
    void SetUp() override {
        std::string pattern = (fs::temp_directory_path() / "velm-zone-XXXXXX").string();
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        m_root = pattern;
        fs::create_directories(etc());
        fs::create_directories(m_root / "zoneinfo");
        for (const char* name : {"a", "b", "c"}) {
            std::ofstream(zone(name)) << rulesOf(name);
        }
        fs::create_symlink("../zoneinfo/a", localtime());
    }
    void TearDown() override {
        m_source.reset();
        fs::remove_all(m_root);
    }

    fs::path etc() const { return m_root / "etc"; }
    fs::path localtime() const { return etc() / "localtime"; }
    fs::path zone(const char* name) const { return m_root / "zoneinfo" / name; }

    static std::string rulesOf(const std::string& name) { return "rules of " + name; }

    void start() {
        m_source = std::make_unique<TimeZoneSource>(
            loop(), localtime().string(),
            TimeZoneSource::Handlers{[this](const auto& rules) { return follow(rules); },
                                     [this] { reported(); }, [this] { ++m_unwatched; }});
    }
    bool follow(const std::optional<std::string>& rules) {
        if (m_canFollow) {
            m_followed = rules;
        }
        if (const auto whenFollowing = std::exchange(m_whenFollowing, nullptr)) {
            whenFollowing();
        }
        return m_canFollow;
    }
    void reported() {
        ++m_reports;
        EXPECT_EQ(m_followed, platform::readTimeZone(localtime().string()).rules)
            << "local time follows before the change is told";
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
    int m_unwatched = 0;
    bool m_canFollow = true;
    /// Done once, the next time that local time follows.
    std::function<void()> m_whenFollowing;
    /// What local time has followed last.
    std::optional<std::string> m_followed;
    std::unique_ptr<TimeZoneSource> m_source;
};

TEST_F(TimeZone, HasTheNameThatTheLinkGivesAndTheRulesOfTheFile) {
    EXPECT_EQ(readTimeZone(localtime().string()).name, "a");
    EXPECT_EQ(readTimeZone(localtime().string()).rules, rulesOf("a"));
    setByRename("/somewhere//zoneinfo/./Europe/Berlin");
    EXPECT_EQ(readTimeZone(localtime().string()).name, "Europe/Berlin");
    EXPECT_EQ(readTimeZone(localtime().string()).rules, std::nullopt);
}

TEST_F(TimeZone, HasTheNameThatWasSetAlsoWhereTheZoneDataHasAnotherForIt) {
    fs::create_symlink("b", zone("alias"));
    setByRename("../zoneinfo/alias");
    EXPECT_EQ(readTimeZone(localtime().string()).name, "alias");
    EXPECT_EQ(readTimeZone(localtime().string()).rules, rulesOf("b"));
}

TEST_F(TimeZone, HasNoNameWithoutALinkIntoTheZoneData) {
    makePlain("rules");
    EXPECT_EQ(readTimeZone(localtime().string()).name, "");
    setByRename("../zoneinfo");
    EXPECT_EQ(readTimeZone(localtime().string()).name, "");
    fs::remove(localtime());
    EXPECT_EQ(readTimeZone(localtime().string()).name, "");
    EXPECT_EQ(readTimeZone(localtime().string()).rules, std::nullopt);
}

TEST_F(TimeZone, ReportsALinkThatIsMovedIntoPlace) {
    start();
    setByRename("../zoneinfo/b");
    EXPECT_TRUE(waitForReports(1));
    setByRename("../zoneinfo/a");
    EXPECT_TRUE(waitForReports(2));
    settle();
    EXPECT_EQ(m_reports, 2);
}

TEST_F(TimeZone, WaitsUntilTheLastEventHasSettled) {
    start();
    // Where the machine holds the loop up, what is to be the first of two events may settle alone.
    int attempts = 20;
    do {
        setByRename("../zoneinfo/a");
        settle();
        m_reports = 0;
        fs::remove(localtime());
        runFor(milliseconds(100));
    } while (m_reports != 0 && --attempts > 0);
    ASSERT_EQ(m_reports, 0);
    const auto lastEvent = std::chrono::steady_clock::now();
    fs::create_symlink("../zoneinfo/b", localtime());
    EXPECT_TRUE(waitForReports(1));
    EXPECT_GE(std::chrono::steady_clock::now() - lastEvent, milliseconds(200));
}

TEST_F(TimeZone, ReportsALinkThatIsRemovedAndMadeAgain) {
    start();
    setByRemoving("../zoneinfo/b");
    EXPECT_TRUE(waitForReports(1));
    settle();
    EXPECT_EQ(m_reports, 1);
}

TEST_F(TimeZone, ReportsAZoneWithTheSameContentAndAnotherName) {
    fs::copy_file(zone("a"), zone("d"));
    start();
    setByRename("../zoneinfo/d");
    EXPECT_TRUE(waitForReports(1));
}

TEST_F(TimeZone, ReportsTheMissingFileAsAChange) {
    start();
    fs::remove(localtime());
    EXPECT_TRUE(waitForReports(1));
    fs::create_symlink("../zoneinfo/a", localtime());
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

TEST_F(TimeZone, ReportsEachOfSeveralWritesWithinOneSecond) {
    makePlain("one");
    start();
    write("two");
    EXPECT_TRUE(waitForReports(1));
    write("three");
    EXPECT_TRUE(waitForReports(2));
    settle();
    EXPECT_EQ(m_reports, 2);
}

TEST_F(TimeZone, ReportsAFileThatIsWrittenInPlaceWithTheTimeOfBefore) {
    makePlain("one");
    const auto time = fs::last_write_time(localtime());
    start();
    write("two");
    fs::last_write_time(localtime(), time);
    EXPECT_TRUE(waitForReports(1));
    EXPECT_EQ(m_followed, "two");
}

TEST_F(TimeZone, ReportsAFileThatIsCreatedAndWrittenOnce) {
    fs::remove(localtime());
    start();
    write("one");
    EXPECT_TRUE(waitForReports(1));
    settle();
    EXPECT_EQ(m_reports, 1);
}

TEST_F(TimeZone, ReportsALinkThatIsMovedAway) {
    start();
    fs::rename(localtime(), etc() / "localtime.old");
    EXPECT_TRUE(waitForReports(1));
    settle();
    EXPECT_EQ(m_followed, std::nullopt);
    EXPECT_EQ(m_reports, 1);
}

TEST_F(TimeZone, ReportsAChangeOfASecondLink) {
    fs::create_directory(m_root / "writable");
    fs::create_symlink("../zoneinfo/a", m_root / "writable" / "localtime");
    setByRename("../writable/localtime");
    start();
    fs::remove(m_root / "writable" / "localtime");
    fs::create_symlink("../zoneinfo/b", m_root / "writable" / "localtime");
    EXPECT_TRUE(waitForReports(1));
    EXPECT_EQ(m_followed, rulesOf("b"));
}

TEST_F(TimeZone, ReportsAChangeOfALinkThatCameAfterTheStart) {
    start();
    fs::create_directory(m_root / "writable");
    fs::create_symlink("../zoneinfo/b", m_root / "writable" / "localtime");
    setByRename("../writable/localtime");
    EXPECT_TRUE(waitForReports(1));
    fs::remove(m_root / "writable" / "localtime");
    fs::create_symlink("../zoneinfo/c", m_root / "writable" / "localtime");
    EXPECT_TRUE(waitForReports(2));
    EXPECT_EQ(m_followed, rulesOf("c"));
}

TEST_F(TimeZone, ReportsAChangeOfADirectoryThatIsALink) {
    fs::create_directory(m_root / "other");
    std::ofstream(m_root / "other" / "a") << "other rules";
    fs::create_symlink("zoneinfo", m_root / "data");
    setByRename("../data/a");
    start();
    fs::remove(m_root / "data");
    fs::create_symlink("other", m_root / "data");
    EXPECT_TRUE(waitForReports(1));
    EXPECT_EQ(m_followed, "other rules");
}

TEST_F(TimeZone, ReportsATargetThatComesLater) {
    setByRename("../later/on/zone");
    start();
    fs::create_directories(m_root / "later" / "on");
    settle();
    std::ofstream(m_root / "later" / "on" / "zone") << "rules";
    EXPECT_TRUE(waitForReports(1));
    EXPECT_EQ(m_followed, "rules");
}

TEST_F(TimeZone, FollowsNewRulesOfTheSameZoneWithoutAReport) {
    start();
    std::ofstream(m_root / "zoneinfo" / "a.dpkg-new") << "new rules";
    fs::rename(m_root / "zoneinfo" / "a.dpkg-new", zone("a"));
    EXPECT_TRUE(runUntil([this] { return m_followed == "new rules"; }));
    std::ofstream(zone("a")) << "newer rules";
    EXPECT_TRUE(runUntil([this] { return m_followed == "newer rules"; }));
    EXPECT_EQ(m_reports, 0);
}

TEST_F(TimeZone, SaysNothingOfAPlainCopyOfNewRules) {
    start();
    std::ofstream(zone("a")) << "new rules";
    EXPECT_TRUE(runUntil([this] { return m_followed == "new rules"; }));
    makePlain("new rules");
    settle();
    EXPECT_EQ(m_reports, 0);
}

TEST_F(TimeZone, HasLocalTimeFollowAtTheStart) {
    start();
    EXPECT_EQ(m_followed, rulesOf("a"));
}

TEST_F(TimeZone, ChangedWhileTheWatchIsMadeIsNotMissed) {
    m_whenFollowing = [this] { setByRename("../zoneinfo/b"); };
    start();
    EXPECT_TRUE(waitForReports(1));
    EXPECT_EQ(m_followed, rulesOf("b"));
}

TEST_F(TimeZone, ReportsNothingBeforeLocalTimeHasFollowed) {
    start();
    m_canFollow = false;
    setByRename("../zoneinfo/b");
    settle();
    EXPECT_EQ(m_reports, 0);
    m_canFollow = true;
    EXPECT_TRUE(waitForReports(1));
    EXPECT_EQ(m_followed, rulesOf("b"));
}

TEST_F(TimeZone, LooksAtTheLatestTwoSecondsAfterAChangeThatNeverSettles) {
    start();
    const auto first = std::chrono::steady_clock::now();
    setByRename("../zoneinfo/b");
    while (m_reports == 0 && std::chrono::steady_clock::now() - first < std::chrono::seconds(20)) {
        setByRename("../zoneinfo/b");
        runFor(milliseconds(20));
    }
    EXPECT_EQ(m_reports, 1);
}

TEST_F(TimeZone, LeadsNowhereInACircleAndIsFollowedOutOfIt) {
    fs::create_symlink("localtime", etc() / "circle");
    setByRename("circle");
    start();
    EXPECT_EQ(m_followed, std::nullopt);
    fs::remove(etc() / "circle");
    fs::create_symlink("../zoneinfo/b", etc() / "circle");
    EXPECT_TRUE(waitForReports(1));
}

TEST_F(TimeZone, IsUtcWithAPipeInItsPlace) {
    start();
    fs::remove(localtime());
    ASSERT_EQ(mkfifo(localtime().c_str(), 0600), 0);
    EXPECT_TRUE(waitForReports(1));
    EXPECT_EQ(m_followed, std::nullopt);
}

/// While it lives, the process can open nothing more.
class NoDescriptorsLeft {
public:
    NoDescriptorsLeft() {
        getrlimit(RLIMIT_NOFILE, &m_before);
        const rlimit none{0, m_before.rlim_max};
        setrlimit(RLIMIT_NOFILE, &none);
    }
    ~NoDescriptorsLeft() { setrlimit(RLIMIT_NOFILE, &m_before); }
    NoDescriptorsLeft(const NoDescriptorsLeft&) = delete;
    NoDescriptorsLeft& operator=(const NoDescriptorsLeft&) = delete;

private:
    rlimit m_before{};
};

TEST_F(TimeZone, IsLookedAtFromTimeToTimeWhereItCannotBeWatched) {
    // The loop has its descriptor for timers from the first one on.
    platform::OneShotTimer timer(loop(), [] {});
    timer.start(milliseconds(0));
    {
        const NoDescriptorsLeft none;
        start();
        EXPECT_EQ(m_unwatched, 1);
        // Far enough for the next try, which fails likewise.
        runFor(milliseconds(1500));
        EXPECT_EQ(m_unwatched, 1) << "told once";
    }
    const int before = m_reports;
    setByRename("../zoneinfo/b");
    EXPECT_TRUE(waitForReports(before + 1));
    setByRename("../zoneinfo/c");
    EXPECT_TRUE(waitForReports(before + 2));
}

TEST_F(TimeZone, SaysNothingOfTheZoneThatIsThereAtStart) {
    start();
    settle();
    EXPECT_EQ(m_reports, 0);
}

TEST_F(TimeZone, SaysNothingWhenTheSameZoneIsSetAgain) {
    start();
    setByRename("../zoneinfo/a");
    settle();
    setByRename(zone("a"));
    settle();
    setByRemoving("../zoneinfo/../zoneinfo//a");
    settle();
    makePlain("rules of a");
    runFor(milliseconds(1500));
    EXPECT_EQ(m_reports, 0);
}

TEST_F(TimeZone, SaysNothingWhenAChangeIsTakenBackBeforeItSettles) {
    start();
    setByRename("../zoneinfo/b");
    setByRename("../zoneinfo/a");
    settle();
    EXPECT_EQ(m_reports, 0);
}

TEST_F(TimeZone, IgnoresOtherFiles) {
    start();
    std::ofstream(zone("b")) << "new rules of another zone";
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
    setByRename("../zoneinfo/b");
    EXPECT_TRUE(waitForReports(1));
}

TEST_F(TimeZone, FollowsADirectoryThatIsReplaced) {
    start();
    fs::rename(etc(), m_root / "old");
    fs::create_directory(etc());
    fs::create_symlink("../zoneinfo/b", localtime());
    EXPECT_TRUE(waitForReports(1));
    setByRename("../zoneinfo/c");
    EXPECT_TRUE(waitForReports(2));
}

TEST_F(TimeZone, FollowsADirectoryThatIsDeletedAndMadeAgain) {
    start();
    fs::remove_all(etc());
    runFor(milliseconds(1200));
    fs::create_directory(etc());
    fs::create_symlink("../zoneinfo/b", localtime());
    EXPECT_TRUE(waitForReports(1));
    setByRename("../zoneinfo/c");
    EXPECT_TRUE(waitForReports(2));
}

TEST_F(TimeZone, FollowsADirectoryThatIsMissingAtStart) {
    fs::remove_all(etc());
    start();
    fs::create_directory(etc());
    fs::create_symlink("../zoneinfo/b", localtime());
    EXPECT_TRUE(waitForReports(1));
}

}  // namespace
