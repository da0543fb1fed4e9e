#include "platform/linux/link/AgentCalls.h"

#include <array>
#include <cstring>
#include <string>

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
    return [operation, data = XpcData{static_cast<const char*>(bytes), length}](XpcAgentProtocol& agent) {
        (agent.*operation)(data);
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
    return [texts](XpcAgentProtocol& agent) {
        agent.initRmmMessage(texts[0], texts[1], texts[2], texts[3], texts[4]);
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
    for (std::size_t index = 0; index < decoders.size(); ++index) {
        if (xpcAgentProtocol.methods[index].selector == method.selector) {
            return decoders.at(index)(message);
        }
    }
    return nullptr;
}

std::size_t payloadOf(sd_bus_message* message) {
    std::size_t payload = 0;
    const void* bytes = nullptr;
    if (sd_bus_message_has_signature(message, "ay") > 0) {
        sd_bus_message_read_array(message, 'y', &bytes, &payload);
    } else {
        const char* text = nullptr;
        while (sd_bus_message_peek_type(message, nullptr, nullptr) > 0 &&
               sd_bus_message_read_basic(message, 's', &text) > 0) {
            payload += std::strlen(text);
        }
    }
    sd_bus_message_rewind(message, 1);
    return payload;
}

}  // namespace platform
