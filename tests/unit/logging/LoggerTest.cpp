#include "logging/Log.h"

#include <gmock/gmock.h>
#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "LogTestSupport.h"
#include "unit/common/ThreadRefusal.h"

namespace {

using Logging::Destination;
using Logging::Level;
using Logging::Logger;
using logtest::RecordingDestination;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;

static_assert(std::is_same_v<std::underlying_type_t<Level>, std::int32_t> &&
              std::is_convertible_v<Level, int>);
static_assert(Logging::None == 0 && Logging::Fatal == 1 && Logging::Error == 2 && Logging::Warn == 3);
static_assert(Logging::Info == 4 && Logging::Debug == 5 && Logging::Trace == 6);
static_assert(!std::is_copy_constructible_v<Logger> && !std::is_polymorphic_v<Logger>);
static_assert(std::is_nothrow_destructible_v<Logger::Helper>, "an exception there must end the process");

constexpr const char* stampPattern = "[0-9]{4}/[0-9]{2}/[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}:[0-9]{3}";

std::string stampOf(const std::string& line) {
    return line.substr(0, 23);
}

class LoggerTest : public logtest::LoggerFixture {};

TEST_F(LoggerTest, StartsAtTraceWithTimeStampsAndTags) {
    EXPECT_EQ(Logger::instance().loggingLevel(), Logging::Trace);
    EXPECT_TRUE(Logger::instance().includeTimestamp());
    EXPECT_TRUE(Logger::instance().includeLogLevel());
}

TEST_F(LoggerTest, KeepsWhatIsSet) {
    Logger::instance().setLoggingLevel(Logging::Warn);
    EXPECT_EQ(Logger::instance().loggingLevel(), Logging::Warn);
    Logger::instance().setIncludeTimestamp(false);
    EXPECT_FALSE(Logger::instance().includeTimestamp());
    EXPECT_TRUE(Logger::instance().includeLogLevel());
    Logger::instance().setIncludeLogLevel(false);
    Logger::instance().setIncludeTimestamp(true);
    EXPECT_TRUE(Logger::instance().includeTimestamp());
    EXPECT_FALSE(Logger::instance().includeLogLevel());
}

TEST_F(LoggerTest, HandsOutOneLogger) {
    EXPECT_EQ(&Logger::instance(), &Logger::instance());
}

TEST_F(LoggerTest, ALineIsStampThenTagThenMessage) {
    const auto recorder = addRecorder();
    {
        Logger::Helper helper(Logging::Trace);
        helper.stream_std() << "text " << 42 << ' ' << true << ' ' << -1.5;
    }
    ASSERT_EQ(recorder->lines().size(), 1U);
    EXPECT_THAT(recorder->lines()[0],
                MatchesRegex(std::string(stampPattern) + " \\[TRACE\\] text 42 1 -1.5"));
}

TEST_F(LoggerTest, TagsEveryLevelSevenColumnsWide) {
    const auto recorder = addRecorder();
    Logger::instance().setIncludeTimestamp(false);
    for (const Level level :
         {Logging::Fatal, Logging::Error, Logging::Warn, Logging::Info, Logging::Debug, Logging::Trace}) {
        log("x", level);
    }
    EXPECT_THAT(recorder->lines(),
                ElementsAre("[FATAL] x", "[ERROR] x", "[WARN]  x", "[INFO]  x", "[DEBUG] x", "[TRACE] x"));
}

TEST_F(LoggerTest, TagsLevelsOutsideTheScaleAsInfo) {
    const auto recorder = addRecorder();
    Logger::instance().setIncludeTimestamp(false);
    for (const int level : {7, 100, -1, std::numeric_limits<int>::min(), std::numeric_limits<int>::max()}) {
        log("x", static_cast<Level>(level));
    }
    EXPECT_EQ(recorder->lines(), std::vector<std::string>(5, "[INFO]  x"));
}

TEST_F(LoggerTest, LevelNoneHasAnEmptyTagAndItsSpace) {
    const auto recorder = addRecorder();
    log("x", Logging::None);
    ASSERT_EQ(recorder->lines().size(), 1U);
    EXPECT_THAT(recorder->lines()[0], MatchesRegex(std::string(stampPattern) + "  x"));
}

TEST_F(LoggerTest, AnEmptyMessageStillHasStampTagAndTrailingSpace) {
    const auto recorder = addRecorder();
    log("");
    ASSERT_EQ(recorder->lines().size(), 1U);
    EXPECT_THAT(recorder->lines()[0], MatchesRegex(std::string(stampPattern) + " \\[TRACE\\] "));
}

TEST_F(LoggerTest, StampAndTagCanBeLeftOutEachByItself) {
    const auto recorder = addRecorder();
    Logger::instance().setIncludeLogLevel(false);
    log("x");
    Logger::instance().setIncludeTimestamp(false);
    log("x");
    log("");
    log("two\nlines\n");
    ASSERT_EQ(recorder->lines().size(), 4U);
    EXPECT_THAT(recorder->lines()[0], MatchesRegex(std::string(stampPattern) + " x"));
    EXPECT_EQ(recorder->lines()[1], "x");
    EXPECT_EQ(recorder->lines()[2], "");
    EXPECT_EQ(recorder->lines()[3], "two\nlines\n");
}

TEST_F(LoggerTest, AHelperIsWrittenWhateverTheLoggersLevel) {
    const auto recorder = addRecorder();
    showMessageOnly();
    Logger::instance().setLoggingLevel(Logging::None);
    log("filtering is up to the caller", Logging::Trace);
    EXPECT_THAT(recorder->lines(), ElementsAre("filtering is up to the caller"));
}

TEST_F(LoggerTest, TheUsualStatementWritesOnlyWhatTheLevelAllows) {
    const auto recorder = addRecorder();
    showMessageOnly();
    for (const Level allowed : {Logging::None, Logging::Error, Logging::Trace}) {
        Logger::instance().setLoggingLevel(allowed);
        for (const Level level : {Logging::Fatal, Logging::Error, Logging::Warn}) {
            if (Logger::instance().loggingLevel() >= level) {
                log(std::to_string(allowed) + " allows " + std::to_string(level), level);
            }
        }
    }
    EXPECT_THAT(recorder->lines(),
                ElementsAre("2 allows 1", "2 allows 2", "6 allows 1", "6 allows 2", "6 allows 3"));
}

TEST_F(LoggerTest, AHelperWritesWhenItGoesOutOfScopeAndNotBefore) {
    const auto recorder = addRecorder();
    {
        Logger::Helper helper(Logging::Trace);
        helper.stream_std() << "x";
        EXPECT_THAT(recorder->lines(), IsEmpty());
    }
    EXPECT_EQ(recorder->lines().size(), 1U);
}

TEST_F(LoggerTest, TheTimeStampIsThatOfTheEndOfTheStatement) {
    const auto recorder = addRecorder();
    std::string late;
    {
        Logger::Helper helper(Logging::Trace);
        helper.stream_std() << "x";
        const std::string early = now_date_time();
        do {
            late = now_date_time();
        } while (late == early);
    }
    ASSERT_EQ(recorder->lines().size(), 1U);
    EXPECT_GE(stampOf(recorder->lines()[0]), late);
}

class FunctionalDestination : public Destination {
public:
    explicit FunctionalDestination(std::function<void(const std::string&)> function)
        : m_function(std::move(function)) {}
    void write(const std::string& line) override { m_function(line); }

private:
    std::function<void(const std::string&)> m_function;
};

void addFunction(std::function<void(const std::string&)> function) {
    Logger::instance().addDestination(std::make_shared<FunctionalDestination>(std::move(function)));
}

TEST_F(LoggerTest, WritesToAllDestinationsInTheOrderInWhichTheyWereAdded) {
    std::vector<std::string> calls;
    for (const std::string name : {"a", "b", "c", "d"}) {
        addFunction([&calls, name](const std::string& line) { calls.push_back(name + line); });
    }
    showMessageOnly();
    log("1");
    log("2");
    EXPECT_THAT(calls, ElementsAre("a1", "b1", "c1", "d1", "a2", "b2", "c2", "d2"));
}

TEST_F(LoggerTest, ADestinationAddedTwiceGetsEveryLineTwice) {
    const auto recorder = addRecorder();
    Logger::instance().addDestination(recorder);
    showMessageOnly();
    log("x");
    EXPECT_THAT(recorder->lines(), ElementsAre("x", "x"));
}

TEST_F(LoggerTest, NeverWritesOnTheThreadThatLogs) {
    std::thread::id writer;
    addFunction([&writer](const std::string&) { writer = std::this_thread::get_id(); });
    log("x");
    EXPECT_NE(writer, std::thread::id());
    EXPECT_NE(writer, std::this_thread::get_id());
}

TEST_F(LoggerTest, TheThreadThatLogsWaitsUntilTheLineIsWritten) {
    bool written = false;
    addFunction([&written](const std::string&) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        written = true;
    });
    log("x");
    EXPECT_TRUE(written);
}

