#include "Text.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include "Json.h"
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
    EXPECT_EQ(describe(Value(true)), "YES");
    EXPECT_EQ(describe(Value(std::int64_t{-5})), "-5");
    EXPECT_EQ(describe(Value(std::uint64_t{18446744073709551615U})), "18446744073709551615");
    EXPECT_EQ(describe(Value(1.5)), "1.5");
}

TEST(SimText, LabelsAllArgumentsButTheFirst) {
    EXPECT_EQ(describe("a:bee:c:", {std::int64_t{1}, std::string_view("x"), true}), "1 bee=\"x\" c=YES");
    EXPECT_EQ(describe("plain", {}), "");
}

TEST(SimJson, EscapesWhatJsonReserves) {
    EXPECT_EQ(jsonText("a\"b\\c\n\x01"), R"("a\"b\\c\u000a\u0001")");
    EXPECT_EQ(jsonText("gr\u00fc\u00df \U0001F512"), "\"gr\u00fc\u00df \U0001F512\"");
}

TEST(SimJson, ReplacesWhatIsNoText) {
    EXPECT_EQ(jsonText("a\xff"
                       "b"),
              R"("a\ufffdb")");
    EXPECT_EQ(jsonText("\xc3"), R"("\ufffd")");                                // cut short
    EXPECT_EQ(jsonText("\xc0\x80"), R"("\ufffd\ufffd")");                      // longer than need be
    EXPECT_EQ(jsonText("\xed\xa0\x80"), R"("\ufffd\ufffd\ufffd")");            // half a surrogate pair
    EXPECT_EQ(jsonText("\xf4\x90\x80\x80"), R"("\ufffd\ufffd\ufffd\ufffd")");  // beyond the last character
}

TEST(SimJson, WritesEveryKindOfValue) {
    EXPECT_EQ(jsonArray({}), "[]");
    EXPECT_EQ(jsonArray({true, std::int64_t{-5}, std::uint64_t{18446744073709551615U}, 1.5,
                         std::string_view("x"), XpcData{"\x00\xff", 2}}),
              R"([true,-5,18446744073709551615,1.5,"x","00ff"])");
    EXPECT_EQ(jsonValue(XpcData{}), "\"\"");
}

TEST(SimText, PadsWithAtLeastOneBlank) {
    EXPECT_EQ(padded("ab", 4), "ab  ");
    EXPECT_EQ(padded("abcd", 4), "abcd ");
}

class SimTimeline : public testing::Test {
protected:
    SimTimeline()
        : timeline(sink(), Format::Columns, [this] { return now; }),
          objects(sink(), Format::Json, [this] { return now; }) {
        setenv("TZ", "XXX-1", 1);  // one hour east of UTC
        tzset();
    }

    Timeline::Sink sink() {
        return [this](std::string_view line) { lines.emplace_back(line); };
    }

    std::chrono::system_clock::time_point now =
        std::chrono::system_clock::time_point(std::chrono::milliseconds(1'000'007));
    std::vector<std::string> lines;
    Timeline timeline;
    Timeline objects;
    Party agent{"agent 1", 1, "somebody"};
};

TEST_F(SimTimeline, AlignsTimeSenderMemberAndDetails) {
    timeline.note(agent, "arrived", ":1.5, pid 7");
    timeline.received(agent, "connect", {});
    timeline.sent(agent, "connected:", {true});
    timeline.replied(agent, "pingWithReply:", false);
    timeline.refused(agent, "rmmMessage", "no");
    timeline.received({"agent 12"}, "lastCommunicationTime:", {std::int64_t{5}});
    EXPECT_THAT(lines, ElementsAre("01:16:40.007  agent 1      arrived               :1.5, pid 7\n",
                                   "01:16:40.007  agent 1   <- connect\n",
                                   "01:16:40.007  agent 1   -> connected             YES\n",
                                   "01:16:40.007  agent 1   -> reply                 pingWithReply NO\n",
                                   "01:16:40.007  agent 1   <- refused               rmmMessage: no\n",
                                   "01:16:40.007  agent 12  <- lastCommunicationTime 5\n"));
}

TEST_F(SimTimeline, WritesAnObjectForEachLine) {
    objects.note({"daemon"}, "ready", "as itself");
    objects.received(agent, "onScreenLocked:", {true});
    objects.sent(agent, "connected:", {true});
    objects.replied(agent, "pingWithReply:", false);
    objects.refused({":1.7"}, "rmmMessage", "no");
    const std::string time = R"({"time":"1970-01-01T00:16:40.007Z",)";
    EXPECT_THAT(
        lines,
        ElementsAre(
            time +
                R"("agent":"daemon","user":null,"direction":"note","member":"ready","arguments":["as itself"]})"
                "\n",
            time +
                R"("agent":1,"user":"somebody","direction":"received","member":"onScreenLocked","arguments":[true]})"
                "\n",
            time +
                R"("agent":1,"user":"somebody","direction":"sent","member":"connected","arguments":[true]})"
                "\n",
            time +
                R"("agent":1,"user":"somebody","direction":"reply","member":"pingWithReply","arguments":[false]})"
                "\n",
            time +
                R"("agent":":1.7","user":null,"direction":"refused","member":"rmmMessage","arguments":["no"]})"
                "\n"));
}

TEST_F(SimTimeline, WritesALongTextAsOneObject) {
    objects.text("help", "a\nb\n");
    EXPECT_THAT(lines, ElementsAre(R"({"time":"1970-01-01T00:16:40.007Z","agent":"daemon","user":null,)"
                                   R"("direction":"note","member":"help","arguments":["a\u000ab\u000a"]})"
                                   "\n"));
}

TEST_F(SimTimeline, TellsTheTimeBefore1970Too) {
    now = std::chrono::system_clock::time_point(std::chrono::milliseconds(-1));
    timeline.note({"daemon"}, "ready", "");
    EXPECT_THAT(lines, ElementsAre("00:59:59.999  daemon       ready\n"));
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
