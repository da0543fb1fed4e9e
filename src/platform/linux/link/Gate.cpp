#include "platform/linux/link/Gate.h"

#include <string_view>
#include <utility>

#include "platform/linux/bus/BusCallback.h"
#include "platform/linux/bus/Refusal.h"
#include "platform/linux/link/AgentCalls.h"
#include "platform/linux/link/WireNames.h"
#include "platform/linux/process/OutHandle.h"

namespace platform {
namespace {

// What a daemon may say before it is heard: enough for one in a hurry, and room for one of the largest
// messages.
constexpr std::size_t heldCallsLimit = 128;
constexpr std::size_t heldBytesLimit = std::size_t{64} * 1024 * 1024;

bool isText(const char* text, std::string_view expected) {
    return text != nullptr && text == expected;
}

}  // namespace

Gate::Gate(sd_bus* bus, const std::string& serviceName, const XpcProtocol* exported, Callbacks callbacks)
    : m_bus(bus),
      m_exported(exported),
      m_callbacks(std::move(callbacks)),
      m_owner(bus, serviceName, {m_callbacks.lost, [this] { decideHeld(); }}) {
    sd_bus_add_filter(bus, OutHandle(m_filterSlot), &busCallback<&Gate::filter, Gate>, this);
    if (exported != nullptr) {
        m_introspection.emplace(bus, *exported);
        m_vtable.emplace(*exported, &busCallback<&Gate::called, Gate>);
        sd_bus_add_object_vtable(bus, OutHandle(m_objectSlot), dbus::agentObjectPath,
                                 dbus::interfaceName(*exported).c_str(), m_vtable->data(), this);
    }
}

void Gate::listen() {
    if (!m_listening) {
        m_listening = true;
        decideHeld();
    }
}

Gate::Way Gate::way() const {
    switch (m_owner.trust()) {
        case DaemonOwner::Trust::Asking:
            return Way::Unknown;
        case DaemonOwner::Trust::Trusted:
            return Way::Clear;
        default:
            return Way::Shut;
    }
}

/// Sees each message before the library looks at its object, interface and member.
int Gate::filter(sd_bus_message* message, sd_bus_error* error) {
    if (sd_bus_message_is_method_call(message, nullptr, nullptr) <= 0) {
        return 0;
    }
    return m_owner.sent(message) ? fromOwner(message, error) : fromStranger(message, error);
}

int Gate::fromOwner(sd_bus_message* call, sd_bus_error* error) {
    if (m_owner.trust() == DaemonOwner::Trust::Undecided) {
        m_owner.doubt();
    }
    switch (m_owner.trust()) {
        case DaemonOwner::Trust::Trusted:
            return 0;
        case DaemonOwner::Trust::Asking:
            return isOurs(call) ? hold(call, error) : deny(error);
        default:
            return deny(error);
    }
}

int Gate::fromStranger(sd_bus_message* call, sd_bus_error* error) {
    // He may be a daemon that the bus did not tell us of.
    m_owner.doubt();
    if (m_introspection && RootIntrospection::concerns(call) && m_introspection->answerIfRoot(call)) {
        return 1;
    }
    return deny(error);
}

int Gate::deny(sd_bus_error* error) const {
    return refuseCall(m_bus, error, "Only the daemon may call the agent");
}

/// Whether the library would hand `call` to `called`.
bool Gate::isOurs(sd_bus_message* call) const {
    if (m_exported == nullptr || !isText(sd_bus_message_get_path(call), dbus::agentObjectPath)) {
        return false;
    }
    const XpcMethod* const method = dbus::findMember(*m_exported, sd_bus_message_get_member(call));
    return isText(sd_bus_message_get_interface(call), dbus::interfaceName(*m_exported)) &&
           method != nullptr &&
           sd_bus_message_has_signature(call, dbus::argumentSignature(*method).c_str()) > 0;
}

/// A call of the trusted owner, its signature seen to be right.
int Gate::called(sd_bus_message* call, sd_bus_error* error) {
    return m_listening ? accept(call, error) : hold(call, error);
}

int Gate::hold(sd_bus_message* call, sd_bus_error* error) {
    const std::size_t payload = payloadOf(call);
    if (m_held.size() >= heldCallsLimit || m_heldBytes + payload > heldBytesLimit) {
        return sd_bus_error_set(error, SD_BUS_ERROR_LIMITS_EXCEEDED,
                                "Too many calls before the agent listens");
    }
    m_held.push_back({MessageHandle(sd_bus_message_ref(call)), payload});
    m_heldBytes += payload;
    return 1;
}

int Gate::accept(sd_bus_message* call, sd_bus_error* error) {
    const XpcMethod* const method = dbus::findMember(*m_exported, sd_bus_message_get_member(call));
    const std::shared_ptr<XpcAgentProtocol> receiver = m_callbacks.receiver();
    if (method == nullptr || !receiver || !receiver->respondsToSelector(method->selector)) {
        return sd_bus_error_set(error, SD_BUS_ERROR_UNKNOWN_METHOD,
                                "The agent does not implement this method");
    }
    const AgentCall agentCall = decodeAgentCall(*method, call);
    if (!agentCall) {
        return sd_bus_error_set(error, SD_BUS_ERROR_INVALID_ARGS, "The arguments cannot be read");
    }
    // The answer says that the call was taken, not what came of it.
    sd_bus_reply_method_return(call, "");
    agentCall(*receiver);
    m_callbacks.delivered();
    return 1;
}

void Gate::decideHeld() {
    const DaemonOwner::Trust trust = m_owner.trust();
    if (trust == DaemonOwner::Trust::Asking || (trust == DaemonOwner::Trust::Trusted && !m_listening)) {
        return;
    }
    m_heldBytes = 0;
    for (const HeldCall& held : std::exchange(m_held, {})) {
        sd_bus_error error{};
        sd_bus_message* const call = held.message.get();
        const bool isHeard = trust == DaemonOwner::Trust::Trusted && m_owner.sent(call);
        if ((isHeard ? accept(call, &error) : deny(&error)) < 0) {
            sd_bus_reply_method_error(call, &error);
        }
        sd_bus_error_free(&error);
    }
}

}  // namespace platform