TEST_F(LoggerTest, HoldsItsOwnHandleOnADestinationDuringTheCallOnly) {
    std::weak_ptr<Destination> destination;
    long during = 0;
    {
        const auto shared = std::make_shared<FunctionalDestination>(
            [&](const std::string&) { during = destination.use_count(); });
        destination = shared;
        Logger::instance().addDestination(shared);
    }
    EXPECT_EQ(destination.use_count(), 1);
    log("x");
    EXPECT_EQ(during, 2);
    EXPECT_EQ(destination.use_count(), 1);
}

TEST_F(LoggerTest, ADestinationThatThrowsKeepsOnlyThatLineFromTheLaterOnes) {
    const auto first = addRecorder();
    addFunction([](const std::string& line) {
        if (line == "bad") {
            throw std::runtime_error("cannot write");
        }
    });
    const auto last = addRecorder();
    showMessageOnly();
    for (const char* line : {"one", "bad", "two"}) {
        EXPECT_NO_THROW(log(line));
    }
    EXPECT_THAT(first->lines(), ElementsAre("one", "bad", "two"));
    EXPECT_THAT(last->lines(), ElementsAre("one", "two"));
}

TEST_F(LoggerTest, ADestinationThatAlwaysThrowsDoesNotStopTheLines) {
    const auto first = addRecorder();
    addFunction([](const std::string&) { throw 42; });
    for (int count = 0; count < 10; ++count) {
        EXPECT_NO_THROW(log("x"));
    }
    EXPECT_EQ(first->lines().size(), 10U);
}

