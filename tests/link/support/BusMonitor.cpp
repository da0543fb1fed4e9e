#include "link/support/BusMonitor.h"

#include <algorithm>

namespace link_tests {

BusMonitor::BusMonitor(const std::string& address) : m_bus(newClient(address)) {
    sd_bus* const bus = m_bus.get();
    check(sd_bus_set_monitor(bus, 1), "sd_bus_set_monitor");
    check(sd_bus_start(bus), "sd_bus_start");
    check(sd_bus_call_method(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                             "org.freedesktop.DBus.Monitoring", "BecomeMonitor", nullptr, nullptr, "asu", 0U,
                             0U),
          "BecomeMonitor");
}

std::size_t BusMonitor::answered(const std::string& path, const std::string& argument,
                                 const std::string& member) const {
    const auto matches = [&](const SeenCall& call) {
        return call.answered && call.path == path && call.argument == argument && call.member == member;
    };
    return static_cast<std::size_t>(std::count_if(m_calls.begin(), m_calls.end(), matches));
}

void BusMonitor::pump() {
    while (m_bus) {
        sd_bus_message* message = nullptr;
        const int result = sd_bus_process(m_bus.get(), &message);
        const MessageHandle handle(message);
        if (result < 0) {
            m_bus.reset();
        }
        if (result <= 0) {
            return;
        }
        if (message != nullptr) {
            see(message);
        }
    }
}

void BusMonitor::see(sd_bus_message* message) {
    const std::string sender = textOf(sd_bus_message_get_sender(message));
    const std::string destination = textOf(sd_bus_message_get_destination(message));
    std::uint8_t type = 0;
    std::uint64_t cookie = 0;
    check(sd_bus_message_get_type(message, &type), "type");
    if (type == SD_BUS_MESSAGE_METHOD_CALL) {
        const char* argument = nullptr;
        if (textOf(sd_bus_message_get_signature(message, 1)).rfind('s', 0) == 0) {
            check(sd_bus_message_read(message, "s", &argument), "read");
        }
        check(sd_bus_message_get_cookie(message, &cookie), "cookie");
        m_open[{sender, cookie}] = m_calls.size();
        m_calls.push_back({sender, destination, textOf(sd_bus_message_get_path(message)),
                           textOf(sd_bus_message_get_member(message)), textOf(argument), false});
    } else if (sd_bus_message_get_reply_cookie(message, &cookie) >= 0) {
        const auto open = m_open.find({destination, cookie});
        if (open != m_open.end()) {
            m_calls[open->second].answered = true;
            m_open.erase(open);
        }
    }
}

}  // namespace link_tests
