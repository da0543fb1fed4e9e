#include "logging/FileDestination.h"

#include <gmock/gmock.h>
#include <sys/resource.h>

#include <csignal>
#include <memory>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <typeinfo>
#include <utility>

#include "LogTestSupport.h"

namespace {

using Logging::FileDestination;
using Logging::NullRotationStrategy;
using Logging::SizeRotationStrategy;
using logtest::readFile;
using logtest::ScratchDirectory;
using logtest::writeFile;
using ::testing::InSequence;
using ::testing::Return;
using ::testing::StrictMock;
using ::testing::Throw;

static_assert(!std::is_copy_constructible_v<FileDestination> && !std::is_copy_assignable_v<FileDestination>);
static_assert(std::is_move_constructible_v<FileDestination>);
static_assert(std::is_base_of_v<Logging::Destination, FileDestination>);

class MockRotationStrategy : public IRotationStrategy {
public:
    MOCK_METHOD(void, setInitialInfo, (const std::string& path), (override));
    MOCK_METHOD(void, includeMessageInCalculation, (const std::string& message), (override));
    MOCK_METHOD(bool, shouldRotate, (), (override));
    MOCK_METHOD(void, rotate, (), (override));
    MOCK_METHOD(void, setFileName, (std::string name), (override));
    MOCK_METHOD(std::string, getPathName, (), (override));
    MOCK_METHOD(int, getBackupCount, (), (override));
};

class FileDestinationTest : public ::testing::Test {
protected:
    FileDestination makeWithMock() {
        EXPECT_CALL(*m_strategy, setFileName(m_path));
        EXPECT_CALL(*m_strategy, setInitialInfo(m_path));
        FileDestination destination(m_path, m_strategy, true);
        ::testing::Mock::VerifyAndClearExpectations(m_strategy.get());
        return destination;
    }

    static std::shared_ptr<SizeRotationStrategy> sizeStrategy(unsigned long long maximum, int backups) {
        auto strategy = std::make_shared<SizeRotationStrategy>();
        strategy->setMaximumSizeInBytes(maximum);
        strategy->setBackupCount(backups);
        return strategy;
    }

    std::string backup(int number) const { return m_path + std::to_string(number); }

    ScratchDirectory m_directory;
    std::string m_path = m_directory.path("agent.log");
    std::shared_ptr<StrictMock<MockRotationStrategy>> m_strategy =
        std::make_shared<StrictMock<MockRotationStrategy>>();
};

// As long as it lives, no file of this process grows beyond `bytes`, which is as good as a full disk.
class FileSizeLimit {
public:
    explicit FileSizeLimit(rlim_t bytes) : m_previousHandler(std::signal(SIGXFSZ, SIG_IGN)) {
        getrlimit(RLIMIT_FSIZE, &m_previous);
        rlimit limit = m_previous;
        limit.rlim_cur = bytes;
        EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
    }
    ~FileSizeLimit() {
        EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &m_previous), 0);
        std::signal(SIGXFSZ, m_previousHandler);
    }
    FileSizeLimit(const FileSizeLimit&) = delete;
    FileSizeLimit& operator=(const FileSizeLimit&) = delete;
    FileSizeLimit(FileSizeLimit&&) = delete;
    FileSizeLimit& operator=(FileSizeLimit&&) = delete;

private:
    void (*m_previousHandler)(int);
    rlimit m_previous{};
};

bool isOpen(const std::string& path) {
    struct stat wanted {};
    if (stat(path.c_str(), &wanted) != 0) {
        throw std::runtime_error("missing: " + path);
    }
    for (int descriptor = 0; descriptor < 256; ++descriptor) {
        struct stat found {};
        if (fstat(descriptor, &found) == 0 && found.st_ino == wanted.st_ino &&
            found.st_dev == wanted.st_dev) {
            return true;
        }
    }
    return false;
}

TEST_F(FileDestinationTest, NamesTheFileToTheStrategyAndThenHasItMeasuredOnceItExists) {
    const InSequence inThisOrder;
    EXPECT_CALL(*m_strategy, setFileName(m_path)).WillOnce([this] { EXPECT_EQ(readFile(m_path), ""); });
    EXPECT_CALL(*m_strategy, setInitialInfo(m_path));
    const FileDestination destination(m_path, m_strategy, true);
    EXPECT_EQ(m_strategy.use_count(), 2) << "the strategy is shared, not copied";
}

