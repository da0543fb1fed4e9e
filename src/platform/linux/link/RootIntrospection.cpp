#include "platform/linux/link/RootIntrospection.h"

#include <cstdint>
#include <string>

#include "platform/linux/bus/BusCallback.h"
#include "platform/linux/bus/BusQuestion.h"
#include "platform/linux/link/ProtocolVTable.h"
#include "platform/linux/link/WireNames.h"

namespace platform {
namespace {

constexpr std::size_t waitingLimit = 16;

/// The name of the child of `parent` on the way to the agent's object; empty if it is not on it.
std::string childTowardsAgent(const std::string& parent) {
    const std::string path = dbus::agentObjectPath;
    const std::string prefix = parent == "/" ? parent : parent + "/";
    if (path.compare(0, prefix.size(), prefix) != 0) {
        return "";
    }
    return path.substr(prefix.size(), path.find('/', prefix.size()) - prefix.size());
}

}  // namespace

bool RootIntrospection::concerns(sd_bus_message* message) {
    return sd_bus_message_is_method_call(message, "org.freedesktop.DBus.Introspectable", "Introspect") > 0;
}

bool RootIntrospection::answerIfRoot(sd_bus_message* call) {
    if (m_waiting.size() >= waitingLimit) {
        return false;
    }
    m_waiting.push_back({this, MessageHandle(sd_bus_message_ref(call)), nullptr});
    Waiting& waiting = m_waiting.back();
    const int asked =
        askBus(m_bus, waiting.question, "GetConnectionUnixUser", sd_bus_message_get_sender(call),
               &busCallback<&Waiting::userTold, Waiting>, &waiting);
    if (asked < 0) {
        m_waiting.pop_back();
    }
    return asked >= 0;
}

void RootIntrospection::Waiting::userTold(sd_bus_message* message) {
    std::uint32_t user = 0;
    const bool isRoot = sd_bus_message_is_method_error(message, nullptr) == 0 &&
                        sd_bus_message_read(message, "u", &user) >= 0 && user == 0;
    if (isRoot) {
        self->describe(call.get());
    } else {
        sd_bus_reply_method_errorf(call.get(), SD_BUS_ERROR_ACCESS_DENIED,
                                   "Only root may introspect the agent");
    }
    self->m_waiting.remove_if([this](const Waiting& entry) { return &entry == this; });
}

void RootIntrospection::describe(sd_bus_message* call) const {
    const std::string path = sd_bus_message_get_path(call);
    const std::string child = childTowardsAgent(path);
    if (path == dbus::agentObjectPath) {
        sd_bus_reply_method_return(call, "s", dbus::interfaceXml(m_protocol).c_str());
    } else if (!child.empty()) {
        sd_bus_reply_method_return(call, "s", dbus::parentXml(child).c_str());
    } else {
        sd_bus_reply_method_errorf(call, SD_BUS_ERROR_UNKNOWN_OBJECT, "The agent has no object %s",
                                   path.c_str());
    }
}

}  // namespace platform
