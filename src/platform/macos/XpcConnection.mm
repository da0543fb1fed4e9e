#include "platform/XpcConnection.h"

#import <Foundation/Foundation.h>

#include <atomic>
#include <utility>

#import "platform/macos/XpcDelivery.h"
#import "platform/macos/XpcExportedObject.h"
#import "platform/macos/XpcObjCProtocols.h"
#import "platform/macos/XpcRemoteObject.h"
#import "platform/macos/XpcValues.h"

namespace platform {
namespace {

static_assert(xpcConnectionPrivileged == NSXPCConnectionPrivileged);

using HandlerBlock = void (^)(void);
using Loss = XpcDelivery::Loss;

// Neither invalidates nor suspends: the client never does, and an adapter that invalidated on release would
// raise the very report of loss that the client leaves to the system.
class Connection : public IXpcConnection {
public:
    Connection(const std::string& serviceName, XpcConnectionOptions options) {
        @autoreleasepool {
            m_connection = [[NSXPCConnection alloc]
                initWithMachServiceName:toNSString(serviceName)
                                options:static_cast<NSXPCConnectionOptions>(options)];
        }
    }

    ~Connection() override { m_delivery->release(); }

    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    void setRemoteObjectInterface(const XpcProtocol& protocol) override {
        @autoreleasepool {
            [m_connection setRemoteObjectInterface:interfaceOf(protocol)];
        }
    }

    void setExportedInterface(const XpcProtocol& protocol) override {
        @autoreleasepool {
            [m_connection setExportedInterface:interfaceOf(protocol)];
        }
    }

    void setExportedObject(std::shared_ptr<XpcAgentProtocol> object) override {
        @autoreleasepool {
            [m_connection setExportedObject:[[VelmXpcExportedObject alloc] initWithClient:std::move(object)
                                                                                 delivery:m_delivery]];
        }
    }

    void setInterruptionHandler(Handler handler) override {
        @autoreleasepool {
            [m_connection setInterruptionHandler:blockOf(Loss::Interruption, bool(handler))];
        }
        m_delivery->setHandler(Loss::Interruption, std::move(handler));
    }

    void setInvalidationHandler(Handler handler) override {
        @autoreleasepool {
            [m_connection setInvalidationHandler:blockOf(Loss::Invalidation, bool(handler))];
        }
        m_delivery->setHandler(Loss::Invalidation, std::move(handler));
    }

    void resume() override {
        @autoreleasepool {
            [m_connection resume];
            m_resumed = true;
        }
    }

    std::shared_ptr<XpcDaemonProtocol> remoteObjectProxy() override {
        @autoreleasepool {
            // A proxy taken before the connection has its interface would raise; one of nil loses its
            // messages.
            return remoteObjectOf(m_resumed ? m_connection : nil, m_delivery);
        }
    }

private:
    // What the system calls for a loss; the handler itself is the delivery's.
    HandlerBlock blockOf(Loss loss, bool wanted) const {
        if (!wanted) {
            return nil;
        }
        const std::shared_ptr<XpcDelivery> delivery = m_delivery;
        return ^{
            delivery->lose(loss);
        };
    }

    const std::shared_ptr<XpcDelivery> m_delivery = std::make_shared<XpcDelivery>();
    NSXPCConnection* m_connection;
    std::atomic<bool> m_resumed{false};
};

}  // namespace

std::shared_ptr<IXpcConnection> createXpcConnection(const std::string& serviceName,
                                                    XpcConnectionOptions options) {
    return std::make_shared<Connection>(serviceName, options);
}

}  // namespace platform
