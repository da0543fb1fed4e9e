#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "link/support/PrivateBus.h"
#include "platform/linux/bus/BusCallback.h"
#include "platform/linux/bus/BusHandles.h"
#include "platform/linux/link/ProtocolVTable.h"
#include "platform/linux/link/WireNames.h"
#include "unit/sim/Child.h"

namespace {

using namespace platform::dbus;
using link_tests::PrivateBus;
using platform::BusHandle;
using platform::MessageHandle;
using platform::SlotHandle;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

// An agent as the bus sees it: calls the daemon, and writes down how it is called.
class FakeAgent {
public:
    explicit FakeAgent(const std::string& address)
        : m_table(xpcAgentProtocol, platform::busCallback<&FakeAgent::called, FakeAgent>) {
        sd_bus* bus = nullptr;
        EXPECT_GE(sd_bus_new(&bus), 0);
        m_bus.reset(bus);
        EXPECT_GE(sd_bus_set_address(bus, address.c_str()), 0);
        EXPECT_GE(sd_bus_set_bus_client(bus, 1), 0);
        EXPECT_GE(sd_bus_start(bus), 0);
        sd_bus_slot* slot = nullptr;
        EXPECT_GE(sd_bus_add_object_vtable(bus, &slot, agentObjectPath,
                                           interfaceName(xpcAgentProtocol).c_str(), m_table.data(), this),
                  0);
        m_slot.reset(slot);
    }

    MessageHandle newCall(const char* member) {
        sd_bus_message* call = nullptr;
        EXPECT_GE(sd_bus_message_new_method_call(m_bus.get(), &call, daemonServiceName, daemonObjectPath,
                                                 interfaceName(xpcDaemonProtocol).c_str(), member),
                  0);
        return MessageHandle(call);
    }

    // Sends a call without arguments and waits for its reply.
    MessageHandle call(const char* member) { return exchange(newCall(member)); }

    MessageHandle exchange(const MessageHandle& call) {
        sd_bus_message* reply = nullptr;
        sd_bus_error error{};
        EXPECT_GE(sd_bus_call(m_bus.get(), call.get(), 20'000'000, &error, &reply), 0)
            << sd_bus_message_get_member(call.get()) << ": " << error.name;
        sd_bus_error_free(&error);
        return MessageHandle(reply);
    }

    // Sends a call without arguments; what is returned becomes true when it is answered.
    std::unique_ptr<bool> callLater(const char* member) {
        auto answered = std::make_unique<bool>(false);
        const MessageHandle call = newCall(member);
        EXPECT_GE(
            sd_bus_call_async(m_bus.get(), nullptr, call.get(), &FakeAgent::onAnswer, answered.get(), 0), 0);
        return answered;
    }

    // Handles all that has arrived.
    void takeIn() {
        while (sd_bus_process(m_bus.get(), nullptr) > 0) {
        }
    }

    std::string name() {
        const char* name = "";
        EXPECT_GE(sd_bus_get_unique_name(m_bus.get(), &name), 0);
        return name;
    }

    // Tells the daemon, in the words of the bus, that a name has no owner any more.
    void claimThatLeft(const std::string& gone) {
        sd_bus_message* raw = nullptr;
        EXPECT_GE(sd_bus_message_new_signal(m_bus.get(), &raw, "/org/freedesktop/DBus",
                                            "org.freedesktop.DBus", "NameOwnerChanged"),
                  0);
        const MessageHandle signal(raw);
        EXPECT_GE(sd_bus_message_append(raw, "sss", gone.c_str(), gone.c_str(), ""), 0);
        EXPECT_GE(sd_bus_message_set_destination(raw, daemonServiceName), 0);
        EXPECT_GE(sd_bus_send(m_bus.get(), raw, nullptr), 0);
    }

