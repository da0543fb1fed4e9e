#include <gmock/gmock.h>

#include <cstdint>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>

#include "LogTestSupport.h"
#include "logging/FileDestination.h"
#include "logging/Log.h"
#include "logging/RotationStrategy.h"

namespace {

// Nobody outside sees the logger's own strategy. An explicit instantiation may name what is private
// ([temp.spec.general]).
std::shared_ptr<Logging::SizeRotationStrategy> ownStrategy(Logging::Logger& logger);
template <auto Member>
struct Reveal {
    friend std::shared_ptr<Logging::SizeRotationStrategy> ownStrategy(Logging::Logger& logger) {
        return logger.*Member;
    }
};
template struct Reveal<&Logging::Logger::m_sizeRotationStrategy>;

using Logging::DestinationFactory;
using Logging::Logger;
using Logging::LogRotationOption;
using Logging::MaxOldLogCount;
using Logging::MaxSizeBytes;
using Logging::SizeRotationStrategy;
using logtest::ConsoleBuffer;
using logtest::CoutRedirect;
using logtest::readFile;
using logtest::ScratchDirectory;
using logtest::writeFile;

static_assert(Logging::NoRotation == 0 && Logging::SizeRotation == 1 && sizeof(LogRotationOption) == 4);
static_assert(std::is_same_v<decltype(MaxSizeBytes::value), std::uint64_t> && sizeof(MaxSizeBytes) == 8);
static_assert(std::is_same_v<decltype(MaxOldLogCount::value), std::int32_t> && sizeof(MaxOldLogCount) == 4);

class DefaultLogTest : public logtest::LoggerFixture {
protected:
    void TearDown() override {
        LoggerFixture::TearDown();
        m_redirect.reset();
    }

    // Rotation empties the file and the line that caused it is not counted: each such line rotates once.
    static std::string lineAboveTheLimit(char filler) {
        std::string line(6000001, filler);
        return line;
    }

    ScratchDirectory m_directory;
    std::string m_path = m_directory.path("agent.log");
    ConsoleBuffer m_console;
    std::unique_ptr<CoutRedirect> m_redirect = std::make_unique<CoutRedirect>(m_console);
};

TEST_F(DefaultLogTest, WritesToTheConsoleAndTheFile) {
    Logger::instance().initAsDefault(m_path);
    EXPECT_EQ(readFile(m_path), "") << "the file is made at once";
    log("x");
    EXPECT_THAT(readFile(m_path), ::testing::EndsWith(" [TRACE] x\n"));
    EXPECT_EQ(m_console.str(), readFile(m_path));
    EXPECT_EQ(m_console.flushes(), 0);
}

// Tells what the log file held whenever the console was given something. How many calls a line takes is the
// library's business, so what did not change is told once.
class FileWatchingConsole : public std::streambuf {
public:
    explicit FileWatchingConsole(std::string path) : m_path(std::move(path)) {}
    std::string seen() const { return m_seen; }

protected:
    std::streamsize xsputn(const char* /*text*/, std::streamsize count) override {
        look();
        return count;
    }
    int_type overflow(int_type byte) override {
        look();
        return traits_type::not_eof(byte);
    }

private:
    void look() {
        const std::string now = "{" + readFile(m_path) + "}";
        if (now != m_last) {
            m_last = now;
            m_seen += now;
        }
    }

