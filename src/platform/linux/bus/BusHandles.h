#pragma once

#include <systemd/sd-bus.h>

#include <memory>

namespace platform {

// Owners of sd-bus objects. None of sd-bus's reference counts is atomic (sd_bus_ref(3), "NOTES" of
// sd_bus_new(3)), and a message or slot holds its bus: whoever owns one of these destroys it on the thread,
// or under the mutex, that the bus belongs to. A slot goes before its bus.

struct BusCloser {
    void operator()(sd_bus* bus) const { sd_bus_close_unref(bus); }
};
struct SlotUnref {
    void operator()(sd_bus_slot* slot) const { sd_bus_slot_unref(slot); }
};
struct MessageUnref {
    void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};

/// Closes the bus without waiting: what was not yet written is lost.
using BusHandle = std::unique_ptr<sd_bus, BusCloser>;
using SlotHandle = std::unique_ptr<sd_bus_slot, SlotUnref>;
using MessageHandle = std::unique_ptr<sd_bus_message, MessageUnref>;

}  // namespace platform
