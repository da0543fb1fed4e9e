#include "platform/linux/bus/Refusal.h"

#include <cstdint>

namespace platform {
namespace {

constexpr std::uint64_t unwrittenRefusalsLimit = 1024;

}  // namespace

int refuseCall(sd_bus* bus, sd_bus_error* error, const char* why) {
    std::uint64_t unwritten = 0;
    if (sd_bus_get_n_queued_write(bus, &unwritten) >= 0 && unwritten > unwrittenRefusalsLimit) {
        return 1;
    }
    return sd_bus_error_set(error, SD_BUS_ERROR_ACCESS_DENIED, why);
}

}  // namespace platform
