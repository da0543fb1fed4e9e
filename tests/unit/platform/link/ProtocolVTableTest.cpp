#include "platform/linux/link/ProtocolVTable.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <regex>
#include <set>
#include <string>

#include "platform/linux/bus/BusCallback.h"
#include "platform/linux/bus/BusHandles.h"
#include "platform/linux/link/WireNames.h"

namespace {

using namespace platform::dbus;
using platform::BusHandle;
using platform::MessageHandle;
using platform::SlotHandle;
using testing::ElementsAre;
using testing::HasSubstr;

struct Wire {
    std::string arguments;
    std::string reply;
    bool operator==(const Wire& other) const { return arguments == other.arguments && reply == other.reply; }
};

std::map<std::string, Wire> wireOf(const XpcProtocol& protocol) {
    std::map<std::string, Wire> wire;
    for (const XpcMethod& method : protocol) {
        wire[std::string(method.member())] = {argumentSignature(method), replySignature(method)};
    }
    return wire;
}

// Two ends of one connection without a bus between them; the server has the table registered on a path.
class Peers {
public:
    explicit Peers(const XpcProtocol& protocol)
        : m_protocol(protocol), m_table(protocol, platform::busCallback<&Peers::called, Peers>) {
        std::array<int, 2> ends{};
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends.data()), 0);
        m_server = open(ends[0], true);
        m_client = open(ends[1], false);
        sd_bus_slot* slot = nullptr;
        EXPECT_GE(sd_bus_add_object_vtable(m_server.get(), &slot, path, interfaceName(protocol).c_str(),
                                           m_table.data(), this),
                  0);
        m_slot.reset(slot);
    }

    static constexpr const char* path = "/some/object";

    MessageHandle newCall(const char* interface, const char* member) {
        sd_bus_message* call = nullptr;
        EXPECT_GE(sd_bus_message_new_method_call(m_client.get(), &call, nullptr, path, interface, member), 0);
        return MessageHandle(call);
    }

    // Sends the call and turns both ends until the reply is there.
    MessageHandle exchange(const MessageHandle& call) {
        MessageHandle reply;
        EXPECT_GE(sd_bus_call_async(m_client.get(), nullptr, call.get(), &Peers::onReply, &reply, 5'000'000),
                  0);
        while (!reply) {
            if (sd_bus_process(m_server.get(), nullptr) < 0 || sd_bus_process(m_client.get(), nullptr) < 0) {
                ADD_FAILURE() << "the connection broke";
                break;
            }
        }
        return reply;
    }

    std::string introspection() {
        const MessageHandle reply = exchange(newCall("org.freedesktop.DBus.Introspectable", "Introspect"));
        const char* xml = "";
        EXPECT_GE(sd_bus_message_read(reply.get(), "s", &xml), 0);
        return xml;
    }

    const std::set<std::string>& handled() const { return m_handled; }

private:
    static BusHandle open(int fd, bool server) {
        sd_bus* bus = nullptr;
        EXPECT_GE(sd_bus_new(&bus), 0);
        EXPECT_GE(sd_bus_set_fd(bus, fd, fd), 0);
        if (server) {
            sd_id128_t id{};
            EXPECT_GE(sd_id128_randomize(&id), 0);
            EXPECT_GE(sd_bus_set_server(bus, 1, id), 0);
        }
        EXPECT_GE(sd_bus_set_anonymous(bus, 1), 0);
        EXPECT_GE(sd_bus_start(bus), 0);
        return BusHandle(bus);
    }

    int called(sd_bus_message* call, sd_bus_error* /*error*/) {
        const XpcMethod* method = findMember(m_protocol, sd_bus_message_get_member(call));
        if (method == nullptr) {
            ADD_FAILURE() << "sd-bus let an unknown member through";
            return sd_bus_reply_method_return(call, nullptr);
        }
        m_handled.emplace(method->member());
        switch (method->reply) {
            case XpcReply::Bool:
                return sd_bus_reply_method_return(call, "b", 1);
            case XpcReply::Number:
                return sd_bus_reply_method_return(call, "v", "x", std::int64_t{7});
            case XpcReply::String:
                return sd_bus_reply_method_return(call, "s", "somebody");
            case XpcReply::None:
                break;
        }
        return sd_bus_reply_method_return(call, nullptr);
    }

    static int onReply(sd_bus_message* reply, void* userdata, sd_bus_error* /*error*/) noexcept {
        static_cast<MessageHandle*>(userdata)->reset(sd_bus_message_ref(reply));
        return 0;
    }

    const XpcProtocol& m_protocol;
    ProtocolVTable m_table;
    std::set<std::string> m_handled;
    BusHandle m_server;
    BusHandle m_client;
    SlotHandle m_slot;
};

