#include "velmmonitord/XpcServiceClientImpl.h"

#include "platform/AutoreleasePool.h"
#include "velmmonitord/LogLine.h"
#include "velmmonitord/XpcServiceClientSignals.h"

// One set for the process, built before main: whoever subscribes need not know which client brings an event.
boost::signals2::signal<void()> m_sigConnectedImpl;
boost::signals2::signal<void()> m_sigDisconnectedImpl;
boost::signals2::signal<void(const char*, unsigned long long)> m_sigMsgReceivedImpl;
boost::signals2::signal<void(long)> m_sigLogLevel;

namespace {

using WeakClient = std::weak_ptr<XpcServiceClientImpl>;

constexpr auto daemonService = "com.brovik.velmdaemon";

// The argument of the only request for a log level that the agent makes.
constexpr std::int32_t requestedLogLevel = 1;

// The two ways to lose the link, which differ only in the handler that reports them and in what is logged.
struct Loss {
    void (platform::IXpcConnection::*setHandler)(platform::IXpcConnection::Handler);
    const char* message;
};

constexpr Loss interruption{&platform::IXpcConnection::setInterruptionHandler,
                            "xpc connection was inerrupted"};
constexpr Loss invalidation{&platform::IXpcConnection::setInvalidationHandler, "xpc connection invalidated"};

void tearDown(const WeakClient& weakClient, const Loss& loss) {
    if (const auto client = weakClient.lock()) {
        client->setM_xpcConnection(nullptr);
    }
    // Also without the client: the signals belong to the process, and others may listen.
    logLine(Logging::Level::Trace, loss.message);
    m_sigDisconnectedImpl();
}

void onLoss(const WeakClient& weakClient, const Loss& loss) {
    const auto client = weakClient.lock();
    if (!client) {
        return;
    }
    // The current connection's, even where it is an older one that reports its loss.
    if (const auto connection = client->m_xpcConnection()) {
        (connection.get()->*loss.setHandler)({});
    }
    client->queue()->addOperation([weakClient, loss] { tearDown(weakClient, loss); });
}

void setUp(platform::IXpcConnection& connection, const std::shared_ptr<XpcServiceClientImpl>& client) {
    connection.setRemoteObjectInterface(xpcDaemonProtocol);
    connection.setExportedInterface(xpcAgentProtocol);
    connection.setExportedObject(client);
    const WeakClient weakClient = client;
    connection.setInterruptionHandler([weakClient] { onLoss(weakClient, interruption); });
    connection.setInvalidationHandler([weakClient] { onLoss(weakClient, invalidation); });
    connection.resume();
}

// Without the client the connection goes as it came, not resumed.
void createConnection(const std::shared_ptr<XpcServiceClientImpl>& client) {
    const auto connection = platform::createXpcConnection(daemonService, platform::xpcConnectionPrivileged);
    if (client) {
        // Held before it is set up; what is sent on it until then is lost, like everything before the first
        // answer.
        client->setM_xpcConnection(connection);
        setUp(*connection, client);
    }
}

void openConnection(const WeakClient& weakClient) {
    const auto client = weakClient.lock();
    if (client && client->m_xpcConnection()) {
        return;
    }
    createConnection(client);
    logLine(Logging::Level::Trace, "xpc is running");
}

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

void XpcServiceClientImpl::connectToXpc() {
    queue()->addOperation([weakClient = weak_from_this()] { openConnection(weakClient); });
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
