#pragma once

#import <Foundation/Foundation.h>

#include "StandIn.h"

#pragma clang assume_nonnull begin

/// Vends the service: gives each agent that connects a conversation with the stand-in, and tells the stand-in
/// when an agent is gone. The listener asks on a private queue; the stand-in is only touched on the main
/// queue.
///
/// It accepts whoever connects. A real daemon that trusts its agents would look at their code signature
/// first.
@interface VelmSimDaemonListener : NSObject <NSXPCListenerDelegate>
- (instancetype)init __attribute__((unavailable));
/// `standIn` must outlive this object.
- (instancetype)initWithStandIn:(sim::StandIn&)standIn __attribute__((objc_designated_initializer));
@end

#pragma clang assume_nonnull end