void appendSample(sd_bus_message* call, XpcType type) {
    switch (type) {
        case XpcType::Bool:
            EXPECT_GE(sd_bus_message_append(call, "b", 1), 0);
            break;
        case XpcType::Int:
            EXPECT_GE(sd_bus_message_append(call, "i", -1), 0);
            break;
        case XpcType::Integer:
            EXPECT_GE(sd_bus_message_append(call, "x", std::int64_t{-1}), 0);
            break;
        case XpcType::Data:
            EXPECT_GE(sd_bus_message_append_array(call, 'y', "abc", 3), 0);
            break;
        case XpcType::String:
            EXPECT_GE(sd_bus_message_append(call, "s", "text"), 0);
            break;
    }
}

std::string withoutSpaceBetweenTags(const std::string& xml) {
    return std::regex_replace(xml, std::regex(">\\s+<"), "><");
}

std::string interfaceElement(const std::string& xml, const std::string& interface) {
    const std::size_t begin = xml.find("<interface name=\"" + interface + "\">");
    const std::string end = "</interface>";
    if (begin == std::string::npos) {
        return "no interface " + interface + " in " + xml;
    }
    return withoutSpaceBetweenTags(xml.substr(begin, xml.find(end, begin) + end.size() - begin));
}

TEST(WireNames, TheInterfaceOfAProtocolCarriesItsName) {
    EXPECT_EQ(interfaceName(xpcDaemonProtocol), "com.brovik.XpcDaemonProtocol");
    EXPECT_EQ(interfaceName(xpcAgentProtocol), "com.brovik.XpcAgentProtocol");
}

TEST(WireNames, AreValidOnTheBus) {
    EXPECT_EQ(sd_bus_service_name_is_valid(daemonServiceName), 1);
    EXPECT_EQ(sd_bus_object_path_is_valid(daemonObjectPath), 1);
    EXPECT_EQ(sd_bus_object_path_is_valid(agentObjectPath), 1);
    for (const XpcProtocol* protocol : {&xpcDaemonProtocol, &xpcAgentProtocol}) {
        EXPECT_EQ(sd_bus_interface_name_is_valid(interfaceName(*protocol).c_str()), 1);
        for (const XpcMethod& method : *protocol) {
            EXPECT_EQ(sd_bus_member_name_is_valid(std::string(method.member()).c_str()), 1)
                << method.selector;
        }
    }
}

TEST(ProtocolWire, EveryDaemonMethodHasItsSignatures) {
    const std::map<std::string, Wire> expected{
        {"connect", {"", ""}},
        {"pingWithReply", {"", "b"}},
        {"putMessage", {"ay", ""}},
        {"onScreenLocked", {"b", ""}},
        {"onTimeZoneChanged", {"", ""}},
        {"requestForNetworkReachability", {"", ""}},
        {"requestForInitRmm", {"", ""}},
        {"requestForLogLevel", {"i", ""}},
        {"lastCommunicationTime", {"", "v"}},
        {"loggedUser", {"", "s"}},
        {"upTime", {"", "v"}},
        {"requestForRmmMonitors", {"", ""}},
    };
    EXPECT_TRUE(wireOf(xpcDaemonProtocol) == expected);
}

TEST(ProtocolWire, EveryAgentMethodHasItsSignatures) {
    const std::map<std::string, Wire> expected{
        {"connected", {"b", ""}},           {"putMessage", {"ay", ""}}, {"initRmmMessage", {"sssss", ""}},
        {"networkReachability", {"b", ""}}, {"logLevel", {"x", ""}},    {"rmmMessage", {"ay", ""}},
    };
    EXPECT_TRUE(wireOf(xpcAgentProtocol) == expected);
}

TEST(ProtocolWire, ArgumentsAreNamedAfterTheLabelsOfTheSelector) {
    EXPECT_THAT(argumentNames(*xpcAgentProtocol.find("initRmmMessage:token:subdomain:rmmUrl:appVer:")),
                ElementsAre("text", "token", "subdomain", "rmmUrl", "appVer"));
}

TEST(ProtocolWire, ALoneArgumentIsNamedAfterItsType) {
    EXPECT_THAT(argumentNames(*xpcAgentProtocol.find("connected:")), ElementsAre("flag"));
    EXPECT_THAT(argumentNames(*xpcAgentProtocol.find("logLevel:")), ElementsAre("value"));
    EXPECT_THAT(argumentNames(*xpcDaemonProtocol.find("putMessage:")), ElementsAre("data"));
    EXPECT_THAT(argumentNames(*xpcDaemonProtocol.find("requestForLogLevel:")), ElementsAre("value"));
}

