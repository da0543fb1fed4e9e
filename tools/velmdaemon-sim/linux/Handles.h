#pragma once

#include <systemd/sd-event.h>

#include <memory>

#include "platform/linux/bus/BusHandles.h"

namespace sim {

using platform::BusHandle;
using platform::MessageHandle;
using platform::SlotHandle;

struct EventUnref {
    void operator()(sd_event* event) const { sd_event_unref(event); }
};
struct SourceUnref {
    void operator()(sd_event_source* source) const { sd_event_source_disable_unref(source); }
};

using EventHandle = std::unique_ptr<sd_event, EventUnref>;
/// Also switches the source off, for the loop may hold it a moment longer.
using SourceHandle = std::unique_ptr<sd_event_source, SourceUnref>;

}  // namespace sim