    // Waits for the next call of the daemon; its member, and the length of its data if it has data.
    std::string awaitCall() {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        while (m_calls.empty()) {
            if (std::chrono::steady_clock::now() > deadline) {
                ADD_FAILURE() << "no call of the daemon";
                return "";
            }
            const int result = sd_bus_process(m_bus.get(), nullptr);
            if (result == 0) {
                sd_bus_wait(m_bus.get(), 100'000);
            } else if (result < 0) {
                ADD_FAILURE() << "the bus is lost";
                return "";
            }
        }
        std::string call = m_calls.front();
        m_calls.erase(m_calls.begin());
        return call;
    }

    /// The text of the error that answers `rmmMessage`; null for none.
    void refuseWith(const char* text) { m_refusal = text; }

private:
    static int onAnswer(sd_bus_message* /*reply*/, void* userdata, sd_bus_error* /*error*/) noexcept {
        *static_cast<bool*>(userdata) = true;
        return 0;
    }

    int called(sd_bus_message* call, sd_bus_error* error) {
        const std::string member = sd_bus_message_get_member(call);
        if (member == "rmmMessage") {
            return sd_bus_error_set(error, SD_BUS_ERROR_UNKNOWN_METHOD, m_refusal);
        }
        std::string details;
        if (sd_bus_message_has_signature(call, "ay") > 0) {
            const void* bytes = nullptr;
            std::size_t length = 0;
            sd_bus_message_read_array(call, 'y', &bytes, &length);
            details = " " + std::to_string(length);
        } else if (sd_bus_message_has_signature(call, "b") > 0) {
            int flag = 0;
            sd_bus_message_read(call, "b", &flag);
            details = flag != 0 ? " YES" : " NO";
        } else if (sd_bus_message_has_signature(call, "x") > 0) {
            std::int64_t value = 0;
            sd_bus_message_read(call, "x", &value);
            details = " " + std::to_string(value);
        }
        m_calls.push_back(member + details);
        return sd_bus_reply_method_return(call, nullptr);
    }

    ProtocolVTable m_table;
    BusHandle m_bus;
    SlotHandle m_slot;
    const char* m_refusal = nullptr;
    std::vector<std::string> m_calls;
};

class SimProgram : public testing::Test {
protected:
    SimProgram() { bus.start(); }

    std::unique_ptr<Child> start(const std::vector<std::string>& options = {}) {
        std::vector<std::string> arguments{VELMDAEMON_SIM};
        arguments.insert(arguments.end(), options.begin(), options.end());
        return std::make_unique<Child>(arguments,
                                       std::vector<std::string>{"DBUS_SYSTEM_BUS_ADDRESS=" + bus.address()});
    }

    std::unique_ptr<Child> startReady(const std::vector<std::string>& options = {}) {
        auto daemon = start(options);
        daemon->awaitLine(" ready ");
        return daemon;
    }

    /// What is printed of an agent that answers `rmmMessage` with an error of this text; it may be null.
    std::string lineAboutARefusalWith(const char* text) {
        const auto daemon = startReady();
        FakeAgent agent(bus.address());
        agent.refuseWith(text);
        agent.call("connect");
        EXPECT_EQ(agent.awaitCall(), "connected YES");
        daemon->say("rmm do this");
        daemon->say("put x");
        EXPECT_EQ(agent.awaitCall(), "putMessage 1");
        return daemon->awaitLine("refused");
    }