TEST_F(LoggerTest, WithoutDestinationsLinesAreDropped) {
    logtest::ConsoleBuffer console;
    const logtest::CoutRedirect redirect(console);
    EXPECT_NO_THROW(log("x"));
    EXPECT_EQ(console.str(), "");
}

TEST_F(LoggerTest, DestroyingTheInstanceReleasesTheDestinationsAndTheNextOneIsFresh) {
    std::weak_ptr<Destination> released;
    {
        const auto recorder = addRecorder();
        released = recorder;
    }
    Logger::instance().setLoggingLevel(Logging::Fatal);
    showMessageOnly();
    ASSERT_FALSE(released.expired());

    Logger::destroyInstance();
    EXPECT_TRUE(released.expired());
    EXPECT_EQ(Logger::instance().loggingLevel(), Logging::Trace);
    EXPECT_TRUE(Logger::instance().includeTimestamp());
    EXPECT_TRUE(Logger::instance().includeLogLevel());
    EXPECT_NO_THROW(log("dropped"));

    const auto recorder = addRecorder();
    log("kept");
    EXPECT_EQ(recorder->lines().size(), 1U);
}

TEST_F(LoggerTest, DestroyingTheInstanceTwiceIsHarmless) {
    EXPECT_NO_THROW(Logger::destroyInstance());
    EXPECT_NO_THROW(Logger::destroyInstance());
}

class LoggerDeathTest : public logtest::LoggerFixture {
protected:
    void SetUp() override {
        LoggerFixture::SetUp();
        GTEST_FLAG_SET(death_test_style, "threadsafe");
    }
};

class AnnouncesItsEnd : public RecordingDestination {
public:
    AnnouncesItsEnd() = default;
    ~AnnouncesItsEnd() override {
        constexpr const char* text = "destination released";
        EXPECT_GE(::write(STDERR_FILENO, text, std::strlen(text)), 0);
    }
    AnnouncesItsEnd(const AnnouncesItsEnd&) = delete;
    AnnouncesItsEnd& operator=(const AnnouncesItsEnd&) = delete;
    AnnouncesItsEnd(AnnouncesItsEnd&&) = delete;
    AnnouncesItsEnd& operator=(AnnouncesItsEnd&&) = delete;
};

[[noreturn]] void endWithADestinationInPlace() {
    Logger::instance().addDestination(std::make_shared<AnnouncesItsEnd>());
    std::exit(0);
}

TEST_F(LoggerDeathTest, TheEndOfTheProcessDestroysTheLogger) {
    EXPECT_EXIT(endWithADestinationInPlace(), ::testing::ExitedWithCode(0), "destination released");
}

[[noreturn]] void logWhereNoThreadCanBeStarted() {
    // Root may always start one, so the process becomes another user first.
    const rlimit none{0, 0};
    if (setrlimit(RLIMIT_NPROC, &none) != 0 || (geteuid() == 0 && setuid(65534) != 0)) {
        std::_Exit(2);
    }
    try {
        const Logger::Helper helper(Logging::Trace);
    } catch (...) {
        std::_Exit(1);
    }
    std::_Exit(0);
}

TEST_F(LoggerDeathTest, ALineForWhichNoThreadCanBeStartedEndsTheProcess) {
    if (asyncHangsWithoutAThread) {
        GTEST_SKIP() << "this libc++'s std::async hangs where it gets no thread (docs/macos.md)";
    }
    EXPECT_EXIT(logWhereNoThreadCanBeStarted(), ::testing::KilledBySignal(SIGABRT), "");
}

}  // namespace
