#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <variant>
#include <vector>

#include "platform/linux/bus/BusHandles.h"
#include "velmmonitord/XpcProtocols.h"

namespace platform {

/// What the answer to a call is handed to; nothing for a call without one.
using ReplyBlock = std::variant<std::monostate, XpcBoolReply, XpcNumberReply, XpcStringReply>;

/// A call of the daemon as plain values, on its way from a sender to the thread that has the bus.
struct OutgoingCall {
    const XpcMethod* method = nullptr;
    std::variant<std::monostate, bool, std::int32_t, std::vector<char>> argument;
    ReplyBlock reply;

    bool wantsReply() const { return !std::holds_alternative<std::monostate>(reply); }
    /// How many bytes the argument has.
    std::size_t payload() const;
};

/// The message that carries `call` to the connection `destination`. Null if there is no memory for it or no
/// bus.
MessageHandle encodeCall(sd_bus* bus, const std::string& destination, const OutgoingCall& call);

/// Hands the value in `answer` to `block`. An error, or a value of another type, is dropped; true if the
/// block was called.
bool deliverReply(const ReplyBlock& block, sd_bus_message* answer);

}  // namespace platform