    std::string m_last;
    std::string m_path;
    std::string m_seen;
};

TEST_F(DefaultLogTest, TheConsoleComesBeforeTheFile) {
    FileWatchingConsole console(m_path);
    const CoutRedirect redirect(console);
    Logger::instance().initAsDefault(m_path);
    showMessageOnly();
    log("one");
    log("two");
    EXPECT_EQ(console.seen(), "{}{one\n}");
}

TEST_F(DefaultLogTest, AnEmptyPathInstallsTheConsoleOnlyAndCounts) {
    Logger::instance().initAsDefault("");
    Logger::instance().initAsDefault(m_path);
    EXPECT_FALSE(std::filesystem::exists(m_path));
    showMessageOnly();
    log("x");
    EXPECT_EQ(m_console.str(), "x\n");
}

TEST_F(DefaultLogTest, ASecondCallDoesNothing) {
    Logger::instance().initAsDefault(m_path);
    Logger::instance().initAsDefault(m_path);
    Logger::instance().initAsDefault(m_directory.path("other.log"));
    showMessageOnly();
    log("x");
    EXPECT_EQ(m_console.str(), "x\n");
    EXPECT_EQ(readFile(m_path), "x\n");
    EXPECT_FALSE(std::filesystem::exists(m_directory.path("other.log")));
}

TEST_F(DefaultLogTest, AFileThatCannotBeOpenedRaisesAndLeavesTheConsole) {
    EXPECT_THROW(Logger::instance().initAsDefault(m_directory.path("missing/agent.log")),
                 std::ios_base::failure);
    showMessageOnly();
    log("x");
    EXPECT_EQ(m_console.str(), "x\n");
}

TEST_F(DefaultLogTest, AfterAFailureTheLoggerIsNotInitialisedAndACallInstallsASecondConsole) {
    EXPECT_THROW(Logger::instance().initAsDefault(m_directory.path("missing/agent.log")),
                 std::ios_base::failure);
    Logger::instance().initAsDefault(m_path);
    showMessageOnly();
    log("x");
    EXPECT_EQ(m_console.str(), "x\nx\n");
    EXPECT_EQ(readFile(m_path), "x\n");
}

TEST_F(DefaultLogTest, ComesBehindDestinationsThatAreAlreadyThere) {
    const auto recorder = addRecorder();
    Logger::instance().initAsDefault("");
    log("x");
    EXPECT_EQ(recorder->lines().size(), 1U);
    EXPECT_EQ(m_console.str(), recorder->lines()[0] + "\n");
}

TEST_F(DefaultLogTest, TheFileGoesToTheProcesssLoggerWhicheverLoggerIsSetUp) {
    Logger other;
    other.initAsDefault(m_path);
    showMessageOnly();
    log("x");
    EXPECT_EQ(readFile(m_path), "x\n");
    EXPECT_EQ(m_console.str(), "") << "the console went to the other logger";
}

TEST_F(DefaultLogTest, RotatesAboveSixMillionBytesAndNotAtThem) {
    writeFile(m_path, std::string(5999990, 'x'));
    Logger::instance().initAsDefault(m_path);
    showMessageOnly();
    log("ten bytes.");
    EXPECT_FALSE(std::filesystem::exists(m_path + "1"));
    log("!");
    EXPECT_EQ(std::filesystem::file_size(m_path + "1"), 6000001U);
    EXPECT_EQ(readFile(m_path), "!\n");
}

TEST_F(DefaultLogTest, KeepsThreeOldFiles) {
    Logger::instance().initAsDefault(m_path);
    showMessageOnly();
    for (const char filler : {'a', 'b', 'c', 'd', 'e'}) {
        log(lineAboveTheLimit(filler));
    }
    EXPECT_EQ(readFile(m_path), lineAboveTheLimit('e') + "\n");
    EXPECT_EQ(readFile(m_path + "1"), lineAboveTheLimit('d') + "\n");
    EXPECT_EQ(readFile(m_path + "2"), lineAboveTheLimit('c') + "\n");
    EXPECT_EQ(readFile(m_path + "3"), lineAboveTheLimit('b') + "\n");
    EXPECT_FALSE(std::filesystem::exists(m_path + "4"));
}

TEST_F(DefaultLogTest, SetsUpTheLoggersOwnStrategyAndNoOther) {
    EXPECT_EQ(ownStrategy(Logger::instance())->getBackupCount(), 0);
    Logger::instance().initAsDefault(m_path);
    EXPECT_EQ(ownStrategy(Logger::instance())->getBackupCount(), 3);
    EXPECT_EQ(ownStrategy(Logger::instance())->getPathName(), m_path);
}

TEST_F(DefaultLogTest, ARotationThatFailsLosesTheLineInTheFileOnly) {
    std::filesystem::create_symlink(m_directory.path("missing/target"), m_path + "1");
    Logger::instance().initAsDefault(m_path);
    showMessageOnly();
    log("one");
    EXPECT_NO_THROW(log(lineAboveTheLimit('x')));
    EXPECT_NO_THROW(log("two"));
    EXPECT_EQ(readFile(m_path), "one\n");
    EXPECT_EQ(m_console.str(), "one\n" + lineAboveTheLimit('x') + "\ntwo\n");
}

class FileDestinationFactoryTest : public ::testing::Test {
protected:
    std::shared_ptr<Logging::Destination> make(LogRotationOption option, std::uint64_t size,
                                               std::int32_t count) {
        return DestinationFactory::makeFileDestination(m_path, option, MaxSizeBytes(size),
                                                       MaxOldLogCount(count), m_strategy);
    }