TEST_F(FileDestinationTest, CountsAndAsksBeforeItWritesTheLine) {
    FileDestination destination = makeWithMock();
    const InSequence inThisOrder;
    EXPECT_CALL(*m_strategy, includeMessageInCalculation("line")).WillOnce([this] {
        EXPECT_EQ(readFile(m_path), "");
    });
    EXPECT_CALL(*m_strategy, shouldRotate()).WillOnce([this] {
        EXPECT_EQ(readFile(m_path), "");
        return false;
    });
    destination.write("line");
    EXPECT_EQ(readFile(m_path), "line\n") << "the line has reached the system when write() returns";
}

TEST_F(FileDestinationTest, RotatesAndMeasuresWhatTheStrategyNamesBeforeItWritesTheLine) {
    FileDestination destination = makeWithMock();
    const InSequence inThisOrder;
    EXPECT_CALL(*m_strategy, includeMessageInCalculation("line"));
    EXPECT_CALL(*m_strategy, shouldRotate()).WillOnce(Return(true));
    EXPECT_CALL(*m_strategy, rotate()).WillOnce([this] { EXPECT_EQ(readFile(m_path), ""); });
    EXPECT_CALL(*m_strategy, getPathName()).WillOnce(Return("another path"));
    EXPECT_CALL(*m_strategy, setInitialInfo("another path")).WillOnce([this] {
        EXPECT_EQ(readFile(m_path), "");
    });
    destination.write("line");
    EXPECT_EQ(readFile(m_path), "line\n");
}

TEST_F(FileDestinationTest, AppendsToAnExistingFile) {
    writeFile(m_path, "old line\n");
    FileDestination destination = makeWithMock();
    EXPECT_EQ(readFile(m_path), "old line\n");
    EXPECT_CALL(*m_strategy, includeMessageInCalculation("new line"));
    EXPECT_CALL(*m_strategy, shouldRotate()).WillOnce(Return(false));
    destination.write("new line");
    EXPECT_EQ(readFile(m_path), "old line\nnew line\n");
}

TEST_F(FileDestinationTest, StartsCountingAtTheSizeThatTheFileHas) {
    writeFile(m_path, std::string(90, 'x'));
    FileDestination destination(m_path, sizeStrategy(100, 3), true);
    destination.write(std::string(10, 'y'));
    EXPECT_FALSE(std::filesystem::exists(backup(1)));
    destination.write("z");
    EXPECT_EQ(readFile(backup(1)), std::string(90, 'x') + std::string(10, 'y') + "\n");
    EXPECT_EQ(readFile(m_path), "z\n");
}

TEST_F(FileDestinationTest, RaisesAndCallsNoStrategyIfTheDirectoryIsMissing) {
    EXPECT_THROW(FileDestination(m_directory.path("missing/agent.log"), m_strategy, true),
                 std::ios_base::failure);
    EXPECT_EQ(m_strategy.use_count(), 1);
}

TEST_F(FileDestinationTest, RaisesExactlyTheStandardFailure) {
    try {
        const FileDestination destination(m_directory.path(""), m_strategy, true);
        FAIL() << "a directory is no log file";
    } catch (const std::ios_base::failure& failure) {
        EXPECT_EQ(typeid(failure), typeid(std::ios_base::failure));
        EXPECT_EQ(failure.code(), std::io_errc::stream);
        EXPECT_STRNE(failure.what(), "");
    }
}

TEST_F(FileDestinationTest, RaisesForAnEmptyPath) {
    EXPECT_THROW(FileDestination("", m_strategy, false), std::ios_base::failure);
}

TEST_F(FileDestinationTest, AnEmptyLineIsALoneLineFeedAndCountsNothing) {
    FileDestination destination(m_path, sizeStrategy(0, 3), true);
    destination.write("");
    destination.write("");
    EXPECT_EQ(readFile(m_path), "\n\n");
    EXPECT_FALSE(std::filesystem::exists(backup(1)));
}

TEST_F(FileDestinationTest, WritesEveryByteOfALineUnchanged) {
    FileDestination destination(m_path, std::make_shared<NullRotationStrategy>(), true);
    const std::string line("\0two\nlines\r\xff", 12);
    destination.write(line);
    EXPECT_EQ(readFile(m_path), line + "\n");
}

