#pragma once

#include <systemd/sd-bus.h>

#include <memory>
#include <string>

namespace link_tests {

struct SdBusClose {
    void operator()(sd_bus* bus) const {
        // Without flushing, as when a process dies.
        sd_bus_close(bus);
        sd_bus_unref(bus);
    }
};
struct SdMessageUnref {
    void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};

using BusHandle = std::unique_ptr<sd_bus, SdBusClose>;
using MessageHandle = std::unique_ptr<sd_bus_message, SdMessageUnref>;

/// Throws, naming `operation`, if `result` is a negative errno value; gives it back otherwise.
int check(int result, const char* operation);

/// A client of the bus at `address`, which is not started yet: what a test wants of it otherwise comes first.
/// Throws std::system_error.
BusHandle newClient(const std::string& address);
/// The name that the bus gave it once it was started; waits for that. Throws std::system_error.
std::string uniqueNameOf(sd_bus* bus);

/// A text that sd-bus may give as null.
std::string textOf(const char* text);

/// The arguments of a message in one line: "true", "7", "\"text\"", "<20 bytes>", separated by blanks.
std::string describeArguments(sd_bus_message* message);

}  // namespace link_tests
