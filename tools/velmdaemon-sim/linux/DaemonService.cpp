#include "linux/DaemonService.h"

#include <pwd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string_view>

#include "linux/Callbacks.h"
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
    BusHandle bus;
    int result = 0;
    if (!options.address.empty()) {
        result = platform::openBusAt(options.address, OutHandle(bus));
    } else {
        result =
            options.session ? platform::openUserBus(OutHandle(bus)) : platform::openSystemBus(OutHandle(bus));
    }
    const char* uniqueName = nullptr;
    if (result >= 0) {
        // Waits for the bus to admit this program.
        result = sd_bus_get_unique_name(bus.get(), &uniqueName);
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
    MessageHandle answer;
    const int asked = sd_bus_call_method(bus, busName, busPath, busName, method, nullptr, OutHandle(answer),
                                         "s", sender.c_str());
    std::uint32_t number = 0;
    if (asked < 0 || sd_bus_message_read(answer.get(), "u", &number) < 0) {
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
      m_table(xpcDaemonProtocol, busCallback<&DaemonService::called, DaemonService>),
      m_bus(openBus(options)) {
    checked(sd_bus_attach_event(m_bus.get(), event, SD_EVENT_PRIORITY_NORMAL), "watch the bus");
    checked(sd_bus_add_object_vtable(
                m_bus.get(), OutHandle(m_slots.emplace_back()), platform::dbus::daemonObjectPath,
                platform::dbus::interfaceName(xpcDaemonProtocol).c_str(), m_table.data(), this),
            "offer the interface");
    watchName();
    requestName();
}

void DaemonService::watchName() {
    const auto match = [this](const char* sender, const char* path, const char* interface, const char* member,
                              sd_bus_message_handler_t handler) {
        checked(sd_bus_match_signal(m_bus.get(), OutHandle(m_slots.emplace_back()), sender, path, interface,
                                    member, handler, this),
                std::string("watch for ") + member);
    };
    match(busName, busPath, busName, "NameAcquired",
          busCallback<&DaemonService::nameAcquired, DaemonService>);
    match(busName, busPath, busName, "NameLost", busCallback<&DaemonService::nameLost, DaemonService>);
    constexpr const char* localName = "org.freedesktop.DBus.Local";
    match(localName, "/org/freedesktop/DBus/Local", localName, "Disconnected",
          busCallback<&DaemonService::disconnected, DaemonService>);
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
    // Nothing is received any more.
    m_slots.clear();
    m_leaving.clear();
    using std::chrono::steady_clock;
    const auto end = steady_clock::now() + std::chrono::seconds(30);
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
    checked(sd_bus_add_match(m_bus.get(), OutHandle(m_leaving[sender]), rule.c_str(),
                             busCallback<&DaemonService::ownerChanged, DaemonService>, this),
            "watch an agent");
}

void DaemonService::ownerChanged(sd_bus_message* signal) {
    const char* name = nullptr;
    const char* before = nullptr;
    const char* after = nullptr;
    if (isFromBus(signal) && sd_bus_message_read(signal, "sss", &name, &before, &after) >= 0 &&
        std::string_view(after).empty()) {
        m_standIn.left(name);
        m_leaving.erase(name);
    }
}

int DaemonService::called(sd_bus_message* call, sd_bus_error* /*error*/) {
    const std::string sender(sd_bus_message_get_sender(call));
    const auto conversation = m_standIn.conversation(sender, [this, sender] { return introduce(sender); });
    return dispatchCall(call, *conversation);
}

void DaemonService::nameAcquired(sd_bus_message* signal) {
    if (concernsName(signal)) {
        m_timeline.note({"daemon"}, "ready",
                        std::string("as ") + daemonServiceName + " on " + describe(m_options));
    }
}

void DaemonService::nameLost(sd_bus_message* signal) {
    if (!concernsName(signal)) {
        return;
    }
    const std::string lost = std::string("another program took the name ") + daemonServiceName;
    if (m_options.queue) {
        m_timeline.note({"daemon"}, "waiting", lost);
    } else {
        endLoop(m_event, ExitStatus::NameLost, lost);
    }
}

void DaemonService::disconnected(sd_bus_message* /*signal*/) {
    endLoop(m_event, ExitStatus::BusLost, "lost the connection to " + describe(m_options));
}

}  // namespace sim