TEST_F(FileDestinationTest, TheLineThatExceedsTheLimitIsTheFirstOfTheEmptiedFileAndNotCountedThere) {
    auto strategy = sizeStrategy(10, 3);
    FileDestination destination(m_path, strategy, true);
    destination.write("12345");
    destination.write("67890");
    EXPECT_EQ(readFile(m_path), "12345\n67890\n")
        << "line feeds are not counted, and the limit itself is allowed";
    destination.write("over the limit");
    EXPECT_EQ(readFile(backup(1)), "12345\n67890\n");
    EXPECT_EQ(readFile(m_path), "over the limit\n");
    strategy->setMaximumSizeInBytes(0);
    EXPECT_FALSE(strategy->shouldRotate()) << "the count restarts at 0";
}

TEST_F(FileDestinationTest, AfterARotationTheFullLimitIsFreeAgain) {
    FileDestination destination(m_path, sizeStrategy(10, 3), true);
    destination.write("over the limit");
    destination.write("ten bytes.");
    EXPECT_EQ(readFile(m_path), "over the limit\nten bytes.\n");
    EXPECT_EQ(readFile(backup(1)), "");
    destination.write("x");
    EXPECT_EQ(readFile(m_path), "x\n");
    EXPECT_EQ(readFile(backup(1)), "over the limit\nten bytes.\n");
}

TEST_F(FileDestinationTest, ContinuesAtTheStartOfAFileThatAnotherHandleEmptied) {
    FileDestination destination(m_path, std::make_shared<NullRotationStrategy>(), true);
    destination.write("before");
    writeFile(m_path, "");
    destination.write("after");
    EXPECT_EQ(readFile(m_path), "after\n");
}

TEST_F(FileDestinationTest, NeverReopensTheFile) {
    FileDestination destination(m_path, sizeStrategy(5, 3), true);
    std::filesystem::rename(m_path, m_directory.path("moved.log"));
    destination.write("one");
    EXPECT_EQ(readFile(m_directory.path("moved.log")), "one\n");
    EXPECT_FALSE(std::filesystem::exists(m_path));
}

class CountingNullStrategy : public NullRotationStrategy {
public:
    void setInitialInfo(const std::string& path) override {
        ++m_measured;
        NullRotationStrategy::setInitialInfo(path);
    }
    void rotate() override { ++m_rotated; }
    std::string getPathName() override {
        ++m_asked;
        return NullRotationStrategy::getPathName();
    }

    int m_measured = 0;
    int m_rotated = 0;
    int m_asked = 0;
};

TEST_F(FileDestinationTest, WithTheNullStrategyTheFileGrowsWithoutLimit) {
    auto strategy = std::make_shared<CountingNullStrategy>();
    FileDestination destination(m_path, strategy, true);
    for (int count = 0; count < 1000; ++count) {
        destination.write(std::string(999, 'x'));
    }
    EXPECT_EQ(std::filesystem::file_size(m_path), 1000000U);
    EXPECT_EQ(strategy->m_measured, 1) << "only at construction";
    EXPECT_EQ(strategy->m_rotated, 0);
    EXPECT_EQ(strategy->m_asked, 0);
}

TEST_F(FileDestinationTest, TheLastArgumentHasNoEffect) {
    for (const bool flag : {true, false}) {
        const std::string path = m_directory.path(flag ? "true.log" : "false.log");
        FileDestination destination(path, sizeStrategy(3, 1), flag);
        destination.write("one");
        destination.write("two");
        EXPECT_EQ(readFile(path), "two\n") << flag;
        EXPECT_EQ(readFile(path + "1"), "one\n") << flag;
    }
}

TEST_F(FileDestinationTest, WhatTheStrategyRaisesKeepsTheLineOutAndTheNextLineTriesAgain) {
    FileDestination destination = makeWithMock();
    EXPECT_CALL(*m_strategy, includeMessageInCalculation).Times(2);
    EXPECT_CALL(*m_strategy, shouldRotate()).Times(2).WillRepeatedly(Return(true));
    EXPECT_CALL(*m_strategy, rotate())
        .WillOnce(Throw(std::ios_base::failure("no backup")))
        .WillOnce(Return());
    EXPECT_CALL(*m_strategy, getPathName()).WillOnce(Return(m_path));
    EXPECT_CALL(*m_strategy, setInitialInfo(m_path));
    EXPECT_THROW(destination.write("lost"), std::ios_base::failure);
    EXPECT_EQ(readFile(m_path), "");
    destination.write("kept");
    EXPECT_EQ(readFile(m_path), "kept\n");
}

