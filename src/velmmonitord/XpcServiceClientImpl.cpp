#include "velmmonitord/XpcServiceClientImpl.h"

#include "platform/AutoreleasePool.h"
#include "velmmonitord/LogLine.h"

// One set for the process, built before main: whoever subscribes need not know which client brings an event.
// No header declares them; they are reached through the client's subscriptions.
boost::signals2::signal<void()> m_sigConnectedImpl;
boost::signals2::signal<void()> m_sigDisconnectedImpl;
boost::signals2::signal<void(const char*, unsigned long long)> m_sigMsgReceivedImpl;
boost::signals2::signal<void(long)> m_sigLogLevel;

namespace {

constexpr auto daemonService = "com.brovik.velmdaemon";

// The argument of the only request for a log level that the agent makes.
constexpr std::int32_t requestedLogLevel = 1;

// Captures nothing, so an answer counts even when the client that asked is gone. The connection is kept: it
// still works, and a daemon that gets ready answers the next connect on it.
void onPingReply(bool ready) {
    if (!ready) {
        logLine(Logging::Level::Error, "xpc: connection is not ready");
        m_sigDisconnectedImpl();
    }
}

}  // namespace

std::shared_ptr<XpcServiceClientImpl> XpcServiceClientImpl::create() {
    return std::shared_ptr<XpcServiceClientImpl>(new XpcServiceClientImpl());
}

XpcServiceClientImpl::XpcServiceClientImpl() : _queue(platform::createOperationQueue()) {
    // One at a time, so that a teardown never meets the set-up of the next connection.
    _queue->setMaxConcurrentOperationCount(1);
}

// The life of a connection, from here to tearDown().
void XpcServiceClientImpl::connectToXpc() {
    queue()->addOperation([weakClient = weak_from_this()] { openConnection(weakClient); });
}

void XpcServiceClientImpl::openConnection(const WeakClient& weakClient) {
    const auto client = weakClient.lock();
    if (client && client->m_xpcConnection()) {
        return;
    }
    {
        const auto connection =
            platform::createXpcConnection(daemonService, platform::xpcConnectionPrivileged);
        // Without the client the connection goes as it came, not resumed.
        if (client) {
            client->setUp(connection);
        }
    }
    logLine(Logging::Level::Trace, "xpc is running");
}

void XpcServiceClientImpl::setUp(const std::shared_ptr<platform::IXpcConnection>& connection) {
    // Held before it is set up: a sender may meet it half made, which a connection allows in every state.
    setM_xpcConnection(connection);
    connection->setRemoteObjectInterface(xpcDaemonProtocol);
    connection->setExportedInterface(xpcAgentProtocol);
    connection->setExportedObject(shared_from_this());
    const WeakClient weakClient = weak_from_this();
    connection->setInterruptionHandler([weakClient] {
        if (const auto client = weakClient.lock()) {
            client->onInterruption();
        }
    });
    connection->setInvalidationHandler([weakClient] {
        if (const auto client = weakClient.lock()) {
            client->onInvalidation();
        }
    });
    connection->resume();
}

// Both clear the handler of the current connection, even where it is an older one that reports its loss.
void XpcServiceClientImpl::onInterruption() {
    if (const auto connection = m_xpcConnection()) {
        connection->setInterruptionHandler({});
    }
    queue()->addOperation(
        [weakClient = weak_from_this()] { tearDown(weakClient, "xpc connection was inerrupted"); });
}

void XpcServiceClientImpl::onInvalidation() {
    if (const auto connection = m_xpcConnection()) {
        connection->setInvalidationHandler({});
    }
    queue()->addOperation(
        [weakClient = weak_from_this()] { tearDown(weakClient, "xpc connection invalidated"); });
}

void XpcServiceClientImpl::tearDown(const WeakClient& weakClient, const char* message) {
    if (const auto client = weakClient.lock()) {
        client->setM_xpcConnection(nullptr);
    }
    // Also without the client: the signals belong to the process, and others may listen.
    logLine(Logging::Level::Trace, message);
    m_sigDisconnectedImpl();
}

