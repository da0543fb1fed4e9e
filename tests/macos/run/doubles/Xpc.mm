#import <Foundation/Foundation.h>

#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <thread>

#include "doubles/Invocation.h"
#include "doubles/Link.h"
#include "doubles/World.h"
#include "runtime/Runtime.h"

// Doubles of the NSXPC classes over Link.
#pragma clang diagnostic ignored "-Wobjc-designated-initializers"

namespace {

void* untyped(id object) {
    return (__bridge void*)object;
}

}  // namespace

@interface NSXPCInterface (Double)
- (void*)protocol;
@end

@implementation NSXPCInterface {
    Protocol* m_protocol;
}
+ (NSXPCInterface*)interfaceWithProtocol:(Protocol*)protocol {
    NSXPCInterface* const interface = [[NSXPCInterface alloc] init];
    interface->m_protocol = protocol;
    return interface;
}
- (void*)protocol {
    return untyped(m_protocol);
}
@end

// Knows no method; what it is sent goes through forwardingOf.
@interface DoubleProxy : NSObject
- (instancetype)initWithLink:(std::shared_ptr<doubles::Link>)link interface:(NSXPCInterface*)interface;
- (NSXPCInterface*)doubleInterface;
- (void)doubleSend:(doubles::Frame)frame reply:(void*)block;
@end

@implementation DoubleProxy {
    std::shared_ptr<doubles::Link> m_link;
    NSXPCInterface* m_interface;
}
+ (void)introduce {
    runtime::setForwarder(untyped(self), [](void* proxy, const objc_selector* selector) {
        NSXPCInterface* const interface = [(__bridge DoubleProxy*)proxy doubleInterface];
        return doubles::forwardingOf(interface == nil ? nullptr : [interface protocol], selector,
                                     [](void* to, doubles::Frame frame, void* block) {
                                         [(__bridge DoubleProxy*)to doubleSend:std::move(frame) reply:block];
                                     });
    });
}
- (instancetype)initWithLink:(std::shared_ptr<doubles::Link>)link interface:(NSXPCInterface*)interface {
    self = [super init];
    m_link = std::move(link);
    m_interface = interface;
    return self;
}
- (NSXPCInterface*)doubleInterface {
    return m_interface;
}
- (void)doubleSend:(doubles::Frame)frame reply:(void*)block {
    m_link->send(std::move(frame), block);
}
@end

namespace {

__attribute__((constructor(65535))) void introduceProxies() {
    [DoubleProxy introduce];
}

}  // namespace

@interface NSXPCConnection (Double)
- (instancetype)initOverSocket:(int)socket;
@end

@implementation NSXPCConnection {
    std::shared_ptr<doubles::Link> m_link;
    NSXPCInterface* m_remote;
    NSXPCInterface* m_exported;
    id m_object;
}
- (instancetype)initWithMachServiceName:(NSString*)name options:(NSXPCConnectionOptions)options {
    self = [super init];
    m_link = doubles::Link::to(doubles::servicePath(name.UTF8String, options == NSXPCConnectionPrivileged));
    return self;
}
- (instancetype)initOverSocket:(int)socket {
    self = [super init];
    m_link = doubles::Link::over(socket);
    m_link->keep(untyped(self));
    return self;
}
- (void)dealloc {
    m_link->releaseConnection();
}
- (NSXPCInterface*)remoteObjectInterface {
    return m_remote;
}
- (void)setRemoteObjectInterface:(NSXPCInterface*)interface {
    m_remote = interface;
}
- (NSXPCInterface*)exportedInterface {
    return m_exported;
}
- (void)setExportedInterface:(NSXPCInterface*)interface {
    m_exported = interface;
    m_link->setExported(untyped(m_object), [interface protocol]);
}
- (id)exportedObject {
    return m_object;
}
- (void)setExportedObject:(id)object {
    m_object = object;
    m_link->setExported(untyped(object), m_exported == nil ? nullptr : [m_exported protocol]);
}
- (void (^)(void))interruptionHandler {
    return nil;
}
- (void)setInterruptionHandler:(void (^)(void))handler {
    m_link->setHandler(doubles::Link::Handler::Interruption, (__bridge void*)handler);
}
- (void (^)(void))invalidationHandler {
    return nil;
}
- (void)setInvalidationHandler:(void (^)(void))handler {
    m_link->setHandler(doubles::Link::Handler::Invalidation, (__bridge void*)handler);
}
- (void)resume {
    m_link->resume();
}
- (id)remoteObjectProxy {
    return [[DoubleProxy alloc] initWithLink:m_link interface:m_remote];
}
- (ucred)peer {
    ucred result{};
    socklen_t size = sizeof result;
    getsockopt(m_link->socket(), SOL_SOCKET, SO_PEERCRED, &result, &size);
    return result;
}
- (pid_t)processIdentifier {
    return [self peer].pid;
}
- (uid_t)effectiveUserIdentifier {
    return [self peer].uid;
}
@end

@implementation NSXPCListener {
    std::string m_path;
    __weak id<NSXPCListenerDelegate> m_delegate;
}
- (instancetype)initWithMachServiceName:(NSString*)name {
    self = [super init];
    m_path = doubles::servicePath(name.UTF8String, true);
    return self;
}
- (id<NSXPCListenerDelegate>)delegate {
    return m_delegate;
}
- (void)setDelegate:(id<NSXPCListenerDelegate>)delegate {
    m_delegate = delegate;
}
- (void)resume {
    const int listening = doubles::listenAt(m_path + ".socket");
    NSXPCListener* const listener = self;
    std::thread([listener, listening] {
        for (;;) {
            @autoreleasepool {
                const int accepted = accept4(listening, nullptr, nullptr, SOCK_CLOEXEC);
                NSXPCConnection* const connection = [[NSXPCConnection alloc] initOverSocket:accepted];
                id<NSXPCListenerDelegate> const delegate = listener.delegate;
                if (delegate == nil || ![delegate listener:listener shouldAcceptNewConnection:connection]) {
                    runtime::fail("the listener accepts nobody");
                }
            }
        }
    }).detach();
}
@end
