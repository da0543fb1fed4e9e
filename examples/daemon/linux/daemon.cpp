// A small management daemon over sd-bus: confirms each agent's link, and prints what happens. See
// daemon-authors.md.

#include <pwd.h>
#include <systemd/sd-bus.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <system_error>

namespace {

constexpr const char* serviceName = "com.brovik.velmdaemon";
constexpr const char* daemonPath = "/com/brovik/velmdaemon";
constexpr const char* daemonInterface = "com.brovik.XpcDaemonProtocol";
constexpr const char* agentPath = "/com/brovik/velmmonitord";
constexpr const char* agentInterface = "com.brovik.XpcAgentProtocol";
constexpr const char* busName = "org.freedesktop.DBus";
constexpr const char* busPath = "/org/freedesktop/DBus";

/// Who is at the other end, by the unique names of their connections to the bus.
using Agents = std::map<std::string, std::string>;

std::string userOf(sd_bus_message* call) {
    // The bus knows who sent a message; nothing that the message says is to be trusted for that.
    sd_bus_message* answer = nullptr;
    std::uint32_t uid = 0;
    const bool known =
        sd_bus_call_method(sd_bus_message_get_bus(call), busName, busPath, busName, "GetConnectionUnixUser",
                           nullptr, &answer, "s", sd_bus_message_get_sender(call)) >= 0 &&
        sd_bus_message_read(answer, "u", &uid) >= 0;
    sd_bus_message_unref(answer);
    const passwd* entry = known ? getpwuid(uid) : nullptr;
    if (entry != nullptr) {
        return entry->pw_name;
    }
    return known ? "user " + std::to_string(uid) : "somebody who has gone";
}

const std::string& introduce(sd_bus_message* call, Agents& agents) {
    const auto [agent, isNew] = agents.try_emplace(sd_bus_message_get_sender(call));
    if (isNew) {
        agent->second = userOf(call);
    }
    return agent->second;
}

// Says something to the agent that sent `call`: at its unique name, and without asking for a reply.
template <typename... Arguments>
void tell(sd_bus_message* call, const char* member, const char* types, Arguments... arguments) {
    sd_bus_message* message = nullptr;
    sd_bus* const bus = sd_bus_message_get_bus(call);
    if (sd_bus_message_new_method_call(bus, &message, sd_bus_message_get_sender(call), agentPath,
                                       agentInterface, member) >= 0 &&
        sd_bus_message_append(message, types, arguments...) >= 0) {
        sd_bus_message_set_expect_reply(message, 0);
        sd_bus_send(bus, message, nullptr);
    }
    sd_bus_message_unref(message);
}

// The handlers are noexcept because an exception must not pass through the frames of sd-bus, which is C:
// running out of memory ends the daemon.

int onConnect(sd_bus_message* call, void* agents, sd_bus_error* /*error*/) noexcept {
    // May come twice from one agent, and comes again from an agent whose link was lost.
    std::printf("%s: connected; whether the screen is locked is not known\n",
                introduce(call, *static_cast<Agents*>(agents)).c_str());
    tell(call, "connected", "b", 1);
    return sd_bus_reply_method_return(call, nullptr);
}

int onScreenLocked(sd_bus_message* call, void* agents, sd_bus_error* /*error*/) noexcept {
    int locked = 0;
    const int result = sd_bus_message_read(call, "b", &locked);
    if (result < 0) {
        return result;
    }
    std::printf("%s: screen %s\n", introduce(call, *static_cast<Agents*>(agents)).c_str(),
                locked != 0 ? "locked" : "unlocked");
    return sd_bus_reply_method_return(call, nullptr);
}

int onTimeZoneChanged(sd_bus_message* call, void* agents, sd_bus_error* /*error*/) noexcept {
    std::printf("%s: time zone changed\n", introduce(call, *static_cast<Agents*>(agents)).c_str());
    // Data goes the other way just as well: five bytes.
    tell(call, "putMessage", "ay", 5, 'n', 'o', 't', 'e', 'd');
    return sd_bus_reply_method_return(call, nullptr);
}

int onPing(sd_bus_message* call, void* /*agents*/, sd_bus_error* /*error*/) noexcept {
    return sd_bus_reply_method_return(call, "b", 1);
}

int onPutMessage(sd_bus_message* call, void* agents, sd_bus_error* /*error*/) noexcept {
    const void* bytes = nullptr;
    std::size_t length = 0;
    const int result = sd_bus_message_read_array(call, 'y', &bytes, &length);
    if (result < 0) {
        return result;
    }
    std::printf("%s: a message of %zu bytes\n", introduce(call, *static_cast<Agents*>(agents)).c_str(),
                length);
    return sd_bus_reply_method_return(call, nullptr);
}

int onRequestForLogLevel(sd_bus_message* call, void* /*agents*/, sd_bus_error* /*error*/) noexcept {
    tell(call, "logLevel", "x", std::int64_t{6});
    return sd_bus_reply_method_return(call, nullptr);
}

// A connection to the bus ended; it may have been an agent's.
int onNameOwnerChanged(sd_bus_message* signal, void* agents, sd_bus_error* /*error*/) noexcept {
    const char* name = nullptr;
    const char* before = nullptr;
    const char* now = nullptr;
    const char* const sender = sd_bus_message_get_sender(signal);
    // Anyone may send us such a signal; only the bus's own counts.
    if (sender == nullptr || std::strcmp(sender, busName) != 0 ||
        sd_bus_message_read(signal, "sss", &name, &before, &now) < 0 || now[0] != '\0') {
        return 0;
    }
    auto& known = *static_cast<Agents*>(agents);
    if (const auto agent = known.find(name); agent != known.end()) {
        std::printf("%s: gone\n", agent->second.c_str());
        known.erase(agent);
    }
    return 0;
}

// Agents of any user call these; without the flag, sd-bus would let only root do so.
constexpr auto open = SD_BUS_VTABLE_UNPRIVILEGED;

const std::array<sd_bus_vtable, 8> methods{{
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("connect", "", "", onConnect, open),
    SD_BUS_METHOD("pingWithReply", "", "b", onPing, open),
    SD_BUS_METHOD("putMessage", "ay", "", onPutMessage, open),
    SD_BUS_METHOD("onScreenLocked", "b", "", onScreenLocked, open),
    SD_BUS_METHOD("onTimeZoneChanged", "", "", onTimeZoneChanged, open),
    SD_BUS_METHOD("requestForLogLevel", "i", "", onRequestForLogLevel, open),
    SD_BUS_VTABLE_END,
}};

void check(int result, const char* doing) {
    if (result < 0) {
        throw std::system_error(-result, std::generic_category(), doing);
    }
}

// As sd_bus_open_system(3), but no file descriptors are accepted: any user could send one whose close()
// blocks.
sd_bus* openSystemBus() {
    sd_bus* bus = nullptr;
    const char* const address = std::getenv("DBUS_SYSTEM_BUS_ADDRESS");
    check(sd_bus_new(&bus), "cannot make a bus");
    check(sd_bus_set_address(bus, address != nullptr ? address : "unix:path=/run/dbus/system_bus_socket"),
          "there is something wrong with DBUS_SYSTEM_BUS_ADDRESS");
    check(sd_bus_set_bus_client(bus, 1), "cannot be a client of a bus");
    check(sd_bus_negotiate_fds(bus, 0), "cannot refuse descriptors");
    check(sd_bus_start(bus), "cannot reach the system bus");
    return bus;
}

void serve() {
    Agents agents;
    sd_bus* const bus = openSystemBus();
    check(sd_bus_add_object_vtable(bus, nullptr, daemonPath, daemonInterface, methods.data(), &agents),
          "cannot offer the interface");
    check(sd_bus_match_signal(bus, nullptr, busName, busPath, busName, "NameOwnerChanged", onNameOwnerChanged,
                              &agents),
          "cannot watch for agents that go");
    check(sd_bus_request_name(bus, serviceName, 0), "cannot own com.brovik.velmdaemon");
    std::puts("ready");
    for (;;) {
        const int handled = sd_bus_process(bus, nullptr);
        check(handled, "lost the system bus");
        if (handled == 0) {
            check(sd_bus_wait(bus, UINT64_MAX), "cannot wait for the bus");
        }
    }
}

}  // namespace

int main() {
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    try {
        serve();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "daemon: %s\n", error.what());
    }
    return 1;
}
