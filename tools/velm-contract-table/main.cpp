#include <array>
#include <iostream>
#include <stdexcept>
#include <string>
#include <string_view>

#include "platform/linux/link/ProtocolVTable.h"

// Prints one protocol as a table in Markdown: what the protocol table says of each method, and one sentence
// on what it means to the other side.

namespace {

struct Meaning {
    std::string_view protocol;
    std::string_view selector;
    std::string_view text;
};

constexpr std::array<Meaning, 18> meanings{{
    {"XpcDaemonProtocol", "connect",
     "**Sent by the agent by itself**, once a second until it is answered with `connected:`."},
    {"XpcDaemonProtocol", "pingWithReply:",
     "Are you ready? Answer once; NO counts as a lost link, YES changes nothing. Not sent by itself."},
    {"XpcDaemonProtocol", "putMessage:", "Data, yours to define. Not sent by itself."},
    {"XpcDaemonProtocol", "onScreenLocked:",
     "**Sent by the agent by itself** when the user's screen was locked (YES) or unlocked (NO)."},
    {"XpcDaemonProtocol", "onTimeZoneChanged",
     "**Sent by the agent by itself** when the system's time zone changed. Look the new one up yourself."},
    {"XpcDaemonProtocol", "requestForNetworkReachability", "Never sent by this agent."},
    {"XpcDaemonProtocol", "requestForInitRmm", "Never sent by this agent."},
    {"XpcDaemonProtocol",
     "requestForLogLevel:", "Asks for `logLevel:`; the argument is always 1. Not sent by itself."},
    {"XpcDaemonProtocol", "lastCommunicationTime:", "Never sent by this agent."},
    {"XpcDaemonProtocol", "loggedUser:", "Never sent by this agent."},
    {"XpcDaemonProtocol", "upTime:", "Never sent by this agent."},
    {"XpcDaemonProtocol", "requestForRmmMonitors", "Never sent by this agent."},
    {"XpcAgentProtocol", "connected:",
     "Confirms the link: the agent stops asking. NO does just the same; the flag is only logged."},
    {"XpcAgentProtocol",
     "putMessage:", "Data, yours to define. Logged, and handed to whoever subscribed to it."},
    {"XpcAgentProtocol", "initRmmMessage:token:subdomain:rmmUrl:appVer:", "Accepted and ignored."},
    {"XpcAgentProtocol", "networkReachability:", "Accepted and ignored."},
    {"XpcAgentProtocol",
     "logLevel:", "Logged, and handed to whoever subscribed to it; changes nothing in this agent."},
    {"XpcAgentProtocol", "rmmMessage:", "Not implemented: refused with UnknownMethod. Do not send it."},
}};

std::string_view meaningOf(const XpcProtocol& protocol, const XpcMethod& method) {
    for (const Meaning& meaning : meanings) {
        if (meaning.protocol == protocol.name && meaning.selector == method.selector) {
            return meaning.text;
        }
    }
    throw std::runtime_error("no meaning is written down for " + std::string(method.selector));
}

const char* typeName(XpcType type) {
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
    return "";
}

const char* replyName(XpcReply reply) {
    switch (reply) {
        case XpcReply::None:
            return "";
        case XpcReply::Bool:
            return "block (BOOL)";
        case XpcReply::Number:
            return "block (NSNumber)";
        case XpcReply::String:
            return "block (NSString)";
    }
    return "";
}

std::string macArguments(const XpcMethod& method) {
    std::string text;
    for (std::size_t index = 0; index < method.argumentCount; ++index) {
        text.append(text.empty() ? "" : ", ").append(typeName(method.arguments.at(index)));
    }
    return text + replyName(method.reply);
}

std::string quoted(const std::string& code) {
    return code.empty() ? code : "`" + code + "`";
}

void print(const XpcProtocol& protocol) {
    std::cout << "| macOS: selector | arguments | Linux: member | in | out | | what it means |\n"
                 "|---|---|---|---|---|---|---|\n";
    for (const XpcMethod& method : protocol) {
        std::cout << "| `" << method.selector << "` | " << macArguments(method) << " | `" << method.member()
                  << "` | " << quoted(platform::dbus::argumentSignature(method)) << " | "
                  << quoted(platform::dbus::replySignature(method)) << " | "
                  << (method.required ? "required" : "optional") << " | " << meaningOf(protocol, method)
                  << " |\n";
    }
}

}  // namespace

int main(int argc, char** argv) {
    const std::string wanted = argc == 2 ? argv[1] : "";
    try {
        for (const XpcProtocol* protocol : {&xpcDaemonProtocol, &xpcAgentProtocol}) {
            if (wanted == protocol->name) {
                print(*protocol);
                return std::cout.flush() ? 0 : 1;
            }
        }
    } catch (const std::exception& error) {
        std::cerr << "velm-contract-table: " << error.what() << '\n';
        return 1;
    }
    std::cerr << "usage: velm-contract-table XpcDaemonProtocol|XpcAgentProtocol\n";
    return 2;
}
