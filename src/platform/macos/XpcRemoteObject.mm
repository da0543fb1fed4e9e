#import "platform/macos/XpcRemoteObject.h"

#include <utility>

#import "platform/macos/XpcObjCProtocols.h"
#import "platform/macos/XpcValues.h"

namespace platform {
namespace {

// Callers are threads of the agent's own, which have no autorelease pool, so each call brings its own. The
// methods are noexcept so that an exception of Foundation's, too, ends the process rather than a caller's
// loop.
class RemoteObject : public XpcDaemonProtocol {
public:
    RemoteObject(NSXPCConnection* connection, std::shared_ptr<XpcDelivery> delivery)
        : m_connection(connection), m_delivery(std::move(delivery)) {}

    void connect() noexcept override {
        send([&](Daemon daemon) { [daemon connect]; });
    }

    void pingWithReply(XpcBoolReply reply) noexcept override {
        send([delivery = m_delivery, reply](Daemon daemon) {
            [daemon pingWithReply:^(BOOL answer) {
                delivery->deliver([&] { reply(answer != NO); });
            }];
        });
    }

    void putMessage(const XpcData& data) noexcept override {
        send([&](Daemon daemon) { [daemon putMessage:toNSData(data)]; });
    }

    void onScreenLocked(bool locked) noexcept override {
        send([&](Daemon daemon) { [daemon onScreenLocked:locked ? YES : NO]; });
    }

    void onTimeZoneChanged() noexcept override {
        send([&](Daemon daemon) { [daemon onTimeZoneChanged]; });
    }

    void requestForNetworkReachability() noexcept override {
        send([&](Daemon daemon) { [daemon requestForNetworkReachability]; });
    }

    void requestForInitRmm() noexcept override {
        send([&](Daemon daemon) { [daemon requestForInitRmm]; });
    }

    void requestForLogLevel(std::int32_t level) noexcept override {
        send([&](Daemon daemon) { [daemon requestForLogLevel:level]; });
    }

    void lastCommunicationTime(XpcNumberReply reply) noexcept override {
        send([delivery = m_delivery, reply](Daemon daemon) {
            [daemon lastCommunicationTime:^(NSNumber* time) {
                delivery->deliver([&] { reply(toXpcNumber(time)); });
            }];
        });
    }

    void loggedUser(XpcStringReply reply) noexcept override {
        send([delivery = m_delivery, reply](Daemon daemon) {
            [daemon loggedUser:^(NSString* user) {
                delivery->deliver([&] { reply(toString(user)); });
            }];
        });
    }

    void upTime(XpcNumberReply reply) noexcept override {
        send([delivery = m_delivery, reply](Daemon daemon) {
            [daemon upTime:^(NSNumber* time) {
                delivery->deliver([&] { reply(toXpcNumber(time)); });
            }];
        });
    }

    void requestForRmmMonitors() noexcept override {
        send([&](Daemon daemon) { [daemon requestForRmmMonitors]; });
    }

private:
    using Daemon = id<XpcDaemonProtocol>;

    template <typename Message>
    void send(const Message& message) const noexcept {
        if (m_connection == nil) {
            return;
        }
        @autoreleasepool {
            message(m_connection.remoteObjectProxy);
        }
        m_delivery->messageSent();
    }

    NSXPCConnection* m_connection;
    std::shared_ptr<XpcDelivery> m_delivery;
};

}  // namespace

std::shared_ptr<XpcDaemonProtocol> remoteObjectOf(NSXPCConnection* connection,
                                                  std::shared_ptr<XpcDelivery> delivery) {
    return std::make_shared<RemoteObject>(connection, std::move(delivery));
}

}  // namespace platform
