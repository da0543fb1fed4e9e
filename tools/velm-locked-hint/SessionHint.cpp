#include "SessionHint.h"

#include <systemd/sd-bus.h>

#include <cstdint>
#include <stdexcept>

#include "platform/linux/bus/BusHandles.h"
#include "platform/linux/process/OutHandle.h"

namespace {

using platform::BusHandle;
using platform::MessageHandle;
using platform::OutHandle;

constexpr const char* service = "org.freedesktop.login1";
constexpr const char* sessionInterface = "org.freedesktop.login1.Session";

/// An error with what the bus or logind had to say.
class BusError {
public:
    BusError() = default;
    ~BusError() { sd_bus_error_free(&m_error); }
    BusError(const BusError&) = delete;
    BusError& operator=(const BusError&) = delete;

    sd_bus_error* get() { return &m_error; }
    void check(int result, const std::string& operation) {
        if (result < 0) {
            sd_bus_error_set_errno(sd_bus_error_is_set(&m_error) != 0 ? nullptr : &m_error, result);
            throw std::runtime_error("cannot " + operation + ": " + m_error.message);
        }
    }

private:
    sd_bus_error m_error{};
};

// A new connection each time: hours may lie between, and the bus may have been restarted.
BusHandle openBus() {
    BusHandle bus;
    BusError error;
    error.check(sd_bus_open_system(OutHandle(bus)), "open the system bus");
    constexpr std::uint64_t tenSeconds = 10000000;
    sd_bus_set_method_call_timeout(bus.get(), tenSeconds);
    return bus;
}

}  // namespace

SessionHint::SessionHint() {
    const BusHandle bus = openBus();
    BusError error;
    MessageHandle reply;
    error.check(
        sd_bus_call_method(bus.get(), service, "/org/freedesktop/login1", "org.freedesktop.login1.Manager",
                           "GetSession", error.get(), OutHandle(reply), "s", "auto"),
        "find the session");
    const char* path = nullptr;
    error.check(sd_bus_message_read(reply.get(), "o", &path), "find the session");
    m_path = path;
    // Of the path's last step each byte that is no letter or digit is written in another way: not of its
    // name.
    m_session = m_path.substr(m_path.rfind('/') + 1);
}

bool SessionHint::isSet() const {
    const BusHandle bus = openBus();
    BusError error;
    int locked = 0;
    error.check(sd_bus_get_property_trivial(bus.get(), service, m_path.c_str(), sessionInterface,
                                            "LockedHint", error.get(), 'b', &locked),
                "read the locked hint");
    return locked != 0;
}

void SessionHint::set(bool locked) const {
    const BusHandle bus = openBus();
    BusError error;
    error.check(sd_bus_call_method(bus.get(), service, m_path.c_str(), sessionInterface, "SetLockedHint",
                                   error.get(), nullptr, "b", static_cast<int>(locked)),
                locked ? "set the locked hint" : "clear the locked hint");
}
