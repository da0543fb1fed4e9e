#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "link/support/LinkTest.h"
#include "velmmonitord/XpcProtocols.h"

namespace link_tests {
namespace {

constexpr const char* invalidArgs = "org.freedesktop.DBus.Error.InvalidArgs";
constexpr const char* unknownMethod = "org.freedesktop.DBus.Error.UnknownMethod";
constexpr std::int64_t lastLevel = 4711;

class DaemonCalls : public LinkTest {
protected:
    void SetUp() override {
        bus.start();
        startLinked();
        mark = agent->log().mark();
    }

    Reply putMessage(const std::vector<char>& data) {
        const MessageHandle call = daemon->peer().newCall(daemon->agentTarget(), "putMessage");
        check(sd_bus_message_append_array(call.get(), 'y', data.data(), data.size()), "append array");
        return daemon->peer().call(call);
    }

    /// Sends a call that leaves a line, and gives all the lines that were left before it.
    Messages linesBeforeTheLast() {
        EXPECT_TRUE(daemon->call("logLevel", "x", lastLevel).ok());
        const std::string last = "xpc service: received log level: " + std::to_string(lastLevel);
        EXPECT_TRUE(agent->log().await(last, mark));
        Messages lines = agent->log().messages(mark);
        EXPECT_FALSE(lines.empty());
        EXPECT_EQ(lines.back(), last);
        lines.pop_back();
        return lines;
    }

