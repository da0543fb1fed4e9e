// A small management daemon over NSXPC: confirms each agent's link, and prints what happens. See
// daemon-authors.md. launchd starts it as root and hands it the Mach service.

#import <Foundation/Foundation.h>
#import <dispatch/dispatch.h>
#include <pwd.h>
#include <stdio.h>

// The contract, to be declared whole and in this order, so that both ends build the same interface.
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

static const char* userName(uid_t uid) {
    const struct passwd* entry = getpwuid(uid);
    return entry != NULL ? entry->pw_name : "an unknown user";
}

/// What one agent talks to. Its calls come one at a time, on its connection's private queue.
@interface Conversation : NSObject <XpcDaemonProtocol>
- (instancetype)initWithConnection:(NSXPCConnection*)connection;
@end

@implementation Conversation {
    // The connection holds this object, so not the other way round too.
    __weak NSXPCConnection* m_connection;
    uid_t m_user;
}

- (instancetype)initWithConnection:(NSXPCConnection*)connection {
    self = [super init];
    m_connection = connection;
    // The system knows who is at the other end; nothing that a message says is to be trusted for that.
    m_user = connection.effectiveUserIdentifier;
    return self;
}

- (void)print:(const char*)what {
    printf("%s: %s\n", userName(m_user), what);
    fflush(stdout);
}

- (id<XpcAgentProtocol>)agent {
    return m_connection.remoteObjectProxy;
}

- (void)connect {
    // May come twice from one agent.
    [self print:"connected; whether the screen is locked is not known"];
    [[self agent] connected:YES];
}

- (void)pingWithReply:(void (^)(BOOL answer))reply {
    reply(YES);
}

- (void)putMessage:(NSData*)data {
    [self print:data.length != 0 ? "a message" : "an empty message"];
}

- (void)onScreenLocked:(BOOL)locked {
    [self print:locked ? "screen locked" : "screen unlocked"];
}

- (void)onTimeZoneChanged {
    [self print:"time zone changed"];
    [[self agent] putMessage:[NSData dataWithBytes:"noted" length:5]];
}

- (void)requestForLogLevel:(int)level {
    [[self agent] logLevel:6];
}

@end

@interface Listener : NSObject <NSXPCListenerDelegate>
@end

@implementation Listener

- (BOOL)listener:(NSXPCListener*)listener shouldAcceptNewConnection:(NSXPCConnection*)connection {
    // A real daemon looks at the code signature of whoever connects before it says yes.
    const uid_t user = connection.effectiveUserIdentifier;
    [connection setRemoteObjectInterface:[NSXPCInterface interfaceWithProtocol:@protocol(XpcAgentProtocol)]];
    [connection setExportedInterface:[NSXPCInterface interfaceWithProtocol:@protocol(XpcDaemonProtocol)]];
    [connection setExportedObject:[[Conversation alloc] initWithConnection:connection]];
    [connection setInvalidationHandler:^{
        printf("%s: gone\n", userName(user));
        fflush(stdout);
    }];
    [connection resume];
    return YES;
}

@end

int main(void) {
    @autoreleasepool {
        // The listener's own reference to its delegate is weak.
        __attribute__((objc_precise_lifetime)) Listener* const delegate = [[Listener alloc] init];
        __attribute__((objc_precise_lifetime)) NSXPCListener* const listener =
            [[NSXPCListener alloc] initWithMachServiceName:@"com.brovik.velmdaemon"];
        listener.delegate = delegate;
        [listener resume];
        dispatch_main();
    }
}
