#pragma once

#include <systemd/sd-bus.h>

#include "velmmonitord/XpcProtocols.h"

namespace sim {

/// Decodes one call of the daemon's interface, makes it on `daemon`, and answers it: at once if the method
/// returns nothing, otherwise when `daemon` replies. A reply block that is never called leaves the call
/// unanswered. The result is what sd-bus wants of a handler. On the thread of the call's bus.
int dispatchCall(sd_bus_message* call, XpcDaemonProtocol& daemon);

}  // namespace sim