    std::size_t mark = 0;
};

TEST_F(DaemonCalls, EachLeavesItsLine) {
    EXPECT_TRUE(daemon->call("connected", "b", 1).ok());
    EXPECT_TRUE(daemon->call("connected", "b", 0).ok());
    EXPECT_TRUE(putMessage({'a', '\0', 'b'}).ok());
    EXPECT_TRUE(putMessage({}).ok());
    EXPECT_TRUE(daemon->call("initRmmMessage", "sssss", "message", "token", "subdomain", "url", "1.0").ok());
    EXPECT_TRUE(daemon->call("networkReachability", "b", 1).ok());
    EXPECT_TRUE(daemon->call("networkReachability", "b", 0).ok());
    EXPECT_TRUE(daemon->call("logLevel", "x", std::int64_t{0}).ok());
    EXPECT_TRUE(daemon->call("logLevel", "x", std::int64_t{-3}).ok());
    EXPECT_TRUE(daemon->call("logLevel", "x", std::numeric_limits<std::int64_t>::min()).ok());
    EXPECT_TRUE(daemon->call("logLevel", "x", std::numeric_limits<std::int64_t>::max()).ok());

    EXPECT_EQ(linesBeforeTheLast(),
              (Messages{message::established, message::connected, message::refused, message::connected,
                        message::incoming, message::incoming, "xpc service: received log level: 0",
                        "xpc service: received log level: -3",
                        "xpc service: received log level: -9223372036854775808",
                        "xpc service: received log level: 9223372036854775807"}));
}

TEST_F(DaemonCalls, AreTakenAlsoWithoutAReplyWanted) {
    daemon->send("connected", "b", 0);
    daemon->send("logLevel", "x", std::int64_t{5});
    EXPECT_EQ(linesBeforeTheLast(),
              (Messages{message::refused, message::connected, "xpc service: received log level: 5"}));
}

TEST_F(DaemonCalls, OfAWrongSignatureAreRefusedAndLeaveNothing) {
    EXPECT_EQ(daemon->call("connected", "").error, invalidArgs);
    EXPECT_EQ(daemon->call("connected", "i", 1).error, invalidArgs);
    EXPECT_EQ(daemon->call("connected", "bb", 1, 1).error, invalidArgs);
    EXPECT_EQ(daemon->call("connected", "v", "b", 1).error, invalidArgs);
    EXPECT_EQ(daemon->call("putMessage", "s", "text").error, invalidArgs);
    EXPECT_EQ(daemon->call("putMessage", "as", 1, "text").error, invalidArgs);
    EXPECT_EQ(daemon->call("initRmmMessage", "ssss", "a", "b", "c", "d").error, invalidArgs);
    EXPECT_EQ(daemon->call("networkReachability", "s", "yes").error, invalidArgs);
    EXPECT_EQ(daemon->call("logLevel", "i", 1).error, invalidArgs);
    EXPECT_EQ(daemon->call("logLevel", "t", std::uint64_t{1}).error, invalidArgs);
    EXPECT_EQ(linesBeforeTheLast(), Messages{});
}

TEST_F(DaemonCalls, OfUnknownMethodsAreRefusedAndLeaveNothing) {
    EXPECT_EQ(daemon->call("noSuchMethod", "").error, unknownMethod);
    EXPECT_EQ(daemon->call("connect", "").error, unknownMethod);
    EXPECT_EQ(daemon->call("Connected", "b", 1).error, unknownMethod);
    EXPECT_EQ(linesBeforeTheLast(), Messages{});
}

TEST_F(DaemonCalls, OfOtherObjectsAndInterfacesAreRefusedAndLeaveNothing) {
    BusTarget target = daemon->agentTarget();
    target.path = "/com/brovik/velmdaemon";
    EXPECT_FALSE(daemon->peer().call(target, "connected", "b", 1).ok());
    target = daemon->agentTarget();
    target.interface = "com.brovik.XpcDaemonProtocol";
    EXPECT_FALSE(daemon->peer().call(target, "connected", "b", 1).ok());
    EXPECT_FALSE(daemon->peer().call(target, "connect", "").ok());
    EXPECT_EQ(linesBeforeTheLast(), Messages{});
}

TEST_F(DaemonCalls, OfADeclaredMethodWithoutImplementationAreUnknown) {
    const MessageHandle call = daemon->peer().newCall(daemon->agentTarget(), "rmmMessage");
    check(sd_bus_message_append_array(call.get(), 'y', "data", 4), "append array");
    EXPECT_EQ(daemon->peer().call(call).error, unknownMethod);
    EXPECT_EQ(linesBeforeTheLast(), Messages{});
}

TEST_F(DaemonCalls, CanBeFoundByIntrospectionInTheirDeclaredOrder) {
    BusTarget target = daemon->agentTarget();
    target.interface = "org.freedesktop.DBus.Introspectable";
    const Reply reply = daemon->peer().call(target, "Introspect", "");
    ASSERT_TRUE(reply.ok()) << reply.error;
    std::size_t position = reply.text.find("<interface name=\"com.brovik.XpcAgentProtocol\">");
    ASSERT_NE(position, std::string::npos) << reply.text;
    for (const XpcMethod& method : xpcAgentProtocol) {
        const std::string element = "<method name=\"" + std::string(method.member()) + "\">";
        position = reply.text.find(element, position);
        ASSERT_NE(position, std::string::npos) << element << " is not in its place in\n" << reply.text;
    }
}

TEST_F(DaemonCalls, Carry20MiB) {
    constexpr std::size_t twentyMiB = 20UL * 1024 * 1024;
    EXPECT_TRUE(putMessage(std::vector<char>(twentyMiB, 'x')).ok());
    EXPECT_EQ(linesBeforeTheLast(), Messages{message::incoming});
}

TEST_F(DaemonCalls, InAFloodAllArriveInTheirOrder) {
    constexpr std::int64_t count = 3000;
    Messages expected;
    for (std::int64_t level = 0; level < count; ++level) {
        daemon->send("networkReachability", "b", 1);
        if (level % 500 == 499) {
            // A busy machine would let the answer to all of them wait for too long.
            EXPECT_TRUE(daemon->call("logLevel", "x", level).ok());
        } else {
            daemon->send("logLevel", "x", level);
        }
        expected.push_back("xpc service: received log level: " + std::to_string(level));
    }
    EXPECT_EQ(linesBeforeTheLast(), expected);
}

}  // namespace
}  // namespace link_tests
