#include "platform/linux/link/AgentCalls.h"

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace platform {
namespace {

using Decoder = AgentCall (*)(sd_bus_message* message);

AgentCall readFlag(sd_bus_message* message, void (XpcAgentProtocol::*operation)(bool)) {
    int flag = 0;
    if (sd_bus_message_read(message, "b", &flag) < 0) {
        return nullptr;
    }
    return [operation, flag](XpcAgentProtocol& agent) { (agent.*operation)(flag != 0); };
}

AgentCall readData(sd_bus_message* message, void (XpcAgentProtocol::*operation)(const XpcData&)) {
    const void* bytes = nullptr;
    std::size_t length = 0;
    if (sd_bus_message_read_array(message, 'y', &bytes, &length) < 0) {
        return nullptr;
    }
    const char* begin = static_cast<const char*>(bytes);
    return [operation, copy = std::vector<char>(begin, begin + length)](XpcAgentProtocol& agent) {
        (agent.*operation)(XpcData{copy.data(), copy.size()});
    };
}

AgentCall readConnected(sd_bus_message* message) {
    return readFlag(message, &XpcAgentProtocol::connected);
}

AgentCall readPutMessage(sd_bus_message* message) {
    return readData(message, &XpcAgentProtocol::putMessage);
}

AgentCall readInitRmm(sd_bus_message* message) {
    std::array<const char*, 5> texts{};
    if (sd_bus_message_read(message, "sssss", &texts[0], &texts[1], &texts[2], &texts[3], &texts[4]) < 0) {
        return nullptr;
    }
    return [copies = std::array<std::string, 5>{texts[0], texts[1], texts[2], texts[3], texts[4]}](
               XpcAgentProtocol& agent) {
        agent.initRmmMessage(copies[0], copies[1], copies[2], copies[3], copies[4]);
    };
}

AgentCall readNetworkReachability(sd_bus_message* message) {
    return readFlag(message, &XpcAgentProtocol::networkReachability);
}

AgentCall readLogLevel(sd_bus_message* message) {
    std::int64_t level = 0;
    if (sd_bus_message_read(message, "x", &level) < 0) {
        return nullptr;
    }
    return [level](XpcAgentProtocol& agent) { agent.logLevel(level); };
}

AgentCall readRmm(sd_bus_message* message) {
    return readData(message, &XpcAgentProtocol::rmmMessage);
}

/// In the table's order.
constexpr std::array<Decoder, xpcAgentProtocol.methodCount> decoders{
    readConnected, readPutMessage, readInitRmm, readNetworkReachability, readLogLevel, readRmm,
};

}  // namespace

AgentCall decodeAgentCall(const XpcMethod& method, sd_bus_message* message) {
    const auto index = static_cast<std::size_t>(&method - xpcAgentProtocol.methods);
    return decoders.at(index)(message);
}

}  // namespace platform
