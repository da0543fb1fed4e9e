#pragma once

#include <memory>

#include "velmmonitord/XpcProtocols.h"

namespace platform {

class BusLink;

/// The daemon as seen through `link`: each operation becomes one message. Safe on any thread; holds the link.
std::shared_ptr<XpcDaemonProtocol> createDaemonProxy(std::shared_ptr<BusLink> link);

}  // namespace platform
