#pragma once

#include <systemd/sd-bus.h>

#include <cstddef>
#include <functional>

#include "velmmonitord/XpcProtocols.h"

namespace platform {

/// A call of the agent with its arguments. Refers to the message that it was read from, which must outlive
/// it.
using AgentCall = std::function<void(XpcAgentProtocol&)>;

/// Reads the arguments of `message`, a call of `method` of XpcAgentProtocol. Empty if they are not what the
/// method takes, or if it is no method of that protocol. On the bus's thread.
AgentCall decodeAgentCall(const XpcMethod& method, sd_bus_message* message);

/// How many bytes a call of XpcAgentProtocol holds in its data or its texts. `message` is left at its start.
std::size_t payloadOf(sd_bus_message* message);

}  // namespace platform