TEST(ProtocolWire, TheReplyBlockIsNoArgument) {
    EXPECT_THAT(argumentNames(*xpcDaemonProtocol.find("pingWithReply:")), ElementsAre());
}

TEST(ProtocolWire, FindsAMethodByItsMember) {
    EXPECT_EQ(findMember(xpcDaemonProtocol, "pingWithReply"), xpcDaemonProtocol.find("pingWithReply:"));
    EXPECT_EQ(findMember(xpcDaemonProtocol, "pingWithReply:"), nullptr);
    EXPECT_EQ(findMember(xpcDaemonProtocol, "connected"), nullptr);
    EXPECT_EQ(findMember(xpcDaemonProtocol, ""), nullptr);
    EXPECT_EQ(findMember(xpcDaemonProtocol, nullptr), nullptr);
}

TEST(InterfaceXml, ShowsArgumentsAndReplies) {
    const std::string xml = interfaceXml(xpcDaemonProtocol);
    EXPECT_THAT(xml, HasSubstr("<!DOCTYPE node"));
    EXPECT_THAT(xml, HasSubstr("  <method name=\"loggedUser\">\n"
                               "   <arg type=\"s\" name=\"reply\" direction=\"out\"/>\n"
                               "  </method>\n"));
    EXPECT_THAT(xml,
                HasSubstr("  <method name=\"putMessage\">\n"
                          "   <arg type=\"ay\" name=\"data\" direction=\"in\"/>\n"
                          "   <annotation name=\"org.freedesktop.DBus.Method.NoReply\" value=\"true\"/>\n"
                          "  </method>\n"));
}

TEST(InterfaceXml, TellsTheSameAsTheIntrospectionOfTheTable) {
    for (const XpcProtocol* protocol : {&xpcDaemonProtocol, &xpcAgentProtocol}) {
        Peers peers(*protocol);
        const std::string interface = interfaceName(*protocol);
        EXPECT_EQ(interfaceElement(interfaceXml(*protocol), interface),
                  interfaceElement(peers.introspection(), interface));
    }
}

TEST(ProtocolVTable, BringsACallOfEveryMethodToTheHandler) {
    for (const XpcProtocol* protocol : {&xpcDaemonProtocol, &xpcAgentProtocol}) {
        Peers peers(*protocol);
        for (const XpcMethod& method : *protocol) {
            const std::string member(method.member());
            const MessageHandle call = peers.newCall(interfaceName(*protocol).c_str(), member.c_str());
            for (std::size_t i = 0; i < method.argumentCount; ++i) {
                appendSample(call.get(), method.arguments[i]);
            }
            const MessageHandle reply = peers.exchange(call);
            EXPECT_FALSE(sd_bus_message_is_method_error(reply.get(), nullptr)) << member;
            EXPECT_EQ(sd_bus_message_get_signature(reply.get(), 1), replySignature(method)) << member;
            EXPECT_EQ(peers.handled().count(member), 1U) << member;
        }
    }
}

TEST(ProtocolVTable, LetsSdBusRefuseAWrongSignature) {
    Peers peers(xpcAgentProtocol);
    const MessageHandle call = peers.newCall(interfaceName(xpcAgentProtocol).c_str(), "connected");
    ASSERT_GE(sd_bus_message_append(call.get(), "s", "yes"), 0);
    const MessageHandle reply = peers.exchange(call);
    EXPECT_TRUE(sd_bus_message_is_method_error(reply.get(), SD_BUS_ERROR_INVALID_ARGS));
    EXPECT_TRUE(peers.handled().empty());
}

TEST(ProtocolVTable, LetsSdBusRefuseAnUnknownMethod) {
    Peers peers(xpcAgentProtocol);
    const MessageHandle reply =
        peers.exchange(peers.newCall(interfaceName(xpcAgentProtocol).c_str(), "reboot"));
    EXPECT_TRUE(sd_bus_message_is_method_error(reply.get(), SD_BUS_ERROR_UNKNOWN_METHOD));
    EXPECT_TRUE(peers.handled().empty());
}

TEST(ProtocolVTable, OpensEveryMethodToUnprivilegedCallers) {
    const ProtocolVTable table(xpcAgentProtocol, nullptr);
    for (const sd_bus_vtable* entry = table.data() + 1; entry->type != _SD_BUS_VTABLE_END; ++entry) {
        EXPECT_TRUE(entry->flags & SD_BUS_VTABLE_UNPRIVILEGED) << entry->x.method.member;
    }
}

}  // namespace
