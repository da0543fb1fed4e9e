#include "linux/DaemonService.h"

#include <pwd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <optional>
#include <string_view>

#include "linux/DBusAgent.h"
#include "linux/DaemonCalls.h"
#include "platform/linux/bus/OpenBus.h"
#include "platform/linux/link/WireNames.h"

namespace sim {
namespace {

using platform::dbus::daemonServiceName;

constexpr const char* busName = "org.freedesktop.DBus";
constexpr const char* busPath = "/org/freedesktop/DBus";

std::string describe(const BusOptions& options) {
    if (!options.address.empty()) {
        return "the bus at " + options.address;
    }
    return options.session ? "the session bus" : "the system bus";
}

BusHandle openBus(const BusOptions& options) {
    sd_bus* raw = nullptr;
    int result = 0;
    if (!options.address.empty()) {
        result = platform::openBusAt(options.address, &raw);
    } else {
        result = options.session ? platform::openUserBus(&raw) : platform::openSystemBus(&raw);
    }
    BusHandle bus(raw);
    const char* uniqueName = nullptr;
    if (result >= 0) {
        // Waits for the bus to admit this program.
        result = sd_bus_get_unique_name(raw, &uniqueName);
    }
    checked(result, "reach " + describe(options), ExitStatus::NoBus);
    return bus;
}

// Signals reach a program directly too, from anyone; a match rule does not hold the sender to its word.
bool isFromBus(sd_bus_message* signal) {
    const char* sender = sd_bus_message_get_sender(signal);
    return sender != nullptr && std::string_view(sender) == busName;
}

// What the bus knows about a connection; nothing once that is gone. Not by GetConnectionCredentials, which
// sd_bus_get_name_creds(3) of newer versions calls: a newer dbus-broker encloses a file descriptor in its
// answer, and disconnects whoever accepts none, as this program does.
std::optional<std::uint32_t> askAbout(sd_bus* bus, const std::string& sender, const char* method) {
    sd_bus_message* raw = nullptr;
    const int asked =
        sd_bus_call_method(bus, busName, busPath, busName, method, nullptr, &raw, "s", sender.c_str());
    const MessageHandle answer(raw);
    std::uint32_t number = 0;
    if (asked < 0 || sd_bus_message_read(raw, "u", &number) < 0) {
        return std::nullopt;
    }
    return number;
}

// Whether a signal of the bus is about the service's name; other connections' names are not sent here.
bool concernsName(sd_bus_message* signal) {
    const char* name = nullptr;
    return isFromBus(signal) && sd_bus_message_read(signal, "s", &name) >= 0 &&
           std::string_view(name) == daemonServiceName;
}

std::string userName(uid_t uid) {
    const passwd* entry = getpwuid(uid);
    return entry == nullptr ? std::to_string(uid) : entry->pw_name;
}

}  // namespace

DaemonService::DaemonService(sd_event* event, const BusOptions& options, StandIn& standIn, Timeline& timeline,
                             Delays& delays)
    : m_event(event),
      m_options(options),
      m_standIn(standIn),
      m_timeline(timeline),
      m_delays(delays),
      m_table(xpcDaemonProtocol, &DaemonService::onCall),
      m_bus(openBus(options)) {
    checked(sd_bus_attach_event(m_bus.get(), event, SD_EVENT_PRIORITY_NORMAL), "watch the bus");
    sd_bus_slot* slot = nullptr;
    checked(sd_bus_add_object_vtable(m_bus.get(), &slot, platform::dbus::daemonObjectPath,
                                     platform::dbus::interfaceName(xpcDaemonProtocol).c_str(), m_table.data(),
                                     this),
            "offer the interface");
    m_slots.emplace_back(slot);
    watchName();
    requestName();
}

void DaemonService::watchName() {
    const auto match = [this](const char* sender, const char* path, const char* interface, const char* member,
                              sd_bus_message_handler_t handler) {
        sd_bus_slot* slot = nullptr;
        checked(sd_bus_match_signal(m_bus.get(), &slot, sender, path, interface, member, handler, this),
                std::string("watch for ") + member);
        m_slots.emplace_back(slot);
    };
    match(busName, busPath, busName, "NameAcquired", &DaemonService::onNameAcquired);
    match(busName, busPath, busName, "NameLost", &DaemonService::onNameLost);
    constexpr const char* localName = "org.freedesktop.DBus.Local";
    match(localName, "/org/freedesktop/DBus/Local", localName, "Disconnected",
          &DaemonService::onDisconnected);
}

void DaemonService::requestName() {
    const std::string name(daemonServiceName);
    std::uint64_t flags = SD_BUS_NAME_ALLOW_REPLACEMENT;
    flags |= m_options.replace ? SD_BUS_NAME_REPLACE_EXISTING : 0;
    flags |= m_options.queue ? SD_BUS_NAME_QUEUE : 0;
    const int result = sd_bus_request_name(m_bus.get(), daemonServiceName, flags);
    if (result == -EEXIST) {
        const char* hint =
            m_options.replace ? "its owner does not allow --replace" : "see --replace and --queue";
        throw Failure(ExitStatus::NameTaken,
                      "the name " + name + " is taken on " + describe(m_options) + " (" + hint + ")");
    }
    if (result == -EACCES || result == -EPERM) {
        throw Failure(ExitStatus::NoPermission,
                      "the policy of " + describe(m_options) + " does not let this user own " + name +
                          " (root may, once the policy file of the package is in place)");
    }
    checked(result, "own " + name);
    if (result == 0) {
        m_timeline.note({"daemon"}, "waiting", "for " + name + ", which another program owns");
    }
}

void DaemonService::sendTheRest() {
    using std::chrono::steady_clock;
    const auto end = steady_clock::now() + std::chrono::seconds(5);
    std::uint64_t unwritten = 0;
    while (sd_bus_get_n_queued_write(m_bus.get(), &unwritten) >= 0 && unwritten > 0 &&
           steady_clock::now() < end) {
        constexpr std::uint64_t wait = 100000;  // microseconds
        if (sd_bus_process(m_bus.get(), nullptr) < 0 || sd_bus_wait(m_bus.get(), wait) < 0) {
            return;
        }
    }
}

Peer DaemonService::introduce(const std::string& sender) {
    // Watched before it is asked about, so that its end cannot be missed in between.
    watchLeaving(sender);
    Peer peer;
    peer.description = sender;
    peer.agent = std::make_shared<DBusAgent>(
        m_bus.get(), sender, [this, sender](const std::string& member, const std::string& why) {
            m_standIn.refused(sender, member, why);
        });
    const auto uid = askAbout(m_bus.get(), sender, "GetConnectionUnixUser");
    if (!uid) {
        m_delays.after(std::chrono::milliseconds(0), [this, sender] { m_standIn.left(sender); });
        return peer;
    }
    if (const auto pid = askAbout(m_bus.get(), sender, "GetConnectionUnixProcessID")) {
        peer.description += ", pid " + std::to_string(*pid);
    }
    peer.user = userName(*uid);
    peer.description += ", user " + peer.user;
    return peer;
}

void DaemonService::watchLeaving(const std::string& sender) {
    const std::string rule = std::string("type='signal',sender='") + busName + "',interface='" + busName +
                             "',member='NameOwnerChanged',arg0='" + sender + "'";
    sd_bus_slot* slot = nullptr;
    checked(sd_bus_add_match(m_bus.get(), &slot, rule.c_str(), &DaemonService::onNameOwnerChanged, this),
            "watch an agent");
    m_leaving[sender].reset(slot);
}

int DaemonService::nameChanged(sd_bus_message* signal) {
    const char* name = nullptr;
    const char* before = nullptr;
    const char* after = nullptr;
    if (isFromBus(signal) && sd_bus_message_read(signal, "sss", &name, &before, &after) >= 0 &&
        std::string_view(after).empty()) {
        m_standIn.left(name);
        m_leaving.erase(name);
    }
    return 0;
}

void DaemonService::end(ExitStatus status, const std::string& why) {
    std::cerr << "velmdaemon-sim: " << why << std::endl;
    sd_event_exit(m_event, static_cast<int>(status));
}

int DaemonService::onCall(sd_bus_message* call, void* userdata, sd_bus_error* /*error*/) {
    auto* self = static_cast<DaemonService*>(userdata);
    const std::string sender(sd_bus_message_get_sender(call));
    const auto conversation =
        self->m_standIn.conversation(sender, [self, sender] { return self->introduce(sender); });
    return dispatchCall(call, *conversation);
}

int DaemonService::onNameAcquired(sd_bus_message* signal, void* userdata, sd_bus_error* /*error*/) {
    auto* self = static_cast<DaemonService*>(userdata);
    if (concernsName(signal)) {
        self->m_timeline.note({"daemon"}, "ready",
                              std::string("as ") + daemonServiceName + " on " + describe(self->m_options));
    }
    return 0;
}

int DaemonService::onNameLost(sd_bus_message* signal, void* userdata, sd_bus_error* /*error*/) {
    auto* self = static_cast<DaemonService*>(userdata);
    if (!concernsName(signal)) {
        return 0;
    }
    const std::string lost = std::string("another program took the name ") + daemonServiceName;
    if (self->m_options.queue) {
        self->m_timeline.note({"daemon"}, "waiting", lost);
    } else {
        self->end(ExitStatus::NameLost, lost);
    }
    return 0;
}

int DaemonService::onNameOwnerChanged(sd_bus_message* signal, void* userdata, sd_bus_error* /*error*/) {
    return static_cast<DaemonService*>(userdata)->nameChanged(signal);
}

int DaemonService::onDisconnected(sd_bus_message* /*signal*/, void* userdata, sd_bus_error* /*error*/) {
    auto* self = static_cast<DaemonService*>(userdata);
    self->end(ExitStatus::BusLost, "lost the connection to " + describe(self->m_options));
    return 0;
}

}  // namespace sim
