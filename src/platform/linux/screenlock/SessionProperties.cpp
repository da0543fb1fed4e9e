#include "platform/linux/screenlock/SessionProperties.h"

#include <cstdint>

namespace platform {
namespace {

// Each reads one variant: negative when it is of another type, as the library says it.
int readUser(sd_bus_message* message, std::optional<unsigned>& user) {
    std::uint32_t value = 0;
    const int error = sd_bus_message_read(message, "v", "(uo)", &value, nullptr);
    user = value;
    return error;
}

int readText(sd_bus_message* message, std::optional<std::string>& text) {
    const char* value = "";
    const int error = sd_bus_message_read(message, "v", "s", &value);
    text = value;
    return error;
}

int readFlag(sd_bus_message* message, std::optional<bool>& flag) {
    int value = 0;
    const int error = sd_bus_message_read(message, "v", "b", &value);
    flag = value != 0;
    return error;
}

int readValue(sd_bus_message* message, const std::string& name, SessionProperties& properties) {
    if (name == "User") {
        return readUser(message, properties.user);
    }
    if (name == "Class") {
        return readText(message, properties.kind);
    }
    if (name == "State") {
        return readText(message, properties.state);
    }
    if (name == "Type") {
        return readText(message, properties.type);
    }
    if (name == "Remote") {
        return readFlag(message, properties.remote);
    }
    if (name == "LockedHint") {
        return readFlag(message, properties.lockedHint);
    }
    return sd_bus_message_skip(message, "v");
}

int readEntry(sd_bus_message* message, SessionProperties& properties) {
    const char* name = nullptr;
    const int error = sd_bus_message_read(message, "s", &name);
    return error < 0 ? error : readValue(message, name, properties);
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

bool listsWhatMatters(sd_bus_message* message) {
    if (sd_bus_message_enter_container(message, 'a', "s") <= 0) {
        return false;
    }
    const char* name = nullptr;
    bool found = false;
    while (sd_bus_message_read(message, "s", &name) > 0) {
        const std::string property = name;
        found = found || property == "LockedHint" || property == "Class" || property == "State";
    }
    return found;
}

}  // namespace platform
