#pragma once

#import <Foundation/Foundation.h>

#include <memory>

#include "velmmonitord/XpcProtocols.h"

#pragma clang assume_nonnull begin

namespace sim {

/// The agent at the other end of `connection`, which it keeps alive. Any thread.
std::shared_ptr<XpcAgentProtocol> agentOf(NSXPCConnection* connection);

}  // namespace sim

#pragma clang assume_nonnull end
