#pragma once

#include <sys/inotify.h>
#include <systemd/sd-event.h>

#include <cstdint>

namespace platform {

// sd-event handlers, one for each kind of source, that call `method` of the object given as user data. An
// exception inside ends the process: it must not pass through the library's C frames.

/// Of sources without an argument: defer, post, exit.
template <auto method, typename Object>
int eventCallback(sd_event_source* /*source*/, void* object) noexcept {
    (static_cast<Object*>(object)->*method)();
    return 0;
}

/// Of a descriptor.
template <auto method, typename Object>
int eventCallback(sd_event_source* /*source*/, int /*descriptor*/, std::uint32_t /*events*/,
                  void* object) noexcept {
    (static_cast<Object*>(object)->*method)();
    return 0;
}

/// Of a file or directory; `method` takes the event.
template <auto method, typename Object>
int eventCallback(sd_event_source* /*source*/, const inotify_event* event, void* object) noexcept {
    (static_cast<Object*>(object)->*method)(*event);
    return 0;
}

/// Of a time.
template <auto method, typename Object>
int eventCallback(sd_event_source* /*source*/, std::uint64_t /*due*/, void* object) noexcept {
    (static_cast<Object*>(object)->*method)();
    return 0;
}

}  // namespace platform
