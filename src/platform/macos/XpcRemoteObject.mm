#import "platform/macos/XpcRemoteObject.h"

#include <memory>
#include <new>
#include <utility>

#import "platform/macos/XpcObjCProtocols.h"
#import "platform/macos/XpcValues.h"

namespace platform {
namespace {

// Callers are threads of the agent's own, which have no autorelease pool, so each call brings its own. The
// methods are noexcept so that an exception of Foundation's, too, ends the process rather than a caller's
// loop. A reply is shared by the copies that the system makes of its block: copying it may need memory, and
// must not where the system is the one who copies.
class RemoteObject : public XpcDaemonProtocol {
public:
    RemoteObject(NSXPCConnection* connection, std::shared_ptr<XpcDelivery> delivery)
        : m_connection(connection), m_delivery(std::move(delivery)) {}

    void connect() noexcept override {
        send([&](Daemon daemon) { [daemon connect]; });
    }

    void pingWithReply(XpcBoolReply reply) noexcept override {
        send([&](Daemon daemon) {
            const auto held = share(reply);
            const auto delivery = m_delivery;
            [daemon pingWithReply:^(BOOL answer) {
                delivery->deliver([&] { (*held)(answer != NO); });
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
        send([&](Daemon daemon) {
            const auto held = share(reply);
            const auto delivery = m_delivery;
            [daemon lastCommunicationTime:^(NSNumber* time) {
                delivery->deliver([&] { (*held)(toXpcNumber(time)); });
            }];
        });
    }

    void loggedUser(XpcStringReply reply) noexcept override {
        send([&](Daemon daemon) {
            const auto held = share(reply);
            const auto delivery = m_delivery;
            [daemon loggedUser:^(NSString* user) {
                delivery->deliver([&] { (*held)(toString(user)); });
            }];
        });
    }

    void upTime(XpcNumberReply reply) noexcept override {
        send([&](Daemon daemon) {
            const auto held = share(reply);
            const auto delivery = m_delivery;
            [daemon upTime:^(NSNumber* time) {
                delivery->deliver([&] { (*held)(toXpcNumber(time)); });
            }];
        });
    }

    void requestForRmmMonitors() noexcept override {
        send([&](Daemon daemon) { [daemon requestForRmmMonitors]; });
    }

private:
    using Daemon = id<XpcDaemonProtocol>;

    template <typename Reply>
    static std::shared_ptr<const Reply> share(Reply& reply) {
        return std::make_shared<const Reply>(std::move(reply));
    }

    // The way of every message. One that our own side has no memory for is lost quietly.
    template <typename Message>
    void send(const Message& message) const noexcept {
        if (m_connection == nil) {
            return;
        }
        @autoreleasepool {
            try {
                message(m_connection.remoteObjectProxy);
            } catch (const std::bad_alloc&) {
                return;
            }
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
