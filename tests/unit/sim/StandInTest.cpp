#include "StandIn.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <exception>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "support/RecordingAgent.h"

namespace {

using namespace sim;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;

constexpr std::size_t timeWidth = std::string_view("00:00:00.000  ").size();

// A stand-in whose timeline and delayed work the test holds in its hands.
class SimStandIn : public testing::Test {
protected:
    explicit SimStandIn(const Behaviour& behaviour = {})
        : timeline([this](std::string_view line) { lines.emplace_back(line); }),
          standIn(
              behaviour, timeline,
              [this](std::chrono::milliseconds delay, std::function<void()> work) {
                  delayed.emplace_back(delay, std::move(work));
              },
              [this](const std::exception_ptr& why) {
                  ended = true;
                  error = why;
              }) {}

    std::unique_ptr<XpcDaemonProtocol> callFrom(const std::string& address) {
        return standIn.conversation(address, [this, address] {
            ++introductions;
            auto agent = std::make_shared<RecordingAgent>();
            agents[address] = agent;
            return Peer{address + ", somewhere", "somebody", agent};
        });
    }

    std::vector<std::string> callsTo(const std::string& address) { return agents.at(address)->calls(); }

    // Runs the delayed work that is due by then, and what that delays.
    void passTime(std::chrono::milliseconds atMost) {
        while (!delayed.empty()) {
            auto due = std::exchange(delayed, {});
            bool ran = false;
            for (auto& [delay, work] : due) {
                if (delay <= atMost) {
                    work();
                    ran = true;
                } else {
                    delayed.emplace_back(delay, std::move(work));
                }
            }
            if (!ran) {
                return;
            }
        }
    }

    // The lines since the last time, without their times and line feeds.
    std::vector<std::string> newLines() {
        std::vector<std::string> cut;
        for (const std::string& line : std::exchange(lines, {})) {
            cut.push_back(line.substr(timeWidth, line.size() - timeWidth - 1));
        }
        return cut;
    }

