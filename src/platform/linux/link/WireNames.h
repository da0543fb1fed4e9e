#pragma once

#include <string>

#include "velmmonitord/XpcProtocols.h"

/// Where the two ends of the link find each other on the bus. Constants; any thread.
namespace platform::dbus {

/// The name that the management daemon owns on the system bus.
inline constexpr const char* daemonServiceName = "com.brovik.velmdaemon";
/// The daemon's object, on its well-known name.
inline constexpr const char* daemonObjectPath = "/com/brovik/velmdaemon";
/// The agent's object, on the unique name of the agent's connection.
inline constexpr const char* agentObjectPath = "/com/brovik/velmmonitord";

/// The D-Bus interface that carries `protocol`.
inline std::string interfaceName(const XpcProtocol& protocol) {
    return "com.brovik." + std::string(protocol.name);
}

}  // namespace platform::dbus
