#pragma once

#include <systemd/sd-bus.h>

namespace platform {

/// Refuses a call with AccessDenied and the reason `why`: gives what its handler is to return. Who calls
/// faster than the bus takes the refusals gets no more of them, so that they do not fill the memory. On the
/// bus's thread.
int refuseCall(sd_bus* bus, sd_bus_error* error, const char* why);

}  // namespace platform
