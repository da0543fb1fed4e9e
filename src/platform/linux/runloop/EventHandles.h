#pragma once

#include <systemd/sd-event.h>

#include <memory>

namespace platform {

// Owners of sd-event objects. Their reference counts are not atomic: a loop and its sources stay on one
// thread.

struct LoopUnref {
    void operator()(sd_event* loop) const { sd_event_unref(loop); }
};
struct SourceDisable {
    void operator()(sd_event_source* source) const { sd_event_source_disable_unref(source); }
};

using LoopHandle = std::unique_ptr<sd_event, LoopUnref>;
/// Disables the source too, because the loop itself holds another reference while it dispatches.
using SourceHandle = std::unique_ptr<sd_event_source, SourceDisable>;

}  // namespace platform
