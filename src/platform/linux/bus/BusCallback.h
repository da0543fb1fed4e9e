#pragma once

#include <systemd/sd-bus.h>

#include <type_traits>

namespace platform {

/// An sd-bus handler that hands the message to `method` of the object given as user data. A method that takes
/// an error too decides the handler's result; after any other, the library goes on with the message. An
/// exception inside ends the process: it must not pass through the library's C frames.
template <auto method, typename Object>
int busCallback(sd_bus_message* message, void* object, sd_bus_error* error) noexcept {
    auto& receiver = *static_cast<Object*>(object);
    if constexpr (std::is_invocable_v<decltype(method), Object&, sd_bus_message*, sd_bus_error*>) {
        return (receiver.*method)(message, error);
    } else {
        (receiver.*method)(message);
        return 0;
    }
}

}  // namespace platform
