#import "macos/SimExportedObject.h"

#include <utility>

#include "macos/MainQueue.h"
#import "platform/macos/XpcValues.h"

using platform::toXpcData;
using sim::post;

namespace {

NSNumber* toNSNumber(const XpcNumber& number) {
    if (const bool* flag = std::get_if<bool>(&number)) {
        return [NSNumber numberWithBool:*flag ? YES : NO];
    }
    if (const auto* natural = std::get_if<std::uint64_t>(&number)) {
        return [NSNumber numberWithUnsignedLongLong:*natural];
    }
    if (const auto* real = std::get_if<double>(&number)) {
        return [NSNumber numberWithDouble:*real];
    }
    const auto* integer = std::get_if<std::int64_t>(&number);
    return [NSNumber numberWithLongLong:integer == nullptr ? 0 : *integer];
}

}  // namespace

@implementation VelmSimExportedObject {
    std::shared_ptr<XpcDaemonProtocol> m_conversation;
}

- (instancetype)initWithConversation:(std::shared_ptr<XpcDaemonProtocol>)conversation {
    self = [super init];
    m_conversation = std::move(conversation);
    return self;
}

- (void)connect {
    post([to = m_conversation] { to->connect(); });
}

- (void)pingWithReply:(void (^)(BOOL))reply {
    post([to = m_conversation, reply] { to->pingWithReply([reply](bool flag) { reply(flag ? YES : NO); }); });
}

- (void)putMessage:(NSData*)data {
    post([to = m_conversation, data] { to->putMessage(toXpcData(data)); });
}

- (void)onScreenLocked:(BOOL)locked {
    post([to = m_conversation, locked] { to->onScreenLocked(locked != NO); });
}

- (void)onTimeZoneChanged {
    post([to = m_conversation] { to->onTimeZoneChanged(); });
}

- (void)requestForNetworkReachability {
    post([to = m_conversation] { to->requestForNetworkReachability(); });
}

- (void)requestForInitRmm {
    post([to = m_conversation] { to->requestForInitRmm(); });
}

- (void)requestForLogLevel:(int)level {
    post([to = m_conversation, level] { to->requestForLogLevel(level); });
}

- (void)lastCommunicationTime:(void (^)(NSNumber*))reply {
    post([to = m_conversation, reply] {
        to->lastCommunicationTime([reply](const XpcNumber& time) { reply(toNSNumber(time)); });
    });
}

- (void)loggedUser:(void (^)(NSString*))reply {
    post([to = m_conversation, reply] {
        to->loggedUser([reply](const std::string& user) { reply(platform::toNSString(user)); });
    });
}

- (void)upTime:(void (^)(NSNumber*))reply {
    post([to = m_conversation, reply] {
        to->upTime([reply](const XpcNumber& time) { reply(toNSNumber(time)); });
    });
}

- (void)requestForRmmMonitors {
    post([to = m_conversation] { to->requestForRmmMonitors(); });
}

@end
