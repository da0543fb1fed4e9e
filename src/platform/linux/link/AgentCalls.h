#pragma once

#include <systemd/sd-bus.h>

#include <functional>

#include "velmmonitord/XpcProtocols.h"

namespace platform {

/// A call to the agent that was taken off the bus: plain values, to be run later without the bus's lock.
using AgentCall = std::function<void(XpcAgentProtocol&)>;

/// Reads the arguments of `message`, a call of `method`, and copies them. Empty if they are not what the
/// method takes. Under whatever guards the bus.
AgentCall decodeAgentCall(const XpcMethod& method, sd_bus_message* message);

}  // namespace platform
