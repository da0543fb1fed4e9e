#pragma once

#import "platform/macos/XpcObjCProtocols.h"

#include <memory>

#include "platform/macos/XpcDelivery.h"

#pragma clang assume_nonnull begin

/// The object that a connection exports: passes the daemon's calls on to the agent's client, which it keeps
/// alive, in the connection's delivery. It does not implement `rmmMessage:`, so the connection refuses
/// that call.
@interface VelmXpcExportedObject : NSObject <XpcAgentProtocol>
- (instancetype)init __attribute__((unavailable));
/// Neither may be null.
- (instancetype)initWithClient:(std::shared_ptr<XpcAgentProtocol>)client
                      delivery:(std::shared_ptr<platform::XpcDelivery>)delivery
    __attribute__((objc_designated_initializer));
@end

#pragma clang assume_nonnull end
