#pragma once

#import "platform/macos/XpcObjCProtocols.h"

#include <memory>

#pragma clang assume_nonnull begin

/// What the stand-in exports to one agent. Calls come on the connection's private queue and go on to the
/// conversation on the main queue, in their order.
@interface VelmSimExportedObject : NSObject <XpcDaemonProtocol>
- (instancetype)init __attribute__((unavailable));
/// `conversation` must not be null.
- (instancetype)initWithConversation:(std::shared_ptr<XpcDaemonProtocol>)conversation
    __attribute__((objc_designated_initializer));
@end

#pragma clang assume_nonnull end
