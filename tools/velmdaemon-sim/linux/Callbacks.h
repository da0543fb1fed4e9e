#pragma once

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <cerrno>
#include <cstdint>
#include <exception>

#include "linux/Failure.h"
#include "platform/linux/bus/BusCallback.h"

namespace sim {

// Handlers for sd-bus and sd-event that call `method` of the object given as user data. No exception may pass
// through the libraries' C frames: one inside ends the event loop with its message and status. A call is
// answered with an error then, and a source is switched off.

/// Does `work` and gives its result. What it throws ends `loop`.
template <typename Work>
int guarded(sd_event* loop, const Work& work) noexcept {
    try {
        return work();
    } catch (...) {
        endLoop(loop, std::current_exception());
        return -EIO;
    }
}

/// Of messages on a bus that is attached to the loop; `method` as for `platform::handOver`.
template <auto method, typename Object>
int busCallback(sd_bus_message* message, void* object, sd_bus_error* error) noexcept {
    return guarded(sd_bus_get_event(sd_bus_message_get_bus(message)),
                   [&] { return platform::handOver<method>(*static_cast<Object*>(object), message, error); });
}

/// Of sources without an argument: defer.
template <auto method, typename Object>
int eventCallback(sd_event_source* source, void* object) noexcept {
    return guarded(sd_event_source_get_event(source), [&] {
        (static_cast<Object*>(object)->*method)();
        return 0;
    });
}

/// Of a descriptor.
template <auto method, typename Object>
int eventCallback(sd_event_source* source, int /*descriptor*/, std::uint32_t /*events*/,
                  void* object) noexcept {
    return eventCallback<method, Object>(source, object);
}

/// Of a time.
template <auto method, typename Object>
int eventCallback(sd_event_source* source, std::uint64_t /*due*/, void* object) noexcept {
    return eventCallback<method, Object>(source, object);
}

}  // namespace sim
