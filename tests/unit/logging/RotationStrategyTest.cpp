#include "logging/RotationStrategy.h"

#include <gmock/gmock.h>

#include <cstdint>
#include <limits>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "ScratchDirectory.h"
#include "unit/common/VtableSlot.h"

namespace {

using Logging::NullRotationStrategy;
using Logging::SizeRotationStrategy;
using logtest::readFile;
using logtest::ScratchDirectory;
using logtest::writeFile;
using ::testing::Eq;

// Content of the live file (key "") and of what stands beside it, by the suffix of its name.
using Files = std::map<std::string, std::string>;

constexpr const char* liveName = "agent.log";

void createFiles(const ScratchDirectory& directory, const Files& files) {
    for (const auto& [suffix, content] : files) {
        writeFile(directory.path(liveName + suffix), content);
    }
}

Files filesIn(const ScratchDirectory& directory) {
    Files files;
    for (const auto& entry : std::filesystem::directory_iterator(directory.path(""))) {
        const std::string name = entry.path().filename().string();
        EXPECT_EQ(name.rfind(liveName, 0), 0U) << name;
        files[name.substr(std::string(liveName).size())] =
            entry.is_regular_file() ? readFile(entry.path().string()) : "(no regular file)";
    }
    return files;
}

SizeRotationStrategy strategyFor(const ScratchDirectory& directory, int backupCount) {
    SizeRotationStrategy strategy;
    strategy.setFileName(directory.path(liveName));
    strategy.setBackupCount(backupCount);
    return strategy;
}

// True if the strategy's count is exactly `count`: the limit is strict.
bool countIs(SizeRotationStrategy& strategy, unsigned long long count) {
    strategy.setMaximumSizeInBytes(count);
    const bool above = strategy.shouldRotate();
    if (count == 0) {
        return !above;
    }
    strategy.setMaximumSizeInBytes(count - 1);
    return !above && strategy.shouldRotate();
}

// Gives up root's right to read and write everything, for as long as it lives.
class Unprivileged {
public:
    Unprivileged() : m_previous(geteuid()) {
        if (m_previous == 0 && seteuid(65534) != 0) {
            throw std::runtime_error("cannot give up root's rights");
        }
    }
    ~Unprivileged() { EXPECT_EQ(seteuid(m_previous), 0); }
    Unprivileged(const Unprivileged&) = delete;
    Unprivileged& operator=(const Unprivileged&) = delete;
    Unprivileged(Unprivileged&&) = delete;
    Unprivileged& operator=(Unprivileged&&) = delete;

private:
    uid_t m_previous;
};

TEST(IRotationStrategy, KeepsTheOrderOfItsOperations) {
    EXPECT_EQ(vtableSlot(&IRotationStrategy::setInitialInfo), 2U);
    EXPECT_EQ(vtableSlot(&IRotationStrategy::includeMessageInCalculation), 3U);
    EXPECT_EQ(vtableSlot(&IRotationStrategy::shouldRotate), 4U);
    EXPECT_EQ(vtableSlot(&IRotationStrategy::rotate), 5U);
    EXPECT_EQ(vtableSlot(&IRotationStrategy::setFileName), 6U);
    EXPECT_EQ(vtableSlot(&IRotationStrategy::getPathName), 7U);
    EXPECT_EQ(vtableSlot(&IRotationStrategy::getBackupCount), 8U);
}

TEST(NullRotationStrategy, NeverRotates) {
    NullRotationStrategy strategy;
    strategy.includeMessageInCalculation(std::string(1000, 'x'));
    EXPECT_FALSE(strategy.shouldRotate());
}

TEST(NullRotationStrategy, NamesNoPathAndNoBackupsEvenAfterItWasGivenAName) {
    NullRotationStrategy strategy;
    strategy.setFileName("/var/log/agent.log");
    EXPECT_EQ(strategy.getPathName(), "");
    EXPECT_EQ(strategy.getBackupCount(), 0);
}

TEST(NullRotationStrategy, LeavesTheFileAlone) {
    const ScratchDirectory directory;
    createFiles(directory, {{"", "live\n"}});
    NullRotationStrategy strategy;
    strategy.setFileName(directory.path(liveName));
    strategy.setInitialInfo(directory.path(liveName));
    strategy.rotate();
    EXPECT_EQ(filesIn(directory), (Files{{"", "live\n"}}));
}

TEST(SizeRotationStrategy, StartsWithoutNameLimitAndBackups) {
    SizeRotationStrategy strategy;
    EXPECT_EQ(strategy.getPathName(), "");
    EXPECT_EQ(strategy.getBackupCount(), 0);
    EXPECT_FALSE(strategy.shouldRotate());
}

TEST(SizeRotationStrategy, UnconfiguredRotatesForAnyByteButNotForAnEmptyLine) {
    SizeRotationStrategy strategy;
    strategy.includeMessageInCalculation("");
    EXPECT_FALSE(strategy.shouldRotate());
    strategy.includeMessageInCalculation("x");
    EXPECT_TRUE(strategy.shouldRotate());
}

TEST(SizeRotationStrategy, ClampsOnlyTheUpperEndOfTheBackupCount) {
    const std::map<int, int> storedFor = {{15, 10}, {11, 10}, {10, 10}, {9, 9}, {1, 1}, {0, 0}, {-2, -2}};
    for (const auto& [given, stored] : storedFor) {
        SizeRotationStrategy strategy;
        strategy.setBackupCount(given);
        EXPECT_EQ(strategy.getBackupCount(), stored) << given;
    }
    SizeRotationStrategy strategy;
    strategy.setBackupCount(std::numeric_limits<int>::min());
    EXPECT_EQ(strategy.getBackupCount(), std::numeric_limits<int>::min());
    EXPECT_EQ(SizeRotationStrategy::getMaxBackupCount(), 10);
}

TEST(SizeRotationStrategy, ReturnsTheNameThatItWasGiven) {
    SizeRotationStrategy strategy;
    strategy.setFileName("first");
    strategy.setFileName("second");
    EXPECT_EQ(strategy.getPathName(), "second");
}

TEST(SizeRotationStrategy, RotatesAboveTheLimitAndNotAtIt) {
    const ScratchDirectory directory;
    createFiles(directory, {{"", std::string(90, 'x')}});
    for (const auto& [length, rotates] : std::map<std::size_t, bool>{{10, false}, {11, true}}) {
        SizeRotationStrategy strategy;
        strategy.setMaximumSizeInBytes(100);
        strategy.setInitialInfo(directory.path(liveName));
        strategy.includeMessageInCalculation(std::string(length, 'y'));
        EXPECT_EQ(strategy.shouldRotate(), rotates) << length;
        EXPECT_EQ(strategy.shouldRotate(), rotates) << "asking must not change the count";
    }
}

TEST(SizeRotationStrategy, CountsBytesWithoutLineFeeds) {
    SizeRotationStrategy strategy;
    strategy.includeMessageInCalculation("abc");
    strategy.includeMessageInCalculation("");
    strategy.includeMessageInCalculation(std::string("\0\r\n", 3));
    strategy.includeMessageInCalculation("\xc3\xa4");
    EXPECT_TRUE(countIs(strategy, 8));
}

TEST(SizeRotationStrategy, MeasuresTheGivenFileAndForgetsWhatItCounted) {
    const ScratchDirectory directory;
    createFiles(directory, {{"", "ab\r\ncd\n"}, {"other", "x"}});
    SizeRotationStrategy strategy = strategyFor(directory, 3);
    strategy.includeMessageInCalculation(std::string(500, 'x'));
    strategy.setInitialInfo(directory.path(liveName));
    EXPECT_TRUE(countIs(strategy, 7));
    strategy.setInitialInfo(directory.path("agent.logother"));
    EXPECT_TRUE(countIs(strategy, 1));
}

TEST(SizeRotationStrategy, MeasuresFilesBeyondFourGigabytes) {
    const ScratchDirectory directory;
    createFiles(directory, {{"", ""}});
    constexpr std::uintmax_t size = (1ULL << 32U) + 5;
    std::filesystem::resize_file(directory.path(liveName), size);
    SizeRotationStrategy strategy;
    strategy.setInitialInfo(directory.path(liveName));
    EXPECT_TRUE(countIs(strategy, size));
}

TEST(SizeRotationStrategy, AnUnreadableFileCountsAllOnesAndTheNextLineWrapsAround) {
    const ScratchDirectory directory;
    SizeRotationStrategy strategy;
    strategy.setInitialInfo(directory.path("missing"));
    EXPECT_TRUE(countIs(strategy, std::numeric_limits<unsigned long long>::max()));
    strategy.includeMessageInCalculation("ten bytes.");
    EXPECT_TRUE(countIs(strategy, 9));
}

TEST(SizeRotationStrategy, AnEmptyLineAfterAnUnreadableFileStillRotates) {
    SizeRotationStrategy strategy;
    strategy.setMaximumSizeInBytes(6000000);
    strategy.setInitialInfo("/nonexistent/agent.log");
    strategy.includeMessageInCalculation("");
    EXPECT_TRUE(strategy.shouldRotate());
}

TEST(SizeRotationStrategy, KeepsItsCountWhenItRotates) {
    const ScratchDirectory directory;
    createFiles(directory, {{"", "live\n"}});
    SizeRotationStrategy strategy = strategyFor(directory, 3);
    strategy.setInitialInfo(directory.path(liveName));
    strategy.rotate();
    EXPECT_TRUE(countIs(strategy, 5));
}

struct RotationRow {
    const char* name;
    int backupCount;
    Files before;
    Files after;
};

void PrintTo(const RotationRow& row, std::ostream* stream) {
    *stream << row.name;
}

class SizeRotationTable : public ::testing::TestWithParam<RotationRow> {};

TEST_P(SizeRotationTable, LeavesExactlyTheseFiles) {
    const RotationRow& row = GetParam();
    const ScratchDirectory directory;
    createFiles(directory, row.before);
    SizeRotationStrategy strategy = strategyFor(directory, row.backupCount);
    strategy.rotate();
    EXPECT_THAT(filesIn(directory), Eq(row.after));
}

Files numbered(int from, int to, int contentOffset) {
    Files files;
    for (int number = from; number <= to; ++number) {
        files[std::to_string(number)] = "backup " + std::to_string(number + contentOffset) + "\n";
    }
    return files;
}

Files operator+(Files left, const Files& right) {
    left.insert(right.begin(), right.end());
    return left;
}

const std::vector<RotationRow>& rotationRows() {
    static const std::vector<RotationRow> rows = {
        // How many backups there are.
        {"NoBackups", 3, {{"", "live\n"}}, {{"", ""}, {"1", "live\n"}}},
        {"OneBackup", 3, {{"", "live\n"}, {"1", "one\n"}}, {{"", ""}, {"1", "live\n"}, {"2", "one\n"}}},
        {"TwoBackups",
         3,
         {{"", "live\n"}, {"1", "one\n"}, {"2", "two\n"}},
         {{"", ""}, {"1", "live\n"}, {"2", "one\n"}, {"3", "two\n"}}},
        {"AllBackups",
         3,
         {{"", "live\n"}, {"1", "one\n"}, {"2", "two\n"}, {"3", "three\n"}},
         {{"", ""}, {"1", "live\n"}, {"2", "one\n"}, {"3", "two\n"}}},
        {"FirstBackupMissing",
         3,
         {{"", "live\n"}, {"2", "two\n"}},
         {{"", ""}, {"1", "live\n"}, {"2", "two\n"}}},
        {"MiddleBackupMissing",
         3,
         {{"", "live\n"}, {"1", "one\n"}, {"3", "three\n"}},
         {{"", ""}, {"1", "live\n"}, {"2", "one\n"}, {"3", "three\n"}}},
        {"BackupsAboveTheCount", 3, Files{{"", "live\n"}} + numbered(1, 12, 0),
         Files{{"", ""}, {"1", "live\n"}} + numbered(2, 3, -1) + numbered(4, 12, 0)},
        {"DottedNamesAreNoBackups",
         3,
         {{"", "live\n"}, {".1", "dot\n"}},
         {{"", ""}, {"1", "live\n"}, {".1", "dot\n"}}},
        // How many are kept.
        {"CountOneKeepsOne", 1, {{"", "live\n"}, {"1", "one\n"}}, {{"", ""}, {"1", "live\n"}}},
        {"CountOneWithoutBackups", 1, {{"", "live\n"}}, {{"", ""}, {"1", "live\n"}}},
        {"CountTwo", 2, Files{{"", "live\n"}} + numbered(1, 3, 0),
         Files{{"", ""}, {"1", "live\n"}} + numbered(2, 2, -1) + numbered(3, 3, 0)},
        {"CountZeroStillKeepsOne",
         0,
         {{"", "live\n"}, {"1", "one\n"}, {"2", "two\n"}},
         {{"", ""}, {"1", "live\n"}, {"2", "two\n"}}},
        {"CountZeroWithoutBackups", 0, {{"", "live\n"}}, {{"", ""}, {"1", "live\n"}}},
        {"CountNegativeStillKeepsOne",
         -2,
         {{"", "live\n"}, {"1", "one\n"}, {"2", "two\n"}},
         {{"", ""}, {"1", "live\n"}, {"2", "two\n"}}},
        {"CountTen", 10, Files{{"", "live\n"}} + numbered(1, 10, 0),
         Files{{"", ""}, {"1", "live\n"}} + numbered(2, 10, -1)},
        {"CountFifteenKeepsTen", 15, Files{{"", "live\n"}} + numbered(1, 12, 0),
         Files{{"", ""}, {"1", "live\n"}} + numbered(2, 10, -1) + numbered(11, 12, 0)},
        // What is in the files.
        {"LiveFileMissing", 3, {{"1", "one\n"}}, {{"", ""}, {"1", ""}, {"2", "one\n"}}},
        {"LiveFileMissingCountZero", 0, {}, {{"", ""}, {"1", ""}}},
        {"LiveFileEmpty", 3, {{"", ""}, {"1", "one\n"}}, {{"", ""}, {"1", ""}, {"2", "one\n"}}},
        {"LastLineFeedMissing", 3, {{"", "a\nb"}}, {{"", ""}, {"1", "a\nb\n"}}},
        {"LastLineFeedMissingInBackup", 3, {{"", "a\n"}, {"1", "b"}}, {{"", ""}, {"1", "a\n"}, {"2", "b\n"}}},
        {"CarriageReturns", 3, {{"", "a\r\nb\r\n\r"}}, {{"", ""}, {"1", "a\r\nb\r\n\r\n"}}},
        {"EmptyLines", 3, {{"", "\n\na\n\n"}}, {{"", ""}, {"1", "\n\na\n\n"}}},
        {"NulBytesAndBytesAbove127",
         3,
         {{"", std::string("\0a\xff\xc3\xa4\n", 6)}},
         {{"", ""}, {"1", std::string("\0a\xff\xc3\xa4\n", 6)}}},
        {"LongerOldBackupIsTruncated",
         0,
         {{"", "a\n"}, {"1", "a much longer line\n"}},
         {{"", ""}, {"1", "a\n"}}},
        {"LineLongerThanAnyBuffer",
         3,
         {{"", std::string(100000, 'x') + "\n"}},
         {{"", ""}, {"1", std::string(100000, 'x') + "\n"}}},
    };
    return rows;
}

INSTANTIATE_TEST_SUITE_P(Rows, SizeRotationTable, ::testing::ValuesIn(rotationRows()),
                         [](const auto& row) { return row.param.name; });

TEST(SizeRotationStrategy, SuccessiveRotationsKeepTheNewestInOrder) {
    const ScratchDirectory directory;
    SizeRotationStrategy strategy = strategyFor(directory, 3);
    for (int round = 1; round <= 5; ++round) {
        writeFile(directory.path(liveName), "round " + std::to_string(round) + "\n");
        strategy.rotate();
    }
    EXPECT_EQ(filesIn(directory),
              (Files{{"", ""}, {"1", "round 5\n"}, {"2", "round 4\n"}, {"3", "round 3\n"}}));
}

TEST(SizeRotationStrategy, NeverRenamesAFile) {
    const ScratchDirectory directory;
    createFiles(directory, {{"", "live\n"}, {"1", "one\n"}, {"2", "two\n"}});
    const auto inodeOf = [&](const std::string& suffix) {
        struct stat status {};
        EXPECT_EQ(stat(directory.path(liveName + suffix).c_str(), &status), 0);
        return status.st_ino;
    };
    const std::vector<ino_t> before = {inodeOf(""), inodeOf("1"), inodeOf("2")};
    strategyFor(directory, 3).rotate();
    EXPECT_EQ(before, (std::vector<ino_t>{inodeOf(""), inodeOf("1"), inodeOf("2")}));
}

TEST(SizeRotationStrategy, AnAppendingHandleContinuesAtTheStartOfTheEmptiedFile) {
    const ScratchDirectory directory;
    std::ofstream appending(directory.path(liveName), std::ios_base::app);
    appending << "before" << std::endl;
    strategyFor(directory, 3).rotate();
    appending << "after" << std::endl;
    EXPECT_EQ(filesIn(directory), (Files{{"", "after\n"}, {"1", "before\n"}}));
}

TEST(SizeRotationStrategy, RaisesAndChangesNoFileIfTheFirstBackupCannotBeCreated) {
    const ScratchDirectory directory;
    createFiles(directory, {{"", "live\n"}, {"2", "two\n"}});
    std::filesystem::create_symlink(directory.path("missing/target"), directory.path("agent.log1"));
    SizeRotationStrategy strategy = strategyFor(directory, 3);
    EXPECT_THROW(strategy.rotate(), std::ios_base::failure);
    EXPECT_EQ(readFile(directory.path("agent.log")), "live\n");
    EXPECT_EQ(readFile(directory.path("agent.log2")), "two\n");
}

TEST(SizeRotationStrategy, RaisesAndChangesNoFileIfALaterBackupCannotBeCreated) {
    const ScratchDirectory directory;
    createFiles(directory, {{"", "live\n"}, {"1", "one\n"}, {"2", "two\n"}});
    std::filesystem::create_symlink(directory.path("missing/target"), directory.path("agent.log3"));
    SizeRotationStrategy strategy = strategyFor(directory, 3);
    EXPECT_THROW(strategy.rotate(), std::ios_base::failure);
    EXPECT_EQ(readFile(directory.path("agent.log")), "live\n");
    EXPECT_EQ(readFile(directory.path("agent.log1")), "one\n");
    EXPECT_EQ(readFile(directory.path("agent.log2")), "two\n");
}

TEST(SizeRotationStrategy, RaisesIfTheBackupsNameIsTooLong) {
    const ScratchDirectory directory;
    const std::string live = directory.path(std::string(255, 'n'));
    writeFile(live, "live\n");
    SizeRotationStrategy strategy;
    strategy.setFileName(live);
    strategy.setBackupCount(1);
    EXPECT_THROW(strategy.rotate(), std::ios_base::failure);
    EXPECT_EQ(readFile(live), "live\n");
}

TEST(SizeRotationStrategy, RaisesIfTheDirectoryIsMissing) {
    SizeRotationStrategy strategy;
    strategy.setFileName("/nonexistent/agent.log");
    strategy.setBackupCount(3);
    EXPECT_THROW(strategy.rotate(), std::ios_base::failure);
}

TEST(SizeRotationStrategy, ProbesNothingAndSoNeverRaisesWithABackupCountBelowOne) {
    const ScratchDirectory directory;
    createFiles(directory, {{"", "live\n"}});
    std::filesystem::create_symlink(directory.path("missing/target"), directory.path("agent.log1"));
    SizeRotationStrategy strategy = strategyFor(directory, 0);
    EXPECT_NO_THROW(strategy.rotate());
    EXPECT_EQ(readFile(directory.path("agent.log")), "") << "lines that find no room in a backup are lost";
}

TEST(SizeRotationStrategy, ADirectoryInABackupsPlaceLosesTheLinesQuietly) {
    const ScratchDirectory directory;
    createFiles(directory, {{"", "live\n"}});
    std::filesystem::create_directory(directory.path("agent.log1"));
    SizeRotationStrategy strategy = strategyFor(directory, 3);
    EXPECT_NO_THROW(strategy.rotate());
    EXPECT_EQ(filesIn(directory), (Files{{"", ""}, {"1", "(no regular file)"}, {"2", ""}}));
}

TEST(SizeRotationStrategy, ABackupThatCannotBeWrittenLosesTheLinesQuietly) {
    const ScratchDirectory directory;
    createFiles(directory, {{"", "live\n"}, {"1", "one\n"}});
    ASSERT_EQ(chmod(directory.path("agent.log").c_str(), 0666), 0);
    ASSERT_EQ(chmod(directory.path("agent.log1").c_str(), 0444), 0);
    SizeRotationStrategy strategy = strategyFor(directory, 1);
    {
        const Unprivileged unprivileged;
        EXPECT_NO_THROW(strategy.rotate());
    }
    EXPECT_EQ(filesIn(directory), (Files{{"", ""}, {"1", "one\n"}}));
}

TEST(SizeRotationStrategy, ALiveFileThatCannotBeReadLeavesAnEmptyBackup) {
    const ScratchDirectory directory;
    createFiles(directory, {{"", "live\n"}, {"1", "one\n"}});
    ASSERT_EQ(chmod(directory.path("agent.log").c_str(), 0222), 0);
    ASSERT_EQ(chmod(directory.path("agent.log1").c_str(), 0666), 0);
    SizeRotationStrategy strategy = strategyFor(directory, 1);
    {
        const Unprivileged unprivileged;
        EXPECT_NO_THROW(strategy.rotate());
    }
    ASSERT_EQ(chmod(directory.path("agent.log").c_str(), 0666), 0);
    EXPECT_EQ(filesIn(directory), (Files{{"", ""}, {"1", ""}}));
}

TEST(SizeRotationStrategy, ALiveFileThatCannotBeEmptiedKeepsItsContentAndIsCountedAgain) {
    const ScratchDirectory directory;
    createFiles(directory, {{"", "live\n"}});
    ASSERT_EQ(chmod(directory.path("agent.log").c_str(), 0444), 0);
    SizeRotationStrategy strategy = strategyFor(directory, 3);
    {
        const Unprivileged unprivileged;
        EXPECT_NO_THROW(strategy.rotate());
    }
    EXPECT_EQ(filesIn(directory), (Files{{"", "live\n"}, {"1", "live\n"}}));
    strategy.setInitialInfo(strategy.getPathName());
    EXPECT_TRUE(countIs(strategy, 5));
}

}  // namespace
