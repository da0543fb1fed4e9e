#pragma once

#include <systemd/sd-bus.h>

namespace platform {

/// An sd-bus handler that hands the message to `method` of the object given as user data. An exception inside
/// ends the process: it must not pass through the library's C frames.
template <auto method, typename Object>
int busCallback(sd_bus_message* message, void* object, sd_bus_error* /*error*/) noexcept {
    (static_cast<Object*>(object)->*method)(message);
    return 0;
}

}  // namespace platform
