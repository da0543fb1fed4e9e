#import "platform/macos/XpcRemoteObject.h"

#include <utility>

#include "platform/macos/ExceptionBoundary.h"
#import "platform/macos/XpcObjCProtocols.h"
#import "platform/macos/XpcValues.h"

namespace platform {
namespace {

// Callers are threads of the agent's own, which have no autorelease pool, so each call brings its own. The
// methods are noexcept so that an exception of Foundation's, too, ends the process rather than a caller's
// loop.
class RemoteObject : public XpcDaemonProtocol {
public:
    explicit RemoteObject(NSXPCConnection* connection) : m_connection(connection) {}

    void connect() noexcept override {
        @autoreleasepool {
            [proxy() connect];
        }
    }

    void pingWithReply(XpcBoolReply reply) noexcept override {
        @autoreleasepool {
            [proxy() pingWithReply:^(BOOL answer) {
                atExceptionBoundary([&] { reply(answer != NO); });
            }];
        }
    }

    void putMessage(const XpcData& data) noexcept override {
        @autoreleasepool {
            [proxy() putMessage:toNSData(data)];
        }
    }

    void onScreenLocked(bool locked) noexcept override {
        @autoreleasepool {
            [proxy() onScreenLocked:locked ? YES : NO];
        }
    }

    void onTimeZoneChanged() noexcept override {
        @autoreleasepool {
            [proxy() onTimeZoneChanged];
        }
    }

    void requestForNetworkReachability() noexcept override {
        @autoreleasepool {
            [proxy() requestForNetworkReachability];
        }
    }

    void requestForInitRmm() noexcept override {
        @autoreleasepool {
            [proxy() requestForInitRmm];
        }
    }

    void requestForLogLevel(std::int32_t level) noexcept override {
        @autoreleasepool {
            [proxy() requestForLogLevel:level];
        }
    }

    void lastCommunicationTime(XpcNumberReply reply) noexcept override {
        @autoreleasepool {
            [proxy() lastCommunicationTime:^(NSNumber* time) {
                atExceptionBoundary([&] { reply(toXpcNumber(time)); });
            }];
        }
    }

    void loggedUser(XpcStringReply reply) noexcept override {
        @autoreleasepool {
            [proxy() loggedUser:^(NSString* user) {
                atExceptionBoundary([&] { reply(toString(user)); });
            }];
        }
    }

    void upTime(XpcNumberReply reply) noexcept override {
        @autoreleasepool {
            [proxy() upTime:^(NSNumber* time) {
                atExceptionBoundary([&] { reply(toXpcNumber(time)); });
            }];
        }
    }

    void requestForRmmMonitors() noexcept override {
        @autoreleasepool {
            [proxy() requestForRmmMonitors];
        }
    }

private:
    id<XpcDaemonProtocol> proxy() const { return m_connection.remoteObjectProxy; }

    NSXPCConnection* m_connection;
};

}  // namespace

std::shared_ptr<XpcDaemonProtocol> remoteObjectOf(NSXPCConnection* connection) {
    return std::make_shared<RemoteObject>(connection);
}

}  // namespace platform