    // The strategy's limit is `size` if a count of it does not rotate and one more does.
    void expectLimit(std::size_t size) {
        m_strategy->includeMessageInCalculation(std::string(size, 'x'));
        EXPECT_FALSE(m_strategy->shouldRotate());
        m_strategy->includeMessageInCalculation("x");
        EXPECT_TRUE(m_strategy->shouldRotate());
    }

    ScratchDirectory m_directory;
    std::string m_path = m_directory.path("agent.log");
    std::shared_ptr<SizeRotationStrategy> m_strategy = std::make_shared<SizeRotationStrategy>();
};

TEST_F(FileDestinationFactoryTest, ConfiguresAndSharesTheStrategyForSizeRotation) {
    const auto destination = make(Logging::SizeRotation, 100, 4);
    EXPECT_EQ(m_strategy->getBackupCount(), 4);
    EXPECT_EQ(m_strategy->getPathName(), m_path);
    EXPECT_EQ(m_strategy.use_count(), 2) << "one handle here, one in the destination";
    expectLimit(100);
}

TEST_F(FileDestinationFactoryTest, MakesADestinationThatRotates) {
    const auto destination = make(Logging::SizeRotation, 3, 1);
    destination->write("one");
    destination->write("two");
    EXPECT_EQ(readFile(m_path), "two\n");
    EXPECT_EQ(readFile(m_path + "1"), "one\n");
}

TEST_F(FileDestinationFactoryTest, LeavesTheClampingOfTheCountToTheStrategy) {
    make(Logging::SizeRotation, 100, 15);
    EXPECT_EQ(m_strategy->getBackupCount(), 10);
    make(Logging::SizeRotation, 100, -2);
    EXPECT_EQ(m_strategy->getBackupCount(), -2);
}

TEST_F(FileDestinationFactoryTest, PassesSizesBeyondThirtyTwoBits) {
    const auto destination = make(Logging::SizeRotation, (1ULL << 32U) + 1, 3);
    std::filesystem::resize_file(m_path, (1ULL << 32U) + 1);
    m_strategy->setInitialInfo(m_path);
    EXPECT_FALSE(m_strategy->shouldRotate());
    m_strategy->includeMessageInCalculation("x");
    EXPECT_TRUE(m_strategy->shouldRotate());
}

TEST_F(FileDestinationFactoryTest, AnyOtherOptionNeverRotatesAndLeavesTheStrategyAlone) {
    for (const int option : {0, 2, -1}) {
        m_path = m_directory.path("option" + std::to_string(option));
        const auto destination = make(static_cast<LogRotationOption>(option), 1, 3);
        destination->write("one");
        destination->write("two");
        EXPECT_EQ(readFile(m_path), "one\ntwo\n") << option;
        EXPECT_FALSE(std::filesystem::exists(m_path + "1")) << option;
        EXPECT_EQ(m_strategy.use_count(), 1) << option;
        EXPECT_EQ(m_strategy->getBackupCount(), 0) << option;
        EXPECT_EQ(m_strategy->getPathName(), "") << option;
    }
    expectLimit(0);
}

TEST_F(FileDestinationFactoryTest, WithoutRotationNoStrategyIsNeeded) {
    m_strategy.reset();
    EXPECT_NO_THROW(make(Logging::NoRotation, 1, 3)->write("x"));
    EXPECT_EQ(readFile(m_path), "x\n");
}

TEST_F(FileDestinationFactoryTest, AFileThatCannotBeOpenedRaisesAndKeepsNoHandleOnTheConfiguredStrategy) {
    m_path = m_directory.path("missing/agent.log");
    EXPECT_THROW(make(Logging::SizeRotation, 100, 4), std::ios_base::failure);
    EXPECT_EQ(m_strategy.use_count(), 1);
    EXPECT_EQ(m_strategy->getBackupCount(), 4);
    EXPECT_EQ(m_strategy->getPathName(), "");
    EXPECT_THROW(make(Logging::NoRotation, 100, 4), std::ios_base::failure);
}

}  // namespace
