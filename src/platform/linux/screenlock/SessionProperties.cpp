#include "platform/linux/screenlock/SessionProperties.h"

#include <cstdint>
#include <cstring>

namespace platform {
namespace {

constexpr const char* lockedHintName = "LockedHint";

// Each reads one variant: negative when it is of another type, as the library says it.
int readUser(sd_bus_message* message, SessionProperties& properties) {
    std::uint32_t user = 0;
    const char* path = nullptr;
    const int error = sd_bus_message_read(message, "v", "(uo)", &user, &path);
    properties.user = user;
    return error;
}

int readClass(sd_bus_message* message, SessionProperties& properties) {
    const char* text = "";
    const int error = sd_bus_message_read(message, "v", "s", &text);
    properties.kind = text;
    return error;
}

int readLockedHint(sd_bus_message* message, SessionProperties& properties) {
    int value = 0;
    const int error = sd_bus_message_read(message, "v", "b", &value);
    properties.lockedHint = value != 0;
    return error;
}

int readEntry(sd_bus_message* message, SessionProperties& properties) {
    const char* name = nullptr;
    const int error = sd_bus_message_read(message, "s", &name);
    if (error < 0) {
        return error;
    }
    if (std::strcmp(name, "User") == 0) {
        return readUser(message, properties);
    }
    if (std::strcmp(name, "Class") == 0) {
        return readClass(message, properties);
    }
    if (std::strcmp(name, lockedHintName) == 0) {
        return readLockedHint(message, properties);
    }
    return sd_bus_message_skip(message, "v");
}

int readEntries(sd_bus_message* message, SessionProperties& properties) {
    int more = 0;
    while ((more = sd_bus_message_enter_container(message, 'e', "sv")) > 0) {
        int error = readEntry(message, properties);
        if (error >= 0) {
            error = sd_bus_message_exit_container(message);
        }
        if (error < 0) {
            return error;
        }
    }
    return more;
}

}  // namespace

std::optional<SessionProperties> readSessionProperties(sd_bus_message* message) {
    SessionProperties properties;
    if (sd_bus_message_enter_container(message, 'a', "{sv}") <= 0 || readEntries(message, properties) < 0 ||
        sd_bus_message_exit_container(message) < 0) {
        return std::nullopt;
    }
    return properties;
}

bool listsLockedHint(sd_bus_message* message) {
    if (sd_bus_message_enter_container(message, 'a', "s") <= 0) {
        return false;
    }
    const char* name = nullptr;
    bool found = false;
    while (sd_bus_message_read(message, "s", &name) > 0) {
        found = found || std::strcmp(name, lockedHintName) == 0;
    }
    return found;
}

}  // namespace platform
