#include "Text.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include "LineSplitter.h"
#include "Timeline.h"

namespace {

using namespace sim;
using testing::ElementsAre;

std::string describeBytes(const std::string& bytes) {
    return describe(XpcData{bytes.data(), bytes.size()});
}

TEST(SimText, ShowsDataAsLengthHexAndText) {
    EXPECT_EQ(describeBytes("hello"), "5 bytes  68 65 6c 6c 6f  |hello|");
    EXPECT_EQ(describeBytes("\xff"), "1 byte  ff  |.|");
    EXPECT_EQ(describeBytes(std::string("\0\n\x7f~ ", 5)), "5 bytes  00 0a 7f 7e 20  |...~ |");
    EXPECT_EQ(describe(XpcData{}), "0 bytes");
}

TEST(SimText, ShowsTheBeginningOfLongData) {
    EXPECT_EQ(describeBytes("0123456789abcdef"),
              "16 bytes  30 31 32 33 34 35 36 37 38 39 61 62 63 64 65 66  |0123456789abcdef|");
    EXPECT_EQ(describeBytes("0123456789abcdefg"),
              "17 bytes  30 31 32 33 34 35 36 37 38 39 61 62 63 64 65 66...  |0123456789abcdef|...");
}

TEST(SimText, QuotedTextStaysOnItsLine) {
    EXPECT_EQ(inQuotes("a\tb\r\nc\x1b[0m\x7f"), "\"a\\tb\\r\\nc\\x1b[0m\\x7f\"");
    EXPECT_EQ(inQuotes("gr\u00fc\u00df"), "\"gr\u00fc\u00df\"");
    EXPECT_EQ(inQuotes(""), "\"\"");
}

TEST(SimText, LongTextIsCutBetweenCharacters) {
    EXPECT_EQ(inQuotes(std::string(80, 'x')), "\"" + std::string(80, 'x') + "\"");
    EXPECT_EQ(inQuotes(std::string(81, 'x')), "\"" + std::string(80, 'x') + "\"... (81 bytes)");
    EXPECT_EQ(inQuotes(std::string(79, 'x') + "\u00fcy"), "\"" + std::string(79, 'x') + "\"... (82 bytes)");
}

TEST(SimText, ShowsEveryKindOfNumber) {
    EXPECT_EQ(describe(XpcNumber(true)), "YES");
    EXPECT_EQ(describe(XpcNumber(std::int64_t{-5})), "-5");
    EXPECT_EQ(describe(XpcNumber(std::uint64_t{18446744073709551615U})), "18446744073709551615");
    EXPECT_EQ(describe(XpcNumber(1.5)), "1.5");
}

TEST(SimText, PadsWithAtLeastOneBlank) {
    EXPECT_EQ(padded("ab", 4), "ab  ");
    EXPECT_EQ(padded("abcd", 4), "abcd ");
}

class SimTimeline : public testing::Test {
protected:
    SimTimeline()
        : timeline([this](std::string_view line) { lines.emplace_back(line); }, [this] { return now; }) {
        setenv("TZ", "UTC0", 1);
        tzset();
    }

    std::chrono::system_clock::time_point now =
        std::chrono::system_clock::time_point(std::chrono::milliseconds(1'000'007));
    std::vector<std::string> lines;
    Timeline timeline;
};

TEST_F(SimTimeline, AlignsTimeSenderMemberAndDetails) {
    timeline.note("agent 1", "arrived", ":1.5, pid 7");
    timeline.received("agent 1", "connect", "");
    timeline.sent("agent 1", "connected", "YES");
    timeline.received("agent 12", "lastCommunicationTime", "x");
    EXPECT_THAT(lines, ElementsAre("00:16:40.007  agent 1      arrived               :1.5, pid 7\n",
                                   "00:16:40.007  agent 1   <- connect\n",
                                   "00:16:40.007  agent 1   -> connected             YES\n",
                                   "00:16:40.007  agent 12  <- lastCommunicationTime x\n"));
}

TEST_F(SimTimeline, TellsTheTimeBefore1970Too) {
    now = std::chrono::system_clock::time_point(std::chrono::milliseconds(-1));
    timeline.note("daemon", "ready", "");
    EXPECT_THAT(lines, ElementsAre("23:59:59.999  daemon       ready\n"));
}

TEST(SimLineSplitter, JoinsPiecesAndCutsLines) {
    std::vector<std::string> lines;
    LineSplitter splitter([&](std::string_view line) {
        lines.emplace_back(line);
        return true;
    });
    splitter.feed("pu");
    splitter.feed("t x\n\nqu");
    EXPECT_THAT(lines, ElementsAre("put x", ""));
    splitter.finish();
    EXPECT_THAT(lines, ElementsAre("put x", "", "qu"));
    splitter.finish();
    EXPECT_EQ(lines.size(), 3U);
}

TEST(SimLineSplitter, DeliversNothingAfterTheLastLineWanted) {
    std::vector<std::string> lines;
    LineSplitter splitter([&](std::string_view line) {
        lines.emplace_back(line);
        return line != "quit";
    });
    splitter.feed("a\nquit\nb\nc");
    splitter.finish();
    EXPECT_THAT(lines, ElementsAre("a", "quit"));
}

}  // namespace