TEST_F(FileDestinationTest, ABackupThatCannotBeCreatedIsTriedAgainAtEveryLine) {
    std::filesystem::create_symlink(m_directory.path("later/target"), backup(1));
    FileDestination destination(m_path, sizeStrategy(5, 3), true);
    destination.write("12345");
    EXPECT_THROW(destination.write("lost"), std::ios_base::failure);
    EXPECT_THROW(destination.write(""), std::ios_base::failure) << "the count stays above the limit";
    EXPECT_EQ(readFile(m_path), "12345\n");
    std::filesystem::create_directory(m_directory.path("later"));
    destination.write("kept");
    EXPECT_EQ(readFile(m_path), "kept\n");
    EXPECT_EQ(readFile(m_directory.path("later/target")), "12345\n");
}

// The long line fails while it is inserted, the short one only when the stream is flushed.
TEST_F(FileDestinationTest, AFullDiskIsNeverReportedAndTheStrategyStillSeesEveryLine) {
    for (const std::string& line : {std::string("short"), std::string(1000000, 'x')}) {
        m_path = "/dev/full";
        FileDestination destination = makeWithMock();
        EXPECT_CALL(*m_strategy, includeMessageInCalculation(line)).Times(3);
        EXPECT_CALL(*m_strategy, shouldRotate()).Times(3).WillRepeatedly(Return(false));
        for (int count = 0; count < 3; ++count) {
            EXPECT_NO_THROW(destination.write(line)) << line.size();
        }
        ::testing::Mock::VerifyAndClearExpectations(m_strategy.get());
    }
}

TEST_F(FileDestinationTest, AFullDiskDoesNotKeepTheStrategyFromRotating) {
    m_path = "/dev/full";
    FileDestination destination = makeWithMock();
    EXPECT_CALL(*m_strategy, includeMessageInCalculation).Times(2);
    EXPECT_CALL(*m_strategy, shouldRotate()).WillOnce(Return(false)).WillOnce(Return(true));
    EXPECT_CALL(*m_strategy, rotate());
    EXPECT_CALL(*m_strategy, getPathName()).WillOnce(Return("path"));
    EXPECT_CALL(*m_strategy, setInitialInfo("path"));
    EXPECT_NO_THROW(destination.write("one"));
    EXPECT_NO_THROW(destination.write("two"));
}

TEST_F(FileDestinationTest, StaysSilentForGoodAfterAFailedWriteEvenWhenSpaceIsFreed) {
    FileDestination destination(m_path, std::make_shared<NullRotationStrategy>(), true);
    destination.write("1234");
    {
        const FileSizeLimit limit(8);
        EXPECT_NO_THROW(destination.write("56789"));
        EXPECT_NO_THROW(destination.write("x"));
    }
    EXPECT_EQ(readFile(m_path), "1234\n567");
    EXPECT_NO_THROW(destination.write("there is room again"));
    EXPECT_EQ(readFile(m_path), "1234\n567");
}

TEST_F(FileDestinationTest, AMovedDestinationCarriesOnInTheSameFile) {
    FileDestination original = makeWithMock();
    const FileDestination* const address = &original;
    FileDestination moved(std::move(original));
    ASSERT_NE(&moved, address);
    EXPECT_EQ(m_strategy.use_count(), 2) << "the handle moved";
    EXPECT_CALL(*m_strategy, includeMessageInCalculation("line"));
    EXPECT_CALL(*m_strategy, shouldRotate()).WillOnce(Return(false));
    moved.write("line");
    EXPECT_EQ(readFile(m_path), "line\n");
}

class EndObservingStrategy : public NullRotationStrategy {
public:
    EndObservingStrategy(std::string path, bool& openAtItsEnd)
        : m_path(std::move(path)), m_openAtItsEnd(openAtItsEnd) {}
    ~EndObservingStrategy() override { m_openAtItsEnd = isOpen(m_path); }
    EndObservingStrategy(const EndObservingStrategy&) = delete;
    EndObservingStrategy& operator=(const EndObservingStrategy&) = delete;
    EndObservingStrategy(EndObservingStrategy&&) = delete;
    EndObservingStrategy& operator=(EndObservingStrategy&&) = delete;

private:
    std::string m_path;
    bool& m_openAtItsEnd;
};

TEST_F(FileDestinationTest, ClosesTheFileBeforeItLetsGoOfTheStrategy) {
    bool openAtItsEnd = true;
    auto destination = std::make_unique<FileDestination>(
        m_path, std::make_shared<EndObservingStrategy>(m_path, openAtItsEnd), true);
    ASSERT_TRUE(isOpen(m_path));
    destination.reset();
    EXPECT_FALSE(openAtItsEnd);
}

}  // namespace
