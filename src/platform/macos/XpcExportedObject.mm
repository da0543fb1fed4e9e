#import "platform/macos/XpcExportedObject.h"

#include <utility>

#include "platform/macos/ExceptionBoundary.h"
#import "platform/macos/XpcValues.h"

using platform::atExceptionBoundary;
using platform::toString;
using platform::toXpcData;

@implementation VelmXpcExportedObject {
    std::shared_ptr<XpcAgentProtocol> m_client;
}

- (instancetype)initWithClient:(std::shared_ptr<XpcAgentProtocol>)client {
    self = [super init];
    m_client = std::move(client);
    return self;
}

- (void)connected:(BOOL)flag {
    atExceptionBoundary([&] { m_client->connected(flag != NO); });
}

- (void)putMessage:(NSData*)data {
    atExceptionBoundary([&] { m_client->putMessage(toXpcData(data)); });
}

- (void)initRmmMessage:(NSString*)message
                 token:(NSString*)token
             subdomain:(NSString*)subdomain
                rmmUrl:(NSString*)rmmUrl
                appVer:(NSString*)appVer {
    atExceptionBoundary([&] {
        m_client->initRmmMessage(toString(message), toString(token), toString(subdomain), toString(rmmUrl),
                                 toString(appVer));
    });
}

- (void)networkReachability:(BOOL)reachable {
    atExceptionBoundary([&] { m_client->networkReachability(reachable != NO); });
}

- (void)logLevel:(NSInteger)level {
    atExceptionBoundary([&] { m_client->logLevel(level); });
}

@end
