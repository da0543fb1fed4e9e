#include "platform/linux/link/DaemonOwner.h"

#include <unistd.h>

#include <cstdint>
#include <utility>

#include "platform/linux/bus/BusCallback.h"
#include "platform/linux/bus/BusQuestion.h"

namespace platform {

DaemonOwner::DaemonOwner(sd_bus* bus, const std::string& serviceName, Callbacks callbacks)
    : m_bus(bus),
      m_callbacks(std::move(callbacks)),
      m_owner(
          bus, serviceName, [this](const std::string& uniqueName) { ownerTold(uniqueName); },
          BusNameOwner::Tell::FirstAnswerToo) {}

void DaemonOwner::doubt() {
    m_owner.ask();
    if (m_trust == Trust::Undecided) {
        askUser();
    }
}

void DaemonOwner::ownerTold(const std::string& uniqueName) {
    const bool lost = !m_uniqueName.empty();
    m_uniqueName = uniqueName;
    // An answer about the one before must not be taken for this one's.
    m_userQuestion.reset();
    if (uniqueName.empty()) {
        decide(Trust::Nobody);
    } else {
        askUser();
    }
    if (lost) {
        m_callbacks.lost();
    }
}

void DaemonOwner::askUser() {
    m_trust = Trust::Asking;
    if (askBus(m_bus, m_userQuestion, "GetConnectionUnixUser", m_uniqueName.c_str(),
               &busCallback<&DaemonOwner::userTold, DaemonOwner>, this) < 0) {
        // No answer will come to a question that did not go out.
        decide(Trust::Undecided);
    }
}

void DaemonOwner::userTold(sd_bus_message* message) {
    std::uint32_t user = 0;
    if (isUnanswered(message)) {
        askUser();
    } else if (sd_bus_message_is_method_error(message, nullptr) != 0 ||
               sd_bus_message_read(message, "u", &user) < 0) {
        decide(Trust::Undecided);
    } else {
        decide(user == 0 || user == getuid() ? Trust::Trusted : Trust::Untrusted);
    }
}

void DaemonOwner::decide(Trust trust) {
    m_trust = trust;
    m_callbacks.decided();
}

}  // namespace platform
