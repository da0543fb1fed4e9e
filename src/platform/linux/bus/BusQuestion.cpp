#include "platform/linux/bus/BusQuestion.h"

#include <chrono>
#include <cstdint>

#include "platform/linux/process/OutHandle.h"

namespace platform {
namespace {

// Far longer than a bus or a service takes that works at all, and short enough to be linked again soon after
// a flood.
constexpr std::chrono::microseconds patience = std::chrono::seconds(3);

constexpr const char* busName = "org.freedesktop.DBus";
constexpr const char* busPath = "/org/freedesktop/DBus";

}  // namespace

int askService(sd_bus* bus, SlotHandle& question, const BusMethod& method, const char* argument,
               sd_bus_message_handler_t answered, void* object) {
    MessageHandle call;
    int result = sd_bus_message_new_method_call(bus, OutHandle(call), method.service, method.path,
                                                method.interface, method.member);
    if (result >= 0 && argument != nullptr) {
        result = sd_bus_message_append(call.get(), "s", argument);
    }
    if (result >= 0) {
        result = sd_bus_call_async(bus, OutHandle(question), call.get(), answered, object,
                                   static_cast<std::uint64_t>(patience.count()));
    }
    return result;
}

int askBus(sd_bus* bus, SlotHandle& question, const char* member, const char* argument,
           sd_bus_message_handler_t answered, void* object) {
    return askService(bus, question, {busName, busPath, busName, member}, argument, answered, object);
}

bool isUnanswered(sd_bus_message* message) {
    // The library's names for it; which one, depends on its version.
    return sd_bus_message_is_method_error(message, SD_BUS_ERROR_NO_REPLY) > 0 ||
           sd_bus_message_is_method_error(message, SD_BUS_ERROR_TIMEOUT) > 0;
}

}  // namespace platform
