#import "platform/macos/XpcExportedObject.h"

#include <utility>

#import "platform/macos/XpcValues.h"

using platform::toString;
using platform::toXpcData;

@implementation VelmXpcExportedObject {
    std::shared_ptr<XpcAgentProtocol> m_client;
    std::shared_ptr<platform::XpcDelivery> m_delivery;
}

- (instancetype)initWithClient:(std::shared_ptr<XpcAgentProtocol>)client
                      delivery:(std::shared_ptr<platform::XpcDelivery>)delivery {
    self = [super init];
    m_client = std::move(client);
    m_delivery = std::move(delivery);
    return self;
}

- (void)connected:(BOOL)flag {
    m_delivery->deliver([&] { m_client->connected(flag != NO); });
}

- (void)putMessage:(NSData*)data {
    m_delivery->deliver([&] { m_client->putMessage(toXpcData(data)); });
}

- (void)initRmmMessage:(NSString*)message
                 token:(NSString*)token
             subdomain:(NSString*)subdomain
                rmmUrl:(NSString*)rmmUrl
                appVer:(NSString*)appVer {
    m_delivery->deliver([&] {
        m_client->initRmmMessage(toString(message), toString(token), toString(subdomain), toString(rmmUrl),
                                 toString(appVer));
    });
}

- (void)networkReachability:(BOOL)reachable {
    m_delivery->deliver([&] { m_client->networkReachability(reachable != NO); });
}

- (void)logLevel:(NSInteger)level {
    m_delivery->deliver([&] { m_client->logLevel(level); });
}

@end
