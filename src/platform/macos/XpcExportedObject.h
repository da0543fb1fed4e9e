#pragma once

#import "platform/macos/XpcObjCProtocols.h"

#include <memory>

#pragma clang assume_nonnull begin

/// The object that a connection exports: passes the daemon's calls on to the agent's client, which it keeps
/// alive, on the thread on which they come. It does not implement `rmmMessage:`, so the connection refuses
/// that call.
@interface VelmXpcExportedObject : NSObject <XpcAgentProtocol>
- (instancetype)init __attribute__((unavailable));
/// `client` must not be null.
- (instancetype)initWithClient:(std::shared_ptr<XpcAgentProtocol>)client
    __attribute__((objc_designated_initializer));
@end

#pragma clang assume_nonnull end
