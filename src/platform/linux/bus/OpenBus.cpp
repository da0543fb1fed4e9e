#include "platform/linux/bus/OpenBus.h"

#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <initializer_list>

#include "platform/linux/bus/BusHandles.h"
#include "platform/linux/process/OutHandle.h"

namespace platform {
namespace {

constexpr const char* wellKnownSystemAddress = "unix:path=/run/dbus/system_bus_socket";

/// What an address cannot hold as it stands, escaped (D-Bus specification, "Server Addresses").
std::string escaped(const std::string& path) {
    constexpr const char* digits = "0123456789abcdef";
    std::string text;
    for (const char character : path) {
        const auto byte = static_cast<unsigned char>(character);
        if (std::isalnum(byte) != 0 || std::string("-_/.\\").find(character) != std::string::npos) {
            text += character;
        } else {
            text += {'%', digits[byte >> 4U], digits[byte & 0xFU]};
        }
    }
    return text;
}

int firstError(std::initializer_list<int> results) {
    for (const int result : results) {
        if (result < 0) {
            return result;
        }
    }
    return 0;
}

}  // namespace

int openBusAt(const std::string& address, sd_bus** bus) {
    BusHandle made;
    int result = sd_bus_new(OutHandle(made));
    if (result >= 0) {
        sd_bus* const unset = made.get();
        result = firstError({sd_bus_set_address(unset, address.c_str()), sd_bus_set_bus_client(unset, 1),
                             sd_bus_negotiate_fds(unset, 0), sd_bus_set_close_on_exit(unset, 0),
                             sd_bus_set_method_call_timeout(unset, UINT64_MAX)});
    }
    if (result >= 0) {
        result = sd_bus_start(made.get());
    }
    if (result >= 0) {
        *bus = made.release();
    }
    return result;
}

int openSystemBus(sd_bus** bus) {
    const char* const address = secure_getenv("DBUS_SYSTEM_BUS_ADDRESS");
    return openBusAt(address == nullptr ? wellKnownSystemAddress : address, bus);
}

int openUserBus(sd_bus** bus) {
    if (const char* const address = secure_getenv("DBUS_SESSION_BUS_ADDRESS")) {
        return openBusAt(address, bus);
    }
    const char* const directory = secure_getenv("XDG_RUNTIME_DIR");
    return directory == nullptr ? -ENOMEDIUM : openBusAt("unix:path=" + escaped(directory) + "/bus", bus);
}

}  // namespace platform
