#include "platform/linux/bus/BusNameOwner.h"

#include <utility>

#include "platform/linux/bus/BusCallback.h"
#include "platform/linux/bus/BusQuestion.h"
#include "platform/linux/process/OutHandle.h"

namespace platform {
namespace {

constexpr const char* busName = "org.freedesktop.DBus";
constexpr const char* busPath = "/org/freedesktop/DBus";

std::string senderOf(sd_bus_message* message) {
    const char* const sender = sd_bus_message_get_sender(message);
    return sender == nullptr ? std::string() : sender;
}

}  // namespace

BusNameOwner::BusNameOwner(sd_bus* bus, std::string name,
                           std::function<void(const std::string& owner)> changed, Tell tell)
    : m_bus(bus),
      m_name(std::move(name)),
      m_changed(std::move(changed)),
      m_tellNext(tell == Tell::FirstAnswerToo) {
    const std::string rule = std::string("type='signal',sender='") + busName + "',path='" + busPath +
                             "',interface='" + busName + "',member='NameOwnerChanged',arg0='" + m_name + "'";
    // The match comes first, so that no change falls between the answer and the first signal.
    sd_bus_add_match_async(bus, OutHandle(m_match), rule.c_str(),
                           &busCallback<&BusNameOwner::ownerChanged, BusNameOwner>, nullptr, this);
    ask();
}

void BusNameOwner::ask() {
    m_askAgain = m_asking;
    if (!m_asking) {
        m_asking = askBus(m_bus, m_question, "GetNameOwner", m_name.c_str(),
                          &busCallback<&BusNameOwner::ownerAnswered, BusNameOwner>, this) >= 0;
    }
}

bool BusNameOwner::sent(sd_bus_message* message) const {
    return !m_owner.empty() && senderOf(message) == m_owner;
}

void BusNameOwner::ownerChanged(sd_bus_message* message) {
    const char* name = nullptr;
    const char* before = nullptr;
    const char* now = nullptr;
    if (senderOf(message) == busName && sd_bus_message_read(message, "sss", &name, &before, &now) >= 0 &&
        m_name == name) {
        take(now);
    }
}

void BusNameOwner::ownerAnswered(sd_bus_message* message) {
    m_asking = false;
    if (m_askAgain || isUnanswered(message)) {
        ask();
    }
    const char* owner = nullptr;
    if (sd_bus_message_is_method_error(message, SD_BUS_ERROR_NAME_HAS_NO_OWNER) > 0) {
        take("");
    } else if (sd_bus_message_is_method_error(message, nullptr) == 0 &&
               sd_bus_message_read(message, "s", &owner) >= 0) {
        take(owner);
    }
    // Any other error says nothing about the owner.
}

void BusNameOwner::take(const std::string& owner) {
    if (owner != m_owner || m_tellNext) {
        m_tellNext = false;
        m_owner = owner;
        m_changed(m_owner);
    }
}

}  // namespace platform
