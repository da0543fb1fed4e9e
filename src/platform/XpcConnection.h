#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "velmmonitord/XpcProtocols.h"

namespace platform {

/// Options of a connection; the values are NSXPCConnectionOptions' own.
using XpcConnectionOptions = std::uint64_t;
inline constexpr XpcConnectionOptions xpcConnectionPrivileged = 4096;

/// A two-way link to a named service, with the operations of NSXPCConnection under its names.
///
/// Life: created, set up by the four setters, resumed once, released. The link is used only after `resume`;
/// what is sent before is lost. A connection keeps its exported object alive for as long as it exists itself.
///
/// What it promises, whatever the system underneath does:
/// - It reports one loss: through one of its handlers, called once. None before something was sent on it, and
///   none after it was released. Over the process, losses are at least a second apart, and none follows a
///   delivered call or reply within 1.1 s.
/// - Calls and replies are delivered once something was sent on it (until then they wait), and not after its
///   loss was reported or it was released.
/// - Handlers, replies and calls to the exported object run one at a time, in order, on the connection's
///   private thread, with no lock of the connection held. A handler may replace or clear itself, release the
///   connection, or wait for another thread that is sending.
/// - Every operation may be called on any thread.
class IXpcConnection {
public:
    /// Told of a loss; an empty one hears nothing.
    using Handler = std::function<void()>;

    virtual ~IXpcConnection() = default;

    /// The protocol that the other side is called by. Before `resume`.
    virtual void setRemoteObjectInterface(const XpcProtocol& protocol) = 0;
    /// The protocol that the other side may call. Before `resume`.
    virtual void setExportedInterface(const XpcProtocol& protocol) = 0;
    /// The object that receives the other side's calls; kept alive by the connection. Before `resume`.
    virtual void setExportedObject(std::shared_ptr<XpcAgentProtocol> object) = 0;
    /// Called when the service went away or was replaced; an empty handler clears. At any time.
    virtual void setInterruptionHandler(Handler handler) = 0;
    /// Called when the link can never be used again; an empty handler clears. At any time.
    virtual void setInvalidationHandler(Handler handler) = 0;
    /// Starts the link. Returns at once and reports nothing.
    virtual void resume() = 0;
    /// The daemon's side of the link: never null, valid for as long as it is held, also after the connection
    /// itself was released (messages are lost then).
    virtual std::shared_ptr<XpcDaemonProtocol> remoteObjectProxy() = 0;
};

/// A new connection to the service `serviceName`, not yet resumed. Never null.
std::shared_ptr<IXpcConnection> createXpcConnection(const std::string& serviceName,
                                                    XpcConnectionOptions options);

}  // namespace platform
