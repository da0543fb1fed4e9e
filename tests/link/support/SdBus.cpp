#include "link/support/SdBus.h"

#include <cstdint>
#include <system_error>

namespace link_tests {
namespace {

std::string describeArray(sd_bus_message* message, const char* contents) {
    if (contents[0] == 'y') {
        const void* bytes = nullptr;
        std::size_t length = 0;
        check(sd_bus_message_read_array(message, 'y', &bytes, &length), "read array");
        return "<" + std::to_string(length) + " bytes>";
    }
    check(sd_bus_message_skip(message, nullptr), "skip");
    return "[...]";
}

std::string describeArgument(sd_bus_message* message, char type, const char* contents) {
    switch (type) {
        case 'b': {
            int value = 0;
            check(sd_bus_message_read(message, "b", &value), "read b");
            return value != 0 ? "true" : "false";
        }
        case 'i': {
            std::int32_t value = 0;
            check(sd_bus_message_read(message, "i", &value), "read i");
            return std::to_string(value);
        }
        case 'u': {
            std::uint32_t value = 0;
            check(sd_bus_message_read(message, "u", &value), "read u");
            return std::to_string(value);
        }
        case 'x': {
            std::int64_t value = 0;
            check(sd_bus_message_read(message, "x", &value), "read x");
            return std::to_string(value);
        }
        case 's': {
            const char* value = nullptr;
            check(sd_bus_message_read(message, "s", &value), "read s");
            return "\"" + textOf(value) + "\"";
        }
        case 'a':
            return describeArray(message, contents);
        default: {
            // A contained value says itself what is in it.
            const std::string single(1, type);
            check(sd_bus_message_skip(message, contents != nullptr ? nullptr : single.c_str()), "skip");
            return "...";
        }
    }
}

}  // namespace

int check(int result, const char* operation) {
    if (result < 0) {
        throw std::system_error(-result, std::generic_category(), operation);
    }
    return result;
}

BusHandle newClient(const std::string& address) {
    sd_bus* bus = nullptr;
    check(sd_bus_new(&bus), "sd_bus_new");
    BusHandle handle(bus);
    check(sd_bus_set_address(bus, address.c_str()), "sd_bus_set_address");
    check(sd_bus_set_bus_client(bus, 1), "sd_bus_set_bus_client");
    return handle;
}

std::string uniqueNameOf(sd_bus* bus) {
    const char* name = nullptr;
    check(sd_bus_get_unique_name(bus, &name), "sd_bus_get_unique_name");
    return name;
}

std::string textOf(const char* text) {
    return text != nullptr ? text : "";
}

std::string describeArguments(sd_bus_message* message) {
    std::string description;
    char type = 0;
    const char* contents = nullptr;
    while (sd_bus_message_peek_type(message, &type, &contents) > 0) {
        description += (description.empty() ? "" : " ") + describeArgument(message, type, contents);
    }
    sd_bus_message_rewind(message, 1);
    return description;
}

}  // namespace link_tests
