#include "platform/linux/DaemonOwner.h"

#include <sys/types.h>
#include <unistd.h>

#include <cstdint>
#include <string_view>

namespace platform {
namespace {

constexpr const char* busName = "org.freedesktop.DBus";
constexpr const char* busPath = "/org/freedesktop/DBus";

bool comesFromTheBus(sd_bus_message* message) {
    const char* sender = sd_bus_message_get_sender(message);
    return sender != nullptr && std::string_view(sender) == busName;
}

std::string ownerMatch(const std::string& serviceName) {
    return std::string("type='signal',sender='") + busName + "',path='" + busPath + "',interface='" +
           busName + "',member='NameOwnerChanged',arg0='" + serviceName + "'";
}

SlotHandle adopt(int result, sd_bus_slot* slot) {
    return SlotHandle(result < 0 ? nullptr : slot);
}

}  // namespace

int DaemonOwner::start(sd_bus* bus, const std::string& serviceName) {
    m_bus = bus;
    sd_bus_slot* slot = nullptr;
    int result = sd_bus_add_match_async(bus, &slot, ownerMatch(serviceName).c_str(), onNameOwnerChanged,
                                        nullptr, this);
    m_ownerChanges = adopt(result, slot);
    if (result < 0) {
        return result;
    }
    slot = nullptr;
    result = sd_bus_call_method_async(bus, &slot, busName, busPath, busName, "GetNameOwner", onNameOwner,
                                      this, "s", serviceName.c_str());
    m_ownerQuery = adopt(result, slot);
    return result;
}

void DaemonOwner::stop() {
    m_userQuery.reset();
    m_ownerQuery.reset();
    m_ownerChanges.reset();
    m_uniqueName.clear();
    m_trust = Trust::Unknown;
    m_bus = nullptr;
}

int DaemonOwner::onNameOwnerChanged(sd_bus_message* message, void* self, sd_bus_error* /*error*/) {
    const char* name = nullptr;
    const char* oldOwner = nullptr;
    const char* newOwner = nullptr;
    if (comesFromTheBus(message) && sd_bus_message_read(message, "sss", &name, &oldOwner, &newOwner) >= 0) {
        static_cast<DaemonOwner*>(self)->setOwner(newOwner);
    }
    return 0;
}

int DaemonOwner::onNameOwner(sd_bus_message* message, void* self, sd_bus_error* /*error*/) {
    const char* owner = nullptr;
    // The error is that nobody owns the name, which is what is assumed until told otherwise.
    if (comesFromTheBus(message) && sd_bus_message_is_method_error(message, nullptr) == 0 &&
        sd_bus_message_read(message, "s", &owner) >= 0) {
        static_cast<DaemonOwner*>(self)->setOwner(owner);
    }
    return 0;
}

void DaemonOwner::setOwner(const char* uniqueName) {
    if (m_uniqueName == uniqueName) {
        return;
    }
    const bool lost = !m_uniqueName.empty();
    m_uniqueName = uniqueName;
    m_trust = Trust::Unknown;
    m_userQuery.reset();
    if (!m_uniqueName.empty()) {
        askForUser();
    }
    if (lost) {
        m_callbacks.lost();
    }
}

void DaemonOwner::askForUser() {
    sd_bus_slot* slot = nullptr;
    const int result =
        sd_bus_call_method_async(m_bus, &slot, busName, busPath, busName, "GetConnectionUnixUser", onUnixUser,
                                 this, "s", m_uniqueName.c_str());
    m_userQuery = adopt(result, slot);
}

int DaemonOwner::onUnixUser(sd_bus_message* message, void* self, sd_bus_error* /*error*/) {
    auto* owner = static_cast<DaemonOwner*>(self);
    if (!comesFromTheBus(message)) {
        return 0;
    }
    std::uint32_t user = 0;
    const bool known = sd_bus_message_is_method_error(message, nullptr) == 0 &&
                       sd_bus_message_read(message, "u", &user) >= 0;
    owner->m_trust = known && (user == 0 || user == getuid()) ? Trust::Trusted : Trust::Untrusted;
    owner->m_callbacks.trustDecided();
    return 0;
}

}  // namespace platform
