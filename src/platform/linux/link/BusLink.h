#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <string>

#include "platform/XpcConnection.h"
#include "platform/linux/link/Loss.h"
#include "platform/linux/link/Outbox.h"

namespace platform {

/// What a connection, its proxies and its private thread share: the outbox, where senders leave their calls,
/// and the handlers and the object that the thread calls. Everything that touches a bus happens in the
/// thread's LinkLoop.
///
/// A link is over with its first loss, which it reports once. A link that has sent nothing has nothing to
/// lose and reports nothing.
///
/// All operations are safe on any thread and wait for nothing. No foreign code runs with the mutex held.
class BusLink : public std::enable_shared_from_this<BusLink> {
public:
    explicit BusLink(std::string serviceName) : m_serviceName(std::move(serviceName)) {}
    ~BusLink() = default;
    BusLink(const BusLink&) = delete;
    BusLink& operator=(const BusLink&) = delete;

    // Before `resume`.
    void setRemoteProtocol(const XpcProtocol& protocol);
    void exportObject(const XpcProtocol& protocol);
    void exportObject(std::shared_ptr<XpcAgentProtocol> object);

    void setInterruptionHandler(IXpcConnection::Handler handler);
    void setInvalidationHandler(IXpcConnection::Handler handler);

    /// Starts the private thread, which opens the bus. Once.
    void resume();

    /// Sends a call to the daemon. Lost quietly before `resume`, after the link was lost or released, if it
    /// is larger than the bus carries, while there is no daemon that may be heard, and while too much waits
    /// already. Throws std::bad_alloc if there is no memory for it; the link goes on.
    void send(OutgoingCall call);

    /// Ends the link: from now on no handler is called, the exported object is let go, and the thread ends.
    /// Never waits.
    void release();

private:
    void startThread();
    void run();
    void serve(Loss& loss);
    void report(Loss& loss);
    std::shared_ptr<XpcAgentProtocol> exportedObject() const;

    const std::string m_serviceName;
    Outbox m_outbox;
    std::atomic<bool> m_threadStarted{false};

    mutable std::mutex m_mutex;
    const XpcProtocol* m_remoteProtocol = nullptr;
    const XpcProtocol* m_exportedProtocol = nullptr;
    std::shared_ptr<XpcAgentProtocol> m_exportedObject;
    IXpcConnection::Handler m_interruptionHandler;
    IXpcConnection::Handler m_invalidationHandler;
};

}  // namespace platform
