#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "velmmonitord/XpcProtocols.h"

// The wire contract, written out once more by hand: whoever changes the tables changes the wire.

namespace {

using testing::ElementsAre;

std::string nameOf(XpcType type) {
    switch (type) {
        case XpcType::Bool:
            return "BOOL";
        case XpcType::Int:
            return "int";
        case XpcType::Integer:
            return "NSInteger";
        case XpcType::Data:
            return "NSData";
        case XpcType::String:
            return "NSString";
    }
    return "unknown";
}

std::string nameOf(XpcReply reply) {
    switch (reply) {
        case XpcReply::None:
            return "";
        case XpcReply::Bool:
            return " ^BOOL";
        case XpcReply::Number:
            return " ^NSNumber";
        case XpcReply::String:
            return " ^NSString";
    }
    return " ^unknown";
}

std::string lineOf(const XpcMethod& method) {
    std::string line = (method.required ? "required " : "optional ") + std::string(method.selector);
    for (std::size_t index = 0; index < method.argumentCount; ++index) {
        line += " " + nameOf(method.arguments.at(index));
    }
    return line + nameOf(method.reply);
}

std::vector<std::string> linesOf(const XpcProtocol& protocol) {
    std::vector<std::string> lines{std::string(protocol.name)};
    for (const XpcMethod& method : protocol) {
        lines.push_back(lineOf(method));
    }
    return lines;
}

TEST(XpcProtocols, TheDaemonsMethodsAreTheContract) {
    EXPECT_THAT(linesOf(xpcDaemonProtocol),
                ElementsAre("XpcDaemonProtocol", "required connect", "optional pingWithReply: ^BOOL",
                            "optional putMessage: NSData", "optional onScreenLocked: BOOL",
                            "optional onTimeZoneChanged", "optional requestForNetworkReachability",
                            "optional requestForInitRmm", "optional requestForLogLevel: int",
                            "optional lastCommunicationTime: ^NSNumber", "optional loggedUser: ^NSString",
                            "optional upTime: ^NSNumber", "optional requestForRmmMonitors"));
}

TEST(XpcProtocols, TheAgentsMethodsAreTheContract) {
    EXPECT_THAT(
        linesOf(xpcAgentProtocol),
        ElementsAre("XpcAgentProtocol", "required connected: BOOL", "required putMessage: NSData",
                    "optional initRmmMessage:token:subdomain:rmmUrl:appVer: NSString NSString NSString "
                    "NSString NSString",
                    "optional networkReachability: BOOL", "optional logLevel: NSInteger",
                    "optional rmmMessage: NSData"));
}

TEST(XpcProtocols, AMemberIsTheSelectorUpToItsFirstColon) {
    const XpcMethod* const method = xpcAgentProtocol.find("initRmmMessage:token:subdomain:rmmUrl:appVer:");
    ASSERT_NE(method, nullptr);
    EXPECT_EQ(method->member(), "initRmmMessage");
    EXPECT_EQ(xpcDaemonProtocol.begin()->member(), "connect");
}

TEST(XpcProtocols, OnlyWholeSelectorsAreFound) {
    EXPECT_EQ(xpcAgentProtocol.find("connected"), nullptr);
    EXPECT_EQ(xpcAgentProtocol.find("pingWithReply:"), nullptr);
    EXPECT_EQ(xpcDaemonProtocol.find("pingWithReply:"), xpcDaemonProtocol.begin() + 1);
}

}  // namespace
