#pragma once

#include <boost/function.hpp>
#include <boost/signals2.hpp>
#include <cstdint>
#include <memory>

#include "platform/OperationQueue.h"
#include "platform/XpcConnection.h"
#include "velmmonitord/XpcProtocols.h"

/// The agent's link to the daemon: opens the connection, receives the daemon's calls on it, sends the agent's
/// events, and reports what happens through signals that all clients of the process share. It never retries
/// by itself; its owner decides when to open a new connection.
///
/// Every operation is safe on any thread. Connections are created and torn down on the client's own serial
/// queue. An open connection keeps its client alive, and the client the connection, until the link is lost.
class XpcServiceClientImpl final : public XpcAgentProtocol,
                                   public std::enable_shared_from_this<XpcServiceClientImpl> {
public:
    using EventSlot = boost::signals2::slot<void(), boost::function<void()>>;
    using ReceivedSlot = boost::signals2::slot<void(const char*, unsigned long long),
                                               boost::function<void(const char*, unsigned long long)>>;
    using LogLevelSlot = boost::signals2::slot<void(long), boost::function<void(long)>>;

    /// A client without a connection. Never null.
    static std::shared_ptr<XpcServiceClientImpl> create();

    /// Has a connection created and resumed on the queue, unless there is one by then, and returns at once.
    /// Holds the client weakly meanwhile.
    void connectToXpc();

    /// The current connection, or null. Read and written atomically.
    std::shared_ptr<platform::IXpcConnection> m_xpcConnection() const;
    void setM_xpcConnection(std::shared_ptr<platform::IXpcConnection> connection);
    /// The serial queue on which connections are created and torn down. Never null.
    std::shared_ptr<platform::IOperationQueue> queue() const;

    // Calls to the daemon. Each sends one message on the connection that is current and returns at once;
    // without a connection the message is lost.

    /// Asks the daemon to confirm the link.
    void connect();
    /// Asks whether the daemon is ready; the answer no counts as a lost link, though the connection is kept.
    void pingWithReply();
    /// Sends the bytes of `data` unchanged.
    void sendMessage(const XpcData& data);
    void onScreenLocked(bool locked);
    void onTimeZoneChanged();
    /// Asks the daemon for the log level, which comes back as `logLevel`.
    void requestForLogLevel();

    // Subscriptions. Each connects a copy of `slot` behind those already connected, to the events of every
    // client in the process, for the rest of the process's life or until an object that the slot tracks is
    // gone. Slots run on the platform's threads, never on the main one, and lock what they share themselves.

    /// The daemon confirmed the link. Raised on the connection's private thread.
    void subscribeOnConnected(const EventSlot& slot);
    /// The link was lost, or the daemon said that it is not ready. Raised on a thread of the client's queue
    /// or, for a ping answered with no, on the connection's private thread.
    void subscribeOnDisconnected(const EventSlot& slot);
    /// Data came: its first byte and its length. Raised on the connection's private thread; the bytes are
    /// valid only during the call.
    void subscribeOnReceived(const ReceivedSlot& slot);
    /// A log level came. Raised on the connection's private thread.
    void subscribeOnLogLevel(const LogLevelSlot& slot);

    // Calls from the daemon, on the connection's private thread.

    /// Raises the connected event whatever `flag` says: that the daemon answers at all is the confirmation.
    void connected(bool flag) override;
    void putMessage(const XpcData& data) override;
    /// Accepted and ignored, as is networkReachability: the contract has them, and this agent no use for
    /// them.
    void initRmmMessage(const std::string& message, const std::string& token, const std::string& subdomain,
                        const std::string& rmmUrl, const std::string& appVer) override;
    void networkReachability(bool reachable) override;
    void logLevel(std::int64_t level) override;
    /// False for `rmmMessage:` only.
    bool respondsToSelector(std::string_view selector) const override;

private:
    using WeakClient = std::weak_ptr<XpcServiceClientImpl>;

    XpcServiceClientImpl();

    // The life of a connection, step by step. What waits for its turn on the queue holds the client weakly.
    static void openConnection(const WeakClient& weakClient);                 // on the queue
    void setUp(const std::shared_ptr<platform::IXpcConnection>& connection);  // on the queue
    void onInterruption();                                                    // on the private thread
    void onInvalidation();                                                    // on the private thread
    static void tearDown(const WeakClient& weakClient, const char* message);  // on the queue

    std::shared_ptr<XpcDaemonProtocol> remoteObjectProxy() const;

    // Underscored because the accessors carry the plain names.
    std::shared_ptr<platform::IXpcConnection> _m_xpcConnection;
    const std::shared_ptr<platform::IOperationQueue> _queue;
};
