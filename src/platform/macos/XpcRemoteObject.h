#pragma once

#import <Foundation/Foundation.h>

#include <memory>

#include "velmmonitord/XpcProtocols.h"

#pragma clang assume_nonnull begin

namespace platform {

/// The daemon's side of `connection`, over its plain proxy (the one without an error handler). Holds the
/// connection rather than the proxy, as nothing says that a proxy keeps its connection alive. With nil, what
/// is sent is lost. Any thread.
std::shared_ptr<XpcDaemonProtocol> remoteObjectOf(NSXPCConnection* _Nullable connection);

}  // namespace platform

#pragma clang assume_nonnull end
