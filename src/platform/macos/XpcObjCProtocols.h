#pragma once

#import <Foundation/Foundation.h>

#include "velmmonitord/XpcProtocols.h"

#pragma clang assume_nonnull begin

// The two protocols of the daemon link as the frameworks need them. They are the contract with the daemon
// byte for byte: selectors, order, types, required and optional are those of the tables in XpcProtocols.h,
// which tests/macos compares with what the compiler makes of these declarations. Neither adopts another
// protocol, as that would add its methods to what may cross the connection.

/// What the daemon exports; called through a connection's remote object proxy.
@protocol XpcDaemonProtocol
- (void)connect;
@optional
- (void)pingWithReply:(void (^)(BOOL answer))reply;
- (void)putMessage:(NSData*)data;
- (void)onScreenLocked:(BOOL)locked;
- (void)onTimeZoneChanged;
- (void)requestForNetworkReachability;
- (void)requestForInitRmm;
- (void)requestForLogLevel:(int)level;
- (void)lastCommunicationTime:(void (^)(NSNumber* time))reply;
- (void)loggedUser:(void (^)(NSString* user))reply;
- (void)upTime:(void (^)(NSNumber* time))reply;
- (void)requestForRmmMonitors;
@end

/// What the agent exports.
@protocol XpcAgentProtocol
- (void)connected:(BOOL)flag;
- (void)putMessage:(NSData*)data;
@optional
- (void)initRmmMessage:(NSString*)message
                 token:(NSString*)token
             subdomain:(NSString*)subdomain
                rmmUrl:(NSString*)rmmUrl
                appVer:(NSString*)appVer;
- (void)networkReachability:(BOOL)reachable;
- (void)logLevel:(NSInteger)level;
- (void)rmmMessage:(NSData*)data;
@end

namespace platform {

/// The interface that the frameworks build from the protocol of that table, with no class lists added: the
/// default classes are all that crosses the connection. Any thread.
NSXPCInterface* interfaceOf(const XpcProtocol& protocol);

}  // namespace platform

#pragma clang assume_nonnull end
