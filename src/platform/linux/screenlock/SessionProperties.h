#pragma once

#include <systemd/sd-bus.h>

#include <optional>
#include <string>

namespace platform {

/// What matters of the properties of org.freedesktop.login1.Session, as far as a message had them.
struct SessionProperties {
    std::optional<unsigned> user;
    std::optional<std::string> kind;
    /// "closing" once the session has ended, while any of its processes lives.
    std::optional<std::string> state;
    std::optional<std::string> type;
    std::optional<bool> remote;
    std::optional<bool> lockedHint;
};

/// Reads a dictionary of properties (a{sv}) at the message's position; nothing if it is malformed or one of
/// the properties that matter is of another type.
std::optional<SessionProperties> readSessionProperties(sd_bus_message* message);

/// Whether the list of strings at the message's position has a property that decides whether and how a
/// session counts.
bool listsWhatMatters(sd_bus_message* message);

}  // namespace platform
