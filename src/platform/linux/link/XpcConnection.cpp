#include "platform/XpcConnection.h"

#include <utility>

#include "platform/linux/link/BusLink.h"
#include "platform/linux/link/DaemonProxy.h"

namespace platform {
namespace {

/// A connection is a handle on its link: releasing the one ends the other, while the link's own thread and
/// proxies that are still held may outlive it.
class LinkConnection : public IXpcConnection {
public:
    explicit LinkConnection(const std::string& serviceName)
        : m_link(std::make_shared<BusLink>(serviceName)), m_proxy(createDaemonProxy(m_link)) {}
    ~LinkConnection() override { m_link->release(); }
    LinkConnection(const LinkConnection&) = delete;
    LinkConnection& operator=(const LinkConnection&) = delete;

    void setRemoteObjectInterface(const XpcProtocol& protocol) override {
        m_link->setRemoteProtocol(protocol);
    }
    void setExportedInterface(const XpcProtocol& protocol) override { m_link->exportObject(protocol); }
    void setExportedObject(std::shared_ptr<XpcAgentProtocol> object) override {
        m_link->exportObject(std::move(object));
    }
    void setInterruptionHandler(Handler handler) override {
        m_link->setInterruptionHandler(std::move(handler));
    }
    void setInvalidationHandler(Handler handler) override {
        m_link->setInvalidationHandler(std::move(handler));
    }
    void resume() override { m_link->resume(); }
    std::shared_ptr<XpcDaemonProtocol> remoteObjectProxy() override { return m_proxy; }

private:
    std::shared_ptr<BusLink> m_link;
    std::shared_ptr<XpcDaemonProtocol> m_proxy;
};

}  // namespace

std::shared_ptr<IXpcConnection> createXpcConnection(const std::string& serviceName,
                                                    XpcConnectionOptions /*options*/) {
    // The one option there is asks for the system's domain, which is the only bus that a link uses.
    return std::make_shared<LinkConnection>(serviceName);
}

}  // namespace platform
