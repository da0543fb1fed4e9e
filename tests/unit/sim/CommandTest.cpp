#include "Command.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "support/RecordingAgent.h"

namespace {

using namespace sim;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

std::vector<std::string> callsOf(const std::string& line) {
    const Command command = parseCommand(line);
    RecordingAgent agent;
    if (command.kind == Command::Kind::Send) {
        command.send(agent);
    }
    return agent.calls();
}

std::string errorOf(const std::string& line) {
    const Command command = parseCommand(line);
    return command.kind == Command::Kind::Error ? command.error : "no error";
}

TEST(SimCommand, EachAgentMethodHasACommand) {
    EXPECT_THAT(callsOf("put some text"), ElementsAre("putMessage:some text"));
    EXPECT_THAT(callsOf("put-hex 68 656C"), ElementsAre("putMessage:hel"));
    EXPECT_THAT(callsOf("put-size 3"), ElementsAre("putMessage:abc"));
    EXPECT_THAT(callsOf("log-level -3"), ElementsAre("logLevel:-3"));
    EXPECT_THAT(callsOf("connected yes"), ElementsAre("connected:1"));
    EXPECT_THAT(callsOf("connected no"), ElementsAre("connected:0"));
    EXPECT_THAT(callsOf("reachability yes"), ElementsAre("networkReachability:1"));
    EXPECT_THAT(callsOf("rmm some text"), ElementsAre("rmmMessage:some text"));
    EXPECT_THAT(callsOf("init-rmm a b c d e"), ElementsAre("initRmmMessage:a|b|c|d|e"));
}

TEST(SimCommand, BlanksAroundALineAndBetweenWordsDoNotCount) {
    EXPECT_THAT(callsOf("  \tput   two  words \r"), ElementsAre("putMessage:two  words"));
}

TEST(SimCommand, AMessageMayBeEmpty) {
    EXPECT_THAT(callsOf("put"), ElementsAre("putMessage:"));
    EXPECT_THAT(callsOf("put-hex"), ElementsAre("putMessage:"));
    EXPECT_THAT(callsOf("put-size 0"), ElementsAre("putMessage:"));
}

TEST(SimCommand, ASendMayBeRepeatedForSeveralAgents) {
    const Command command = parseCommand("put x");
    RecordingAgent first;
    RecordingAgent second;
    command.send(first);
    command.send(second);
    EXPECT_EQ(first.calls(), second.calls());
}

TEST(SimCommand, HexTakesBytesBeyondAscii) {
    EXPECT_THAT(callsOf("put-hex 00ff0A"), ElementsAre(std::string("putMessage:\0\xff\n", 14)));
}

TEST(SimCommand, HexRefusesHalfBytesAndOtherSigns) {
    for (const char* line : {"put-hex 6", "put-hex 68 6", "put-hex 6g", "put-hex 0x68"}) {
        EXPECT_THAT(errorOf(line), HasSubstr("hexadecimal")) << line;
    }
}

TEST(SimCommand, ALargeMessageReachesTheLimitOfTheBusAndNotBeyond) {
    EXPECT_EQ(callsOf("put-size 20971520").at(0).size(), 20971520U + std::string("putMessage:").size());
    EXPECT_EQ(parseCommand("put-size " + std::to_string(largestMessage)).kind, Command::Kind::Send);
    EXPECT_THAT(errorOf("put-size " + std::to_string(largestMessage + 1)), HasSubstr("from 0 to"));
}

TEST(SimCommand, RefusesNumbersThatAreNone) {
    for (const char* line :
         {"put-size", "put-size -1", "put-size 1k", "put-size 99999999999999999999", "log-level",
          "log-level high", "log-level 1 2", "log-level 9223372036854775808"}) {
        EXPECT_THAT(errorOf(line), HasSubstr("needs a number")) << line;
    }
}

TEST(SimCommand, TakesTheWholeRangeOfALogLevel) {
    EXPECT_THAT(callsOf("log-level 9223372036854775807"), ElementsAre("logLevel:9223372036854775807"));
    EXPECT_THAT(callsOf("log-level -9223372036854775808"), ElementsAre("logLevel:-9223372036854775808"));
}

TEST(SimCommand, RefusesFlagsThatAreNeitherYesNorNo) {
    EXPECT_THAT(errorOf("connected"), HasSubstr("yes or no"));
    EXPECT_THAT(errorOf("connected YES"), HasSubstr("yes or no"));
    EXPECT_THAT(errorOf("reachability 1"), HasSubstr("yes or no"));
}

TEST(SimCommand, QuotesKeepTheBlanksOfATextTogether) {
    EXPECT_THAT(callsOf(R"(init-rmm "a message" b "" d "e e")"),
                ElementsAre("initRmmMessage:a message|b||d|e e"));
}

TEST(SimCommand, InitRmmNeedsFiveTexts) {
    for (const char* line :
         {"init-rmm", "init-rmm a b c d", "init-rmm a b c d e f", R"(init-rmm a b c d "e)"}) {
        EXPECT_THAT(errorOf(line), HasSubstr("five texts")) << line;
    }
}

TEST(SimCommand, GoesToAllAgentsUnlessToldOtherwise) {
    EXPECT_FALSE(parseCommand("put x").target.has_value());
    EXPECT_FALSE(parseCommand("to all put x").target.has_value());
    EXPECT_EQ(parseCommand("to 12 put x").target, 12);
    EXPECT_THAT(callsOf("to 12 put x"), ElementsAre("putMessage:x"));
}

TEST(SimCommand, ToRefusesWhatIsNoAgentOrNoCall) {
    EXPECT_THAT(errorOf("to"), HasSubstr("number of an agent"));
    EXPECT_THAT(errorOf("to 0 put x"), HasSubstr("number of an agent"));
    EXPECT_THAT(errorOf("to someone put x"), HasSubstr("number of an agent"));
    EXPECT_THAT(errorOf("to 1"), HasSubstr("command that calls an agent"));
    EXPECT_THAT(errorOf("to 1 quit"), HasSubstr("command that calls an agent"));
    EXPECT_THAT(errorOf("to 1 to 2 put x"), HasSubstr("command that calls an agent"));
    EXPECT_THAT(errorOf("to 1 shout"), HasSubstr("unknown command \"shout\""));
}

TEST(SimCommand, SetsHowConnectIsAnswered) {
    const Command never = parseCommand("answer never");
    EXPECT_EQ(never.kind, Command::Kind::SetAnswer);
    EXPECT_EQ(never.answer, Answer::Never);
    EXPECT_FALSE(never.delay.has_value());
    EXPECT_EQ(parseCommand("answer no").answer, Answer::No);
    EXPECT_EQ(parseCommand("answer yes").answer, Answer::Yes);
    const Command late = parseCommand("answer late 2500");
    EXPECT_EQ(late.answer, Answer::Late);
    EXPECT_EQ(late.delay, std::chrono::milliseconds(2500));
    EXPECT_FALSE(parseCommand("answer late").delay.has_value());
}

TEST(SimCommand, RefusesAnswersThatMakeNoSense) {
    for (const char* line : {"answer", "answer maybe", "answer late soon", "answer late -1", "answer yes 100",
                             "answer late 3600001"}) {
        EXPECT_THAT(errorOf(line), HasSubstr("answer needs")) << line;
    }
}

TEST(SimCommand, SetsHowPingsAreAnswered) {
    EXPECT_EQ(parseCommand("ping no").kind, Command::Kind::SetPing);
    EXPECT_EQ(parseCommand("ping no").ping, Ping::No);
    EXPECT_EQ(parseCommand("ping yes").ping, Ping::Yes);
    EXPECT_EQ(parseCommand("ping never").ping, Ping::Never);
    EXPECT_THAT(errorOf("ping late"), HasSubstr("ping needs"));
}

TEST(SimCommand, KnowsTheCommandsWithoutArguments) {
    EXPECT_EQ(parseCommand("agents").kind, Command::Kind::ListAgents);
    EXPECT_EQ(parseCommand("help").kind, Command::Kind::Help);
    EXPECT_EQ(parseCommand("quit").kind, Command::Kind::Quit);
    EXPECT_THAT(errorOf("quit now"), HasSubstr("quit takes nothing"));
    EXPECT_THAT(errorOf("agents all"), HasSubstr("agents takes nothing"));
}

TEST(SimCommand, AnEmptyLineAndACommentDoNothing) {
    for (const char* line : {"", "   ", "# put x", "\r"}) {
        EXPECT_EQ(parseCommand(line).kind, Command::Kind::Nothing) << line;
    }
}

TEST(SimCommand, AnUnknownCommandIsNamedInOneLine) {
    const std::string error = errorOf(
        "\x01"
        "boom\nbang now");
    EXPECT_EQ(error, "unknown command \"\\x01boom\\nbang\"; try help");
    EXPECT_THAT(errorOf(std::string(5000, 'x')).size(), testing::Lt(200U));
}

TEST(SimCommand, EveryCommandOfTheHelpIsUnderstood) {
    const std::string help = commandHelp();
    EXPECT_THAT(help, Not(IsEmpty()));
    std::size_t begin = 0;
    while (begin < help.size()) {
        const std::size_t name = begin + 2;
        const std::string word = help.substr(name, help.find(' ', name) - name);
        EXPECT_THAT(errorOf(word), Not(HasSubstr("unknown command"))) << word;
        begin = help.find('\n', begin) + 1;
    }
}

TEST(SimCommand, WaitsTakeWhatTheyWaitFor) {
    EXPECT_EQ(parseCommand("wait-agent 3").target, 3);
    EXPECT_EQ(parseCommand("sleep 20").delay, std::chrono::milliseconds(20));
    const Command expect = parseCommand("expect onScreenLocked YES");
    EXPECT_EQ(expect.kind, Command::Kind::Expect);
    EXPECT_EQ(expect.member, "onScreenLocked");
    EXPECT_EQ(expect.arguments, "YES");
}

TEST(SimCommand, RefusesWaitsThatCannotEnd) {
    for (const char* line : {"wait-agent", "wait-agent 0", "wait-agent all"}) {
        EXPECT_THAT(errorOf(line), HasSubstr("wait-agent needs")) << line;
    }
    for (const char* line : {"expect", "expect connected", "expect onScreenLocked:"}) {
        EXPECT_THAT(errorOf(line), HasSubstr("expect needs")) << line;
    }
    for (const char* line : {"sleep", "sleep -1", "sleep long", "sleep 3600001"}) {
        EXPECT_THAT(errorOf(line), HasSubstr("sleep needs")) << line;
    }
}

}  // namespace