    PrivateBus bus;
};

TEST_F(SimProgram, AnswersEveryMethodOfTheDaemonsInterface) {
    const auto daemon = startReady();
    FakeAgent agent(bus.address());
    for (const XpcMethod& method : xpcDaemonProtocol) {
        const std::string member(method.member());
        const MessageHandle call = agent.newCall(member.c_str());
        if (member == "putMessage") {
            sd_bus_message_append_array(call.get(), 'y', "hello", 5);
        } else if (member == "onScreenLocked") {
            sd_bus_message_append(call.get(), "b", 1);
        } else if (member == "requestForLogLevel") {
            sd_bus_message_append(call.get(), "i", 1);
        }
        const MessageHandle reply = agent.exchange(call);
        ASSERT_TRUE(reply) << member;
        EXPECT_EQ(sd_bus_message_get_signature(reply.get(), 1), replySignature(method)) << member;
        daemon->awaitLine("agent 1   <- " + member);
    }
    EXPECT_EQ(agent.awaitCall(), "connected YES");
    EXPECT_EQ(agent.awaitCall(), "logLevel 6");
}

TEST_F(SimProgram, PrintsTheArgumentsThatCameOverTheBus) {
    const auto daemon = startReady();
    FakeAgent agent(bus.address());
    agent.call("connect");
    MessageHandle call = agent.newCall("putMessage");
    sd_bus_message_append_array(call.get(), 'y', "hello", 5);
    agent.exchange(call);
    EXPECT_THAT(daemon->awaitLine("putMessage"), EndsWith("5 bytes  68 65 6c 6c 6f  |hello|"));
    call = agent.newCall("onScreenLocked");
    sd_bus_message_append(call.get(), "b", 0);
    agent.exchange(call);
    EXPECT_THAT(daemon->awaitLine("onScreenLocked"), EndsWith(" NO"));
}

TEST_F(SimProgram, TellsAgentsApartAndNoticesThatOneLeft) {
    const auto daemon = startReady();
    auto first = std::make_unique<FakeAgent>(bus.address());
    FakeAgent second(bus.address());
    first->call("connect");
    EXPECT_THAT(daemon->awaitLine("agent 1      arrived"), HasSubstr("pid " + std::to_string(getpid())));
    second.call("connect");
    daemon->awaitLine("agent 2      arrived");
    EXPECT_EQ(first->awaitCall(), "connected YES");
    EXPECT_EQ(second.awaitCall(), "connected YES");

    daemon->say("to 2 log-level -7");
    daemon->say("reachability no");
    EXPECT_EQ(second.awaitCall(), "logLevel -7");
    EXPECT_EQ(second.awaitCall(), "networkReachability NO");
    EXPECT_EQ(first->awaitCall(), "networkReachability NO");

    first.reset();
    daemon->awaitLine("agent 1      left");
    daemon->say("to 1 put x");
    daemon->awaitLine("there is no agent 1");
    daemon->say("put x");
    EXPECT_EQ(second.awaitCall(), "putMessage 1");
}

TEST_F(SimProgram, CarriesALargeMessage) {
    const auto daemon = startReady();
    FakeAgent agent(bus.address());
    agent.call("connect");
    EXPECT_EQ(agent.awaitCall(), "connected YES");
    daemon->say("put-size 20971520");
    EXPECT_EQ(agent.awaitCall(), "putMessage 20971520");
}

TEST_F(SimProgram, SendsALargeMessageBeforeItQuits) {
    const auto daemon = startReady();
    FakeAgent agent(bus.address());
    agent.call("connect");
    EXPECT_EQ(agent.awaitCall(), "connected YES");
    daemon->say("put-size 20971520\nquit");
    EXPECT_EQ(agent.awaitCall(), "putMessage 20971520");
    EXPECT_EQ(daemon->awaitEnd(), 0);
}

TEST_F(SimProgram, ShowsHowTheAgentRefusesRmmMessages) {
    EXPECT_THAT(lineAboutARefusalWith("not here"),
                EndsWith("rmmMessage: org.freedesktop.DBus.Error.UnknownMethod: not here"));
}

TEST_F(SimProgram, ShowsARefusalWithoutAText) {
    EXPECT_THAT(lineAboutARefusalWith(nullptr),
                EndsWith("rmmMessage: org.freedesktop.DBus.Error.UnknownMethod"));
}

TEST_F(SimProgram, AnswersLate) {
    const auto daemon = startReady({"--answer", "late", "--delay", "300"});
    FakeAgent agent(bus.address());
    const auto start = std::chrono::steady_clock::now();
    agent.call("connect");
    EXPECT_EQ(agent.awaitCall(), "connected YES");
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(299));
}

TEST_F(SimProgram, LeavesAPingUnansweredIfTold) {
    const auto daemon = startReady({"--ping", "never"});
    FakeAgent agent(bus.address());
    const std::unique_ptr<bool> answered = agent.callLater("pingWithReply");
    // Any answer to the ping would come before the answer to what follows it.
    agent.call("upTime");
    agent.takeIn();
    EXPECT_FALSE(*answered);
    EXPECT_THAT(daemon->awaitLine("pingWithReply"), HasSubstr("<- pingWithReply"));
}

TEST_F(SimProgram, AnswersAPing) {
    const auto daemon = startReady({"--ping", "no"});
    FakeAgent agent(bus.address());
    const std::unique_ptr<bool> answered = agent.callLater("pingWithReply");
    agent.call("upTime");
    agent.takeIn();
    EXPECT_TRUE(*answered);
    daemon->awaitLine("-> reply                 pingWithReply NO");
}

TEST_F(SimProgram, IsNotToldByOthersThatAnAgentLeft) {
    const auto daemon = startReady();
    FakeAgent agent(bus.address());
    agent.call("connect");
    FakeAgent liar(bus.address());
    liar.claimThatLeft(agent.name());
    liar.call("upTime");
    daemon->say("agents");
    EXPECT_THAT(daemon->awaitLine("agent 1      "), HasSubstr("arrived"));
    EXPECT_THAT(daemon->awaitLine("agent 1      "), HasSubstr("here"));
}

TEST_F(SimProgram, ABadCommandDoesNotEndIt) {
    const auto daemon = startReady();
    daemon->say("shout");
    EXPECT_THAT(daemon->awaitLine("not done"), HasSubstr("unknown command \"shout\""));
    daemon->say("quit");
    EXPECT_EQ(daemon->awaitEnd(), 8);
}

TEST_F(SimProgram, PlaysAScriptAndTellsByItsStatusWhetherAllOfItWasDone) {
    const auto daemon = start({"--json"});
    daemon->awaitLine(R"("member":"ready")");
    daemon->say("wait-agent 1\nto 1 put hello\nexpect onScreenLocked YES\nsleep 1\nquit");
    FakeAgent agent(bus.address());
    agent.call("connect");
    EXPECT_EQ(agent.awaitCall(), "connected YES");
    EXPECT_EQ(agent.awaitCall(), "putMessage 5");
    const MessageHandle call = agent.newCall("onScreenLocked");
    sd_bus_message_append(call.get(), "b", 1);
    agent.exchange(call);
    EXPECT_THAT(daemon->awaitLine("onScreenLocked"),
                HasSubstr(R"("direction":"received","member":"onScreenLocked","arguments":[true]})"));
    EXPECT_EQ(daemon->awaitEnd(), 0);
}

TEST_F(SimProgram, WhatItExpectsInVainShowsInItsStatusHoweverItEnds) {
    const auto daemon = startReady({"--patience", "50"});
    daemon->say("expect onTimeZoneChanged");
    EXPECT_THAT(daemon->awaitLine("not done"), HasSubstr("no onTimeZoneChanged came within 50 ms"));
    daemon->signal(SIGTERM);
    EXPECT_EQ(daemon->awaitEnd(), 8);
}

TEST_F(SimProgram, TheEndOfItsInputDoesNotEndIt) {
    const auto daemon = startReady();
    daemon->say("agents");
    daemon->closeInput();
    daemon->awaitLine("none");
    FakeAgent agent(bus.address());
    agent.call("connect");
    EXPECT_EQ(agent.awaitCall(), "connected YES");
    daemon->signal(SIGTERM);
    EXPECT_EQ(daemon->awaitEnd(), 0);
}

TEST_F(SimProgram, EndsWhenNobodyReadsItsOutput) {
    const auto daemon = startReady();
    daemon->closeOutput();
    EXPECT_EQ(daemon->awaitEnd(), 0);
    EXPECT_EQ(daemon->errors(), "");
}

TEST_F(SimProgram, ASecondOneSaysThatTheNameIsTaken) {
    const auto first = startReady();
    const auto second = start();
    EXPECT_EQ(second->awaitEnd(), 5);
    EXPECT_THAT(second->errors(), HasSubstr("the name com.brovik.velmdaemon is taken"));
    EXPECT_TRUE(first->running());
}

TEST_F(SimProgram, ASecondOneMayReplaceTheFirst) {
    const auto first = startReady();
    const auto second = startReady({"--replace"});
    EXPECT_EQ(first->awaitEnd(), 7);
    EXPECT_THAT(first->errors(), HasSubstr("another program took the name"));
    FakeAgent agent(bus.address());
    agent.call("connect");
    second->awaitLine("agent 1      arrived");
}

TEST_F(SimProgram, ASecondOneMayWaitForTheFirstToGo) {
    const auto first = startReady();
    const auto second = start({"--queue"});
    second->awaitLine(" waiting ");
    first->signal(SIGTERM);
    EXPECT_EQ(first->awaitEnd(), 0);
    second->awaitLine(" ready ");
}

TEST_F(SimProgram, LosingTheBusEndsIt) {
    const auto daemon = startReady();
    bus.stop();
    EXPECT_EQ(daemon->awaitEnd(), 6);
    EXPECT_THAT(daemon->errors(), HasSubstr("lost the connection to the system bus"));
}

TEST_F(SimProgram, AnErrorWhileItHandlesACallEndsIt) {
    // Two rules are its own, and each agent is worth one.
    PrivateBus other;
    other.limit("max_match_rules_per_connection", 2);
    other.start();
    const auto daemon = startReady({"--address", other.address()});
    FakeAgent agent(other.address());
    agent.call("connect");
    EXPECT_EQ(daemon->awaitEnd(), 1);
    EXPECT_THAT(daemon->errors(), StartsWith("velmdaemon-sim: cannot watch an agent: "));
}

TEST_F(SimProgram, AnErrorWhileItReadsItsInputEndsIt) {
    if (VELM_SANITIZED != 0) {
        GTEST_SKIP() << "a sanitizer's allocator ends a program that gets no memory";
    }
    const auto daemon = startReady();
    const rlimit nothingMore{1, 1};
    ASSERT_EQ(prlimit(daemon->pid(), RLIMIT_AS, &nothingMore, nullptr), 0);
    daemon->say("put-size 20971520");
    EXPECT_EQ(daemon->awaitEnd(), 1);
    EXPECT_EQ(daemon->errors(), "velmdaemon-sim: std::bad_alloc\n");
}

TEST_F(SimProgram, ServesOnABusAtAnAddress) {
    PrivateBus other;
    other.start();
    const auto daemon = startReady({"--address", other.address()});
    FakeAgent agent(other.address());
    agent.call("connect");
    EXPECT_EQ(agent.awaitCall(), "connected YES");
}

TEST_F(SimProgram, WithoutABusItSaysSo) {
    bus.stop();
    const auto daemon = start();
    EXPECT_EQ(daemon->awaitEnd(), 3);
    EXPECT_THAT(daemon->errors(), HasSubstr("cannot reach the system bus"));
}

TEST(SimProgramAlone, WithoutPermissionToOwnTheNameItSaysSo) {
    PrivateBus bus;
    bus.forbidNames();
    bus.start();
    Child daemon({VELMDAEMON_SIM, "--address", bus.address()});
    EXPECT_EQ(daemon.awaitEnd(), 4);
    EXPECT_THAT(daemon.errors(), HasSubstr("does not let this user own com.brovik.velmdaemon"));
}

TEST(SimProgramAlone, AWrongCommandLineIsAnError) {
    Child daemon({VELMDAEMON_SIM, "--shout"});
    EXPECT_EQ(daemon.awaitEnd(), 2);
    EXPECT_EQ(daemon.errors(), "velmdaemon-sim: unknown option \"--shout\"; see --help\n");
}

TEST(SimProgramAlone, HelpAndVersionNeedNoBus) {
    Child help({VELMDAEMON_SIM, "--help"}, {"DBUS_SYSTEM_BUS_ADDRESS=unix:path=/nonexistent"});
    help.awaitLine("usage: velmdaemon-sim");
    help.awaitLine("another program took the service name");
    EXPECT_EQ(help.awaitEnd(), 0);
    Child version({VELMDAEMON_SIM, "--version"}, {"DBUS_SYSTEM_BUS_ADDRESS=unix:path=/nonexistent"});
    version.awaitLine("velmdaemon-sim 1.");
    EXPECT_EQ(version.awaitEnd(), 0);
}

}  // namespace
