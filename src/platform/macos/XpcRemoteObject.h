#pragma once

#import <Foundation/Foundation.h>

#include <memory>

#include "platform/macos/XpcDelivery.h"
#include "velmmonitord/XpcProtocols.h"

#pragma clang assume_nonnull begin

namespace platform {

/// The daemon's side of `connection`, over its plain proxy (the one without an error handler). Holds the
/// connection rather than the proxy, as nothing says that a proxy keeps its connection alive. Replies come in
/// `delivery`, which learns of each message. With nil, what is sent is lost. Any thread.
std::shared_ptr<XpcDaemonProtocol> remoteObjectOf(NSXPCConnection* _Nullable connection,
                                                  std::shared_ptr<XpcDelivery> delivery);

}  // namespace platform

#pragma clang assume_nonnull end
