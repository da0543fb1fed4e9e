#pragma once

#include <systemd/sd-bus.h>

#include <type_traits>

namespace platform {

/// Hands the message to `method` of `receiver`, and gives what sd-bus wants of a handler: a method that takes
/// an error too decides that; after any other, the library goes on with the message.
template <auto method, typename Object>
int handOver(Object& receiver, sd_bus_message* message, sd_bus_error* error) {
    if constexpr (std::is_invocable_v<decltype(method), Object&, sd_bus_message*, sd_bus_error*>) {
        return (receiver.*method)(message, error);
    } else {
        (receiver.*method)(message);
        return 0;
    }
}

/// An sd-bus handler that hands the message to `method` of the object given as user data. An exception inside
/// ends the process: it must not pass through the library's C frames.
template <auto method, typename Object>
int busCallback(sd_bus_message* message, void* object, sd_bus_error* error) noexcept {
    return handOver<method>(*static_cast<Object*>(object), message, error);
}

}  // namespace platform
