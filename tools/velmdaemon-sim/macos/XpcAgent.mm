#import "macos/XpcAgent.h"

#import "platform/macos/XpcObjCProtocols.h"
#import "platform/macos/XpcValues.h"

using platform::toNSData;
using platform::toNSString;

namespace sim {
namespace {

class Agent final : public XpcAgentProtocol {
public:
    explicit Agent(NSXPCConnection* connection) : m_connection(connection) {}

    void connected(bool flag) override { [proxy() connected:flag ? YES : NO]; }

    void putMessage(const XpcData& data) override { [proxy() putMessage:toNSData(data)]; }

    void initRmmMessage(const std::string& message, const std::string& token, const std::string& subdomain,
                        const std::string& rmmUrl, const std::string& appVer) override {
        [proxy() initRmmMessage:toNSString(message)
                          token:toNSString(token)
                      subdomain:toNSString(subdomain)
                         rmmUrl:toNSString(rmmUrl)
                         appVer:toNSString(appVer)];
    }

    void networkReachability(bool reachable) override { [proxy() networkReachability:reachable ? YES : NO]; }

    void logLevel(std::int64_t level) override { [proxy() logLevel:static_cast<NSInteger>(level)]; }

    void rmmMessage(const XpcData& data) override { [proxy() rmmMessage:toNSData(data)]; }

    // The proxy knows the protocol, not what the other side implements of it.
    bool respondsToSelector(std::string_view selector) const override {
        return xpcAgentProtocol.find(selector) != nullptr;
    }

private:
    id<XpcAgentProtocol> proxy() const { return m_connection.remoteObjectProxy; }

    NSXPCConnection* m_connection;
};

}  // namespace

std::shared_ptr<XpcAgentProtocol> agentOf(NSXPCConnection* connection) {
    return std::make_shared<Agent>(connection);
}

}  // namespace sim
