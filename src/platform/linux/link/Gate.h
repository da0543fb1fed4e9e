#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/linux/bus/BusHandles.h"
#include "platform/linux/link/DaemonOwner.h"
#include "platform/linux/link/ProtocolVTable.h"
#include "platform/linux/link/RootIntrospection.h"
#include "velmmonitord/XpcProtocols.h"

namespace platform {

/// Who may call the agent over a bus, and whom the agent calls: the owner of the daemon's name, if it runs as
/// root or as the agent's own user. The sender is looked at before anything else, so that everybody else is
/// denied whatever he calls; only root may introspect. Calls wait while the bus has not yet said who runs the
/// owner, and until the agent has itself sent something.
///
/// On the bus's thread. Callbacks run inside sd_bus_process, or inside `listen`.
class Gate {
public:
    struct Callbacks {
        /// The daemon went away or another took its place.
        std::function<void()> lost;
        /// The object that the daemon calls; null for none, and then its calls are refused.
        std::function<std::shared_ptr<XpcAgentProtocol>()> receiver;
        /// A call was handed to the receiver and has returned.
        std::function<void()> delivered;
    };
    /// Where a message to the daemon would go now.
    enum class Way {
        Unknown,  ///< the bus will say
        Clear,    ///< to a daemon that may be heard
        Shut,     ///< to nobody, or to somebody who is not heard and so is told nothing
    };

    /// Starts to follow who owns `serviceName`. `bus` and `exported`, the interface of the receiver, must
    /// outlive this object; without `exported` there is nothing to call.
    Gate(sd_bus* bus, const std::string& serviceName, const XpcProtocol* exported, Callbacks callbacks);
    ~Gate() = default;
    Gate(const Gate&) = delete;
    Gate& operator=(const Gate&) = delete;

    /// The agent has sent something: calls are delivered from here on, those that waited first.
    void listen();
    Way way() const;
    /// The unique name of the daemon while the way to it is clear.
    const std::string& daemon() const { return m_owner.uniqueName(); }
    /// Has the bus asked again who the daemon is.
    void doubt() { m_owner.doubt(); }

private:
    struct HeldCall {
        MessageHandle message;
        std::size_t payload;
    };

    int filter(sd_bus_message* message, sd_bus_error* error);
    int called(sd_bus_message* call, sd_bus_error* error);
    int fromOwner(sd_bus_message* call, sd_bus_error* error);
    int fromStranger(sd_bus_message* call, sd_bus_error* error);
    int deny(sd_bus_error* error) const;
    bool isOurs(sd_bus_message* call) const;
    int hold(sd_bus_message* call, sd_bus_error* error);
    int accept(sd_bus_message* call, sd_bus_error* error);
    void decideHeld();

    sd_bus* m_bus;
    const XpcProtocol* m_exported;
    Callbacks m_callbacks;
    bool m_listening = false;
    std::vector<HeldCall> m_held;
    std::size_t m_heldBytes = 0;
    std::optional<RootIntrospection> m_introspection;
    std::optional<dbus::ProtocolVTable> m_vtable;
    SlotHandle m_filterSlot;
    SlotHandle m_objectSlot;
    DaemonOwner m_owner;
};

}  // namespace platform
