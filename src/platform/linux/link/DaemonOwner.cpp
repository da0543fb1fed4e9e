#include "platform/linux/link/DaemonOwner.h"

#include <unistd.h>

#include <cstdint>

#include "platform/linux/bus/BusCallback.h"
#include "platform/linux/process/OutHandle.h"

namespace platform {

void DaemonOwner::start(sd_bus* bus, const std::string& serviceName) {
    m_bus = bus;
    m_owner.emplace(bus, serviceName, [this](const std::string& uniqueName) { ownerChanged(uniqueName); });
}

void DaemonOwner::stop() {
    m_userQuery.reset();
    m_owner.reset();
    m_owned = false;
    m_trust = Trust::Unknown;
    m_bus = nullptr;
}

void DaemonOwner::ownerChanged(const std::string& uniqueName) {
    const bool lost = m_owned;
    m_owned = !uniqueName.empty();
    m_trust = Trust::Unknown;
    // An answer about the one before must not be taken for this one's.
    m_userQuery.reset();
    if (m_owned) {
        sd_bus_call_method_async(m_bus, OutHandle(m_userQuery), "org.freedesktop.DBus",
                                 "/org/freedesktop/DBus", "org.freedesktop.DBus", "GetConnectionUnixUser",
                                 &busCallback<&DaemonOwner::userAnswered, DaemonOwner>, this, "s",
                                 uniqueName.c_str());
    }
    if (lost) {
        m_callbacks.lost();
    }
}

void DaemonOwner::userAnswered(sd_bus_message* message) {
    std::uint32_t user = 0;
    const bool known = sd_bus_message_is_method_error(message, nullptr) == 0 &&
                       sd_bus_message_read(message, "u", &user) >= 0;
    m_trust = known && (user == 0 || user == getuid()) ? Trust::Trusted : Trust::Untrusted;
    m_callbacks.trustDecided();
}

}  // namespace platform