std::shared_ptr<platform::IXpcConnection> XpcServiceClientImpl::m_xpcConnection() const {
    return std::atomic_load(&_m_xpcConnection);
}

void XpcServiceClientImpl::setM_xpcConnection(std::shared_ptr<platform::IXpcConnection> connection) {
    std::atomic_store(&_m_xpcConnection, std::move(connection));
}

std::shared_ptr<platform::IOperationQueue> XpcServiceClientImpl::queue() const {
    return _queue;
}

std::shared_ptr<XpcDaemonProtocol> XpcServiceClientImpl::remoteObjectProxy() const {
    // Read once: it may be gone at a second look.
    const auto connection = m_xpcConnection();
    return connection ? connection->remoteObjectProxy() : nullptr;
}

void XpcServiceClientImpl::connect() {
    if (const auto daemon = remoteObjectProxy()) {
        daemon->connect();
    }
}

void XpcServiceClientImpl::pingWithReply() {
    if (const auto daemon = remoteObjectProxy()) {
        daemon->pingWithReply(&onPingReply);
    }
}

void XpcServiceClientImpl::sendMessage(const XpcData& data) {
    logLine(Logging::Level::Trace, "send message called");
    if (const auto daemon = remoteObjectProxy()) {
        daemon->putMessage(data);
    }
}

void XpcServiceClientImpl::onScreenLocked(bool locked) {
    logLine(Logging::Level::Trace, "xpc service monitor: sending lock screen status");
    if (const auto daemon = remoteObjectProxy()) {
        daemon->onScreenLocked(locked);
    }
}

void XpcServiceClientImpl::onTimeZoneChanged() {
    logLine(Logging::Level::Trace, "xpc service monitor: sending time zone changed notification");
    if (const auto daemon = remoteObjectProxy()) {
        daemon->onTimeZoneChanged();
    }
}

void XpcServiceClientImpl::requestForLogLevel() {
    logLine(Logging::Level::Trace, "xpc service: requested for log level");
    const platform::AutoreleasePool pool;
    if (const auto daemon = remoteObjectProxy()) {
        daemon->requestForLogLevel(requestedLogLevel);
    }
}

void XpcServiceClientImpl::subscribeOnConnected(const EventSlot& slot) {
    m_sigConnectedImpl.connect(slot);
}

void XpcServiceClientImpl::subscribeOnDisconnected(const EventSlot& slot) {
    m_sigDisconnectedImpl.connect(slot);
}

void XpcServiceClientImpl::subscribeOnReceived(const ReceivedSlot& slot) {
    m_sigMsgReceivedImpl.connect(slot);
}

void XpcServiceClientImpl::subscribeOnLogLevel(const LogLevelSlot& slot) {
    m_sigLogLevel.connect(slot);
}

void XpcServiceClientImpl::connected(bool flag) {
    logLine(Logging::Level::Trace, "xpc: connection is established: ", flag);
    // Also for no: the daemon is there and has answered, and being asked again each second would not change
    // its mind.
    m_sigConnectedImpl();
}

void XpcServiceClientImpl::putMessage(const XpcData& data) {
    logLine(Logging::Level::Trace, "agent: incomming message");
    m_sigMsgReceivedImpl(data.bytes, data.length);
}

void XpcServiceClientImpl::initRmmMessage(const std::string& /*message*/, const std::string& /*token*/,
                                          const std::string& /*subdomain*/, const std::string& /*rmmUrl*/,
                                          const std::string& /*appVer*/) {}

void XpcServiceClientImpl::networkReachability(bool /*reachable*/) {}

void XpcServiceClientImpl::logLevel(std::int64_t level) {
    logLine(Logging::Level::Trace, "xpc service: received log level: ", level);
    m_sigLogLevel(static_cast<long>(level));
}

bool XpcServiceClientImpl::respondsToSelector(std::string_view selector) const {
    return selector != "rmmMessage:";
}