    std::vector<std::string> lines;
    std::vector<std::pair<std::chrono::milliseconds, std::function<void()>>> delayed;
    std::map<std::string, std::shared_ptr<RecordingAgent>> agents;
    int introductions = 0;
    bool ended = false;
    std::exception_ptr error;
    Timeline timeline;
    StandIn standIn;
};

TEST_F(SimStandIn, AnswersConnectWithYes) {
    callFrom(":1.5")->connect();
    EXPECT_THAT(callsTo(":1.5"), ElementsAre("connected:1"));
    EXPECT_THAT(newLines(), ElementsAre("agent 1      arrived               :1.5, somewhere",
                                        "agent 1   <- connect", "agent 1   -> connected             YES"));
}

TEST_F(SimStandIn, AnswersConnectWithNo) {
    standIn.execute("answer no");
    callFrom(":1.5")->connect();
    EXPECT_THAT(callsTo(":1.5"), ElementsAre("connected:0"));
}

TEST_F(SimStandIn, NeverAnswersConnect) {
    standIn.execute("answer never");
    callFrom(":1.5")->connect();
    EXPECT_THAT(callsTo(":1.5"), IsEmpty());
    EXPECT_THAT(delayed, IsEmpty());
}

TEST_F(SimStandIn, AnswersConnectLate) {
    standIn.execute("answer late 250");
    callFrom(":1.5")->connect();
    EXPECT_THAT(callsTo(":1.5"), IsEmpty());
    ASSERT_EQ(delayed.size(), 1U);
    EXPECT_EQ(delayed[0].first, std::chrono::milliseconds(250));
    delayed[0].second();
    EXPECT_THAT(callsTo(":1.5"), ElementsAre("connected:1"));
}

TEST_F(SimStandIn, ALateAnswerIsDroppedIfTheAgentLeft) {
    standIn.execute("answer late");
    callFrom(":1.5")->connect();
    standIn.left(":1.5");
    ASSERT_EQ(delayed.size(), 1U);
    EXPECT_EQ(delayed[0].first, std::chrono::milliseconds(1500));
    delayed[0].second();
    EXPECT_THAT(callsTo(":1.5"), IsEmpty());
}

TEST_F(SimStandIn, AnAgentThatConnectsAgainIsTheSameAgent) {
    callFrom(":1.5")->connect();
    callFrom(":1.5")->connect();
    EXPECT_EQ(introductions, 1);
    EXPECT_THAT(callsTo(":1.5"), ElementsAre("connected:1", "connected:1"));
}

TEST_F(SimStandIn, NumbersItsAgentsAndGivesNoNumberTwice) {
    callFrom(":1.9")->connect();
    callFrom(":1.5")->connect();
    standIn.left(":1.5");
    callFrom(":1.5")->connect();
    newLines();
    callFrom(":1.9")->onTimeZoneChanged();
    callFrom(":1.5")->onTimeZoneChanged();
    EXPECT_THAT(newLines(), ElementsAre("agent 1   <- onTimeZoneChanged", "agent 3   <- onTimeZoneChanged"));
}

TEST_F(SimStandIn, ShowsCallersThatNeverConnectedByTheirAddress) {
    callFrom(":1.77")->onScreenLocked(true);
    EXPECT_EQ(introductions, 0);
    EXPECT_THAT(newLines(), ElementsAre(":1.77     <- onScreenLocked        YES"));
}

TEST_F(SimStandIn, ShowsEachCallWithItsArguments) {
    callFrom("x")->onScreenLocked(false);
    callFrom("x")->onTimeZoneChanged();
    callFrom("x")->putMessage({"hi", 2});
    callFrom("x")->requestForNetworkReachability();
    callFrom("x")->requestForInitRmm();
    callFrom("x")->requestForLogLevel(1);
    callFrom("x")->requestForRmmMonitors();
    EXPECT_THAT(newLines(),
                ElementsAre("x         <- onScreenLocked        NO", "x         <- onTimeZoneChanged",
                            "x         <- putMessage            2 bytes  68 69  |hi|",
                            "x         <- requestForNetworkReachability", "x         <- requestForInitRmm",
                            "x         <- requestForLogLevel    1", "x         <- requestForRmmMonitors"));
}

TEST_F(SimStandIn, AnswersPingsAsTold) {
    std::vector<bool> replies;
    const XpcBoolReply reply = [&](bool flag) { replies.push_back(flag); };
    callFrom("x")->pingWithReply(reply);
    standIn.execute("ping no");
    callFrom("x")->pingWithReply(reply);
    standIn.execute("ping never");
    callFrom("x")->pingWithReply(reply);
    EXPECT_THAT(replies, ElementsAre(true, false));
}

TEST_F(SimStandIn, AnswersARequestForTheLogLevel) {
    callFrom("x")->connect();
    callFrom("x")->requestForLogLevel(1);
    EXPECT_THAT(callsTo("x"), ElementsAre("connected:1", "logLevel:6"));
}

TEST_F(SimStandIn, TellsTheUserOfAnAgent) {
    std::vector<std::string> users;
    const XpcStringReply reply = [&](const std::string& user) { users.push_back(user); };
    callFrom("x")->loggedUser(reply);
    callFrom("x")->connect();
    callFrom("x")->loggedUser(reply);
    EXPECT_THAT(users, ElementsAre("", "somebody"));
}

TEST_F(SimStandIn, TellsWhenAnAgentWasLastHeard) {
    std::vector<std::int64_t> times;
    const XpcNumberReply reply = [&](const XpcNumber& number) {
        times.push_back(*std::get_if<std::int64_t>(&number));
    };
    callFrom("x")->lastCommunicationTime(reply);
    const std::int64_t before = std::time(nullptr);
    callFrom("x")->connect();
    callFrom("x")->lastCommunicationTime(reply);
    ASSERT_EQ(times.size(), 2U);
    EXPECT_EQ(times[0], 0);
    EXPECT_GE(times[1], before);
}

TEST_F(SimStandIn, TellsHowLongItRuns) {
    std::vector<std::int64_t> times;
    callFrom("x")->upTime([&](const XpcNumber& n) { times.push_back(*std::get_if<std::int64_t>(&n)); });
    ASSERT_EQ(times.size(), 1U);
    EXPECT_GE(times[0], 0);
}

TEST_F(SimStandIn, SendsToAllAgentsInTheirOrderOrToOne) {
    callFrom(":1.9")->connect();
    callFrom(":1.10")->connect();
    newLines();
    standIn.execute("put x");
    EXPECT_THAT(newLines(), ElementsAre("agent 1   -> putMessage            1 byte  78  |x|",
                                        "agent 2   -> putMessage            1 byte  78  |x|"));
    standIn.execute("to 2 log-level 4");
    EXPECT_THAT(callsTo(":1.9"), ElementsAre("connected:1", "putMessage:x"));
    EXPECT_THAT(callsTo(":1.10"), ElementsAre("connected:1", "putMessage:x", "logLevel:4"));
}

TEST_F(SimStandIn, ShowsEveryCallThatItMakes) {
    callFrom("x")->connect();
    newLines();
    standIn.execute("connected no");
    standIn.execute("reachability yes");
    standIn.execute("rmm r");
    standIn.execute("init-rmm a b c d e");
    EXPECT_THAT(newLines(),
                ElementsAre("agent 1   -> connected             NO", "agent 1   -> networkReachability   YES",
                            "agent 1   -> rmmMessage            1 byte  72  |r|",
                            "agent 1   -> initRmmMessage        \"a\" token=\"b\" subdomain=\"c\" "
                            "rmmUrl=\"d\" appVer=\"e\""));
    EXPECT_THAT(callsTo("x"), ElementsAre("connected:1", "connected:0", "networkReachability:1",
                                          "rmmMessage:r", "initRmmMessage:a|b|c|d|e"));
}

TEST_F(SimStandIn, ACommandWithoutAnAgentToCallSaysSoAndDoesNothing) {
    standIn.execute("put x");
    EXPECT_THAT(newLines(), ElementsAre("daemon       not done              no agent is here"));
    callFrom("x")->connect();
    newLines();
    standIn.execute("to 2 put x");
    EXPECT_THAT(newLines(), ElementsAre("daemon       not done              there is no agent 2"));
    EXPECT_THAT(callsTo("x"), ElementsAre("connected:1"));
}

TEST_F(SimStandIn, ABadCommandGetsOneLineAndDoesNothing) {
    callFrom("x")->connect();
    newLines();
    standIn.execute("log-level high");
    EXPECT_FALSE(ended);
    EXPECT_FALSE(standIn.allDone());
    EXPECT_THAT(newLines(), ElementsAre("daemon       not done              log-level needs a number"));
    EXPECT_THAT(callsTo("x"), ElementsAre("connected:1"));
}

TEST_F(SimStandIn, ListsTheAgentsThatAreHere) {
    standIn.execute("agents");
    EXPECT_THAT(newLines(), ElementsAre("daemon       agents                none"));
    callFrom("b")->connect();
    callFrom("a")->connect();
    newLines();
    standIn.execute("agents");
    EXPECT_THAT(newLines(), ElementsAre(HasSubstr("agent 1      here                  b, somewhere, for "),
                                        HasSubstr("agent 2      here                  a, somewhere, for ")));
}

TEST_F(SimStandIn, ForgetsAnAgentThatLeft) {
    callFrom("x")->connect();
    newLines();
    standIn.left("x");
    standIn.left("x");
    standIn.left("never seen");
    EXPECT_THAT(newLines(), ElementsAre(MatchesRegex("agent 1      left                  after [0-9]+ s")));
    EXPECT_EQ(agents.at("x").use_count(), 1);
}

TEST_F(SimStandIn, ShowsWhatAnAgentRefuses) {
    callFrom("x")->connect();
    newLines();
    standIn.refused("x", "rmmMessage", "no such method");
    EXPECT_THAT(newLines(), ElementsAre("agent 1   <- refused               rmmMessage: no such method"));
}

TEST_F(SimStandIn, QuitEndsAndHelpHelps) {
    standIn.execute("");
    standIn.execute("help");
    EXPECT_THAT(lines, ElementsAre(commandHelp()));
    EXPECT_FALSE(ended);
    standIn.execute("quit");
    EXPECT_TRUE(ended);
    EXPECT_TRUE(standIn.allDone());
    standIn.execute("help");
    EXPECT_EQ(lines.size(), 1U);
}

constexpr std::chrono::milliseconds atOnce{0};
constexpr std::chrono::milliseconds patience{10000};

TEST_F(SimStandIn, WaitsForAnAgentBeforeItGoesOn) {
    standIn.execute("wait-agent 1");
    standIn.execute("put x");
    passTime(atOnce);
    EXPECT_THAT(newLines(), IsEmpty());
    callFrom("a")->connect();
    passTime(atOnce);
    // After the answer to what the agent came with.
    EXPECT_THAT(callsTo("a"), ElementsAre("connected:1", "putMessage:x"));
    EXPECT_TRUE(standIn.allDone());
}

TEST_F(SimStandIn, GoesOnAtOnceWhenTheAgentIsThere) {
    callFrom("a")->connect();
    standIn.execute("wait-agent 1");
    standIn.execute("put x");
    EXPECT_THAT(callsTo("a"), ElementsAre("connected:1", "putMessage:x"));
}

TEST_F(SimStandIn, AnAgentThatDoesNotComeIsNotDone) {
    standIn.execute("wait-agent 2");
    standIn.execute("agents");
    callFrom("a")->connect();
    newLines();
    passTime(patience);
    EXPECT_THAT(newLines(),
                ElementsAre("daemon       not done              agent 2 did not come within 10000 ms",
                            HasSubstr("here")));
    EXPECT_FALSE(standIn.allDone());
}

TEST_F(SimStandIn, ExpectsACallThatComesLater) {
    callFrom("a")->connect();
    standIn.execute("expect onScreenLocked");
    standIn.execute("put x");
    passTime(atOnce);
    EXPECT_THAT(callsTo("a"), ElementsAre("connected:1"));
    callFrom("a")->onScreenLocked(true);
    passTime(atOnce);
    EXPECT_THAT(callsTo("a"), ElementsAre("connected:1", "putMessage:x"));
    passTime(patience);
    EXPECT_TRUE(standIn.allDone());
}

TEST_F(SimStandIn, ExpectsCallsInTheirOrderAndEachOnce) {
    callFrom("a")->connect();
    callFrom("a")->onScreenLocked(true);
    callFrom("a")->onScreenLocked(false);
    standIn.execute("expect connect");
    standIn.execute("expect onScreenLocked NO");
    passTime(patience);
    EXPECT_TRUE(standIn.allDone());
    newLines();
    // The lock came before the unlock that was expected last.
    standIn.execute("expect onScreenLocked YES");
    passTime(patience);
    EXPECT_THAT(newLines(),
                ElementsAre("daemon       not done              no onScreenLocked YES came within 10000 ms"));
    EXPECT_FALSE(standIn.allDone());
}

TEST_F(SimStandIn, ALateTimeOutEndsNoOtherWait) {
    standIn.execute("wait-agent 1");
    callFrom("a")->connect();
    passTime(atOnce);
    standIn.execute("expect onTimeZoneChanged");
    ASSERT_EQ(delayed.size(), 2U);
    delayed.front().second();  // the first wait's
    callFrom("a")->onTimeZoneChanged();
    passTime(atOnce);
    EXPECT_TRUE(standIn.allDone());
}

TEST_F(SimStandIn, AnErrorInsideACallAsksForTheEnd) {
    standIn.conversation("a", []() -> Peer { throw std::runtime_error("nobody"); })->connect();
    EXPECT_TRUE(ended);
    EXPECT_THROW(std::rethrow_exception(error), std::runtime_error);
}

TEST_F(SimStandIn, EndsWithoutAnErrorAsAsked) {
    standIn.execute("quit");
    EXPECT_TRUE(ended);
    EXPECT_FALSE(error);
}

TEST_F(SimStandIn, SleepsBeforeItGoesOn) {
    callFrom("a")->connect();
    standIn.execute("sleep 250");
    standIn.execute("put x");
    passTime(std::chrono::milliseconds(249));
    EXPECT_THAT(callsTo("a"), ElementsAre("connected:1"));
    passTime(std::chrono::milliseconds(250));
    EXPECT_THAT(callsTo("a"), ElementsAre("connected:1", "putMessage:x"));
    EXPECT_TRUE(standIn.allDone());
}

}  // namespace
