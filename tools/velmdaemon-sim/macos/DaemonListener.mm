#import "macos/DaemonListener.h"

#include <pwd.h>

#include <string>
#include <utility>

#include "macos/MainQueue.h"
#import "macos/SimExportedObject.h"
#import "macos/XpcAgent.h"
#include "platform/macos/ExceptionBoundary.h"
#import "platform/macos/XpcObjCProtocols.h"

namespace {

std::string userName(uid_t uid) {
    // The answer's memory is shared, so on the main queue only.
    const passwd* const user = getpwuid(uid);
    return user == nullptr ? "user " + std::to_string(uid) : std::string(user->pw_name);
}

sim::Peer introduce(NSXPCConnection* connection) {
    const std::string user = userName(connection.effectiveUserIdentifier);
    return {"process " + std::to_string(connection.processIdentifier) + ", user " + user, user,
            sim::agentOf(connection)};
}

void setUp(NSXPCConnection* connection, sim::StandIn* standIn, const std::string& address) {
    // Weak, as the connection holds the conversation, and the conversation this. A call comes only from a
    // connection that is there.
    __weak NSXPCConnection* const weakConnection = connection;
    std::shared_ptr<XpcDaemonProtocol> conversation =
        standIn->conversation(address, [weakConnection] { return introduce(weakConnection); });

    [connection setRemoteObjectInterface:platform::interfaceOf(xpcAgentProtocol)];
    [connection setExportedInterface:platform::interfaceOf(xpcDaemonProtocol)];
    [connection
        setExportedObject:[[VelmSimExportedObject alloc] initWithConversation:std::move(conversation)]];
    const std::function<void()> gone = [standIn, address] { standIn->left(address); };
    [connection setInvalidationHandler:^{
        platform::atExceptionBoundary([&] { sim::postToMainQueue(gone); });
    }];
    [connection resume];
}

}  // namespace

@implementation VelmSimDaemonListener {
    sim::StandIn* m_standIn;
    unsigned m_connections;
}

- (instancetype)initWithStandIn:(sim::StandIn&)standIn {
    self = [super init];
    m_standIn = &standIn;
    return self;
}

- (BOOL)listener:(NSXPCListener*)listener shouldAcceptNewConnection:(NSXPCConnection*)newConnection {
    platform::atExceptionBoundary([&] {
        sim::runOnMainQueue(
            [&] { setUp(newConnection, m_standIn, "connection " + std::to_string(++m_connections)); });
    });
    return YES;
}

@end
