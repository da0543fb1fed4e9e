#include "linux/DBusAgent.h"

#include <cstdint>
#include <system_error>
#include <utility>

#include "linux/Callbacks.h"
#include "platform/linux/link/WireNames.h"

namespace sim {

DBusAgent::DBusAgent(sd_bus* bus, std::string uniqueName, Refused refused)
    : m_bus(bus), m_uniqueName(std::move(uniqueName)), m_refused(std::move(refused)) {}

void DBusAgent::connected(bool flag) {
    const MessageHandle call = newCall("connected");
    send(call, sd_bus_message_append(call.get(), "b", static_cast<int>(flag)));
}

void DBusAgent::putMessage(const XpcData& data) {
    const MessageHandle call = newCall("putMessage");
    send(call, sd_bus_message_append_array(call.get(), 'y', data.bytes, data.length));
}

void DBusAgent::initRmmMessage(const std::string& message, const std::string& token,
                               const std::string& subdomain, const std::string& rmmUrl,
                               const std::string& appVer) {
    const MessageHandle call = newCall("initRmmMessage");
    send(call, sd_bus_message_append(call.get(), "sssss", message.c_str(), token.c_str(), subdomain.c_str(),
                                     rmmUrl.c_str(), appVer.c_str()));
}

void DBusAgent::networkReachability(bool reachable) {
    const MessageHandle call = newCall("networkReachability");
    send(call, sd_bus_message_append(call.get(), "b", static_cast<int>(reachable)));
}

void DBusAgent::logLevel(std::int64_t level) {
    const MessageHandle call = newCall("logLevel");
    send(call, sd_bus_message_append(call.get(), "x", level));
}

void DBusAgent::rmmMessage(const XpcData& data) {
    const MessageHandle call = newCall("rmmMessage");
    int result = sd_bus_message_append_array(call.get(), 'y', data.bytes, data.length);
    if (result >= 0) {
        SlotHandle slot;
        result = sd_bus_call_async(m_bus, OutHandle(slot), call.get(),
                                   busCallback<&DBusAgent::replied, DBusAgent>, this, 0);
        if (result >= 0) {
            m_pending.push_back(std::move(slot));
        }
    }
    reportError("rmmMessage", result);
}

bool DBusAgent::respondsToSelector(std::string_view /*selector*/) const {
    return true;
}

// An empty handle, if there is no memory or no bus, makes the append fail, which is reported then.
MessageHandle DBusAgent::newCall(const char* member) {
    MessageHandle call;
    sd_bus_message_new_method_call(m_bus, OutHandle(call), m_uniqueName.c_str(),
                                   platform::dbus::agentObjectPath,
                                   platform::dbus::interfaceName(xpcAgentProtocol).c_str(), member);
    return call;
}

void DBusAgent::send(const MessageHandle& call, int appended) {
    int result = appended;
    if (result >= 0) {
        result = sd_bus_message_set_expect_reply(call.get(), 0);
    }
    if (result >= 0) {
        result = sd_bus_send(m_bus, call.get(), nullptr);
    }
    reportError(call ? sd_bus_message_get_member(call.get()) : "call", result);
}

void DBusAgent::reportError(const char* member, int error) {
    if (error < 0) {
        m_refused(member, std::generic_category().message(-error));
    }
}

void DBusAgent::replied(sd_bus_message* reply) {
    sd_bus_slot* current = sd_bus_get_current_slot(sd_bus_message_get_bus(reply));
    m_pending.remove_if([current](const SlotHandle& slot) { return slot.get() == current; });
    if (const sd_bus_error* error = sd_bus_message_get_error(reply)) {
        const std::string text = error->message != nullptr ? std::string(": ") + error->message : "";
        m_refused("rmmMessage", error->name + text);
    }
}

}  // namespace sim
