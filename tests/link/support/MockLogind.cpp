#include "link/support/MockLogind.h"

#include <fcntl.h>
#include <unistd.h>

#include <stdexcept>
#include <vector>

#include "link/support/Await.h"

namespace link_tests {
namespace {

constexpr const char* busName = "org.freedesktop.login1";
constexpr const char* managerPath = "/org/freedesktop/login1";
constexpr const char* managerInterface = "org.freedesktop.login1.Manager";
constexpr const char* sessionInterface = "org.freedesktop.login1.Session";

void silenceOutput() {
    const int nowhere = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    ::dup2(nowhere, STDOUT_FILENO);
}

}  // namespace

MockLogind::MockLogind(const PrivateBus& bus) : m_bus(bus) {
    start();
}

void MockLogind::start() {
    m_control = std::make_unique<BusPeer>(m_bus.address(), 0);
    // Debian's own Python: the module is a Debian package, and another python3 in PATH would not have it.
    m_process = std::make_unique<ChildProcess>(
        std::vector<std::string>{"/usr/bin/python3", "-m", "dbusmock", "--system", "--template", "logind"},
        std::vector<std::string>{"PATH=/usr/bin:/bin", "DBUS_SYSTEM_BUS_ADDRESS=" + m_bus.address()},
        silenceOutput);
    if (!await([this] { return m_control->nameHasOwner(busName) || !m_process->running(); }) ||
        !m_process->running()) {
        throw std::runtime_error("dbusmock does not come up; is python3-dbusmock installed?");
    }
}

void MockLogind::stop() {
    m_process.reset();
    if (!await([this] { return !m_control->nameHasOwner(busName); })) {
        throw std::runtime_error("the mock logind stays on the bus");
    }
}

BusTarget MockLogind::mock(const std::string& path) const {
    return {busName, path, "org.freedesktop.DBus.Mock"};
}

void MockLogind::mustSucceed(const Reply& reply, const char* operation) {
    if (!reply.ok()) {
        throw std::runtime_error(std::string("mock logind, ") + operation + ": " + reply.error);
    }
}

void MockLogind::addSession(const std::string& id, uid_t uid, const std::string& sessionClass) {
    const std::string user = "user" + std::to_string(uid);
    mustSucceed(
        m_control->call(mock(managerPath), "AddSession", "ssusb", id.c_str(), "seat0", uid, user.c_str(), 1),
        "AddSession");
    if (sessionClass != "user") {
        mustSucceed(m_control->call(mock(pathOf(id)), "UpdateProperties", "sa{sv}", sessionInterface, 1,
                                    "Class", "s", sessionClass.c_str()),
                    "UpdateProperties");
    }
}

void MockLogind::announce(const std::string& id) {
    mustSucceed(m_control->call(mock(managerPath), "EmitSignal", "sssav", managerInterface, "SessionNew",
                                "so", 2, "s", id.c_str(), "o", pathOf(id).c_str()),
                "SessionNew");
}

void MockLogind::removeSession(const std::string& id) {
    mustSucceed(m_control->call(mock(managerPath), "RemoveObject", "s", pathOf(id).c_str()), "RemoveObject");
    mustSucceed(m_control->call(mock(managerPath), "EmitSignal", "sssav", managerInterface, "SessionRemoved",
                                "so", 2, "s", id.c_str(), "o", pathOf(id).c_str()),
                "SessionRemoved");
}

void MockLogind::setLockedHint(const std::string& id, bool locked) {
    mustSucceed(m_control->call({busName, pathOf(id), sessionInterface}, "SetLockedHint", "b",
                                static_cast<int>(locked)),
                "SetLockedHint");
}

void MockLogind::request(const std::string& id, const char* lockOrUnlock) {
    mustSucceed(m_control->call({busName, pathOf(id), sessionInterface}, lockOrUnlock, ""), lockOrUnlock);
}

void MockLogind::emitText(const std::string& path, const char* interface, const char* signal,
                          const char* text) {
    mustSucceed(m_control->call(mock(path), "EmitSignal", "sssav", interface, signal, "s", 1, "s", text),
                signal);
}

void MockLogind::emitPropertiesChanged(const std::string& id, const char* interface, const char* property,
                                       const char* type, int value) {
    const MessageHandle call =
        m_control->newCall(mock(pathOf(id)), "EmitSignal", "sss", "org.freedesktop.DBus.Properties",
                           "PropertiesChanged", "sa{sv}as");
    sd_bus_message* message = call.get();
    check(sd_bus_message_open_container(message, 'a', "v"), "open");
    check(sd_bus_message_append(message, "v", "s", interface), "append");
    check(sd_bus_message_append(message, "v", "a{sv}", 1, property, type, value), "append");
    check(sd_bus_message_append(message, "v", "as", 0), "append");
    check(sd_bus_message_close_container(message), "close");
    mustSucceed(m_control->call(call), "PropertiesChanged");
}

std::string MockLogind::uniqueName() {
    const std::string quoted = m_control->call(busDriver, "GetNameOwner", "s", busName).text;
    return quoted.size() > 2 ? quoted.substr(1, quoted.size() - 2) : "";
}

}  // namespace link_tests
