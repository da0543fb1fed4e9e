#pragma once

#include <functional>
#include <string>

#include "platform/linux/BusHandles.h"

namespace platform {

/// Follows, on one bus, who owns the daemon's name and whether that owner may call the agent: it must run as
/// root or as the agent's own user.
///
/// The match is installed before the question is asked, and both answers and signals are applied in the order
/// in which the bus sent them, so no change is missed and none is applied twice. Messages that only pretend
/// to come from the bus itself are ignored: any local user can send such a signal to the agent directly.
///
/// Not thread-safe: belongs to whatever guards the bus. The callbacks run inside sd_bus_process.
class DaemonOwner {
public:
    enum class Trust {
        Unknown,  ///< there is an owner and the bus has not yet said who runs it, or there is no owner
        Trusted,
        Untrusted,
    };
    struct Callbacks {
        std::function<void()> lost;          ///< an owner went away or another took its place
        std::function<void()> trustDecided;  ///< trust() is now Trusted or Untrusted for the present owner
    };

    explicit DaemonOwner(Callbacks callbacks) : m_callbacks(std::move(callbacks)) {}
    ~DaemonOwner() = default;
    DaemonOwner(const DaemonOwner&) = delete;
    DaemonOwner& operator=(const DaemonOwner&) = delete;

    /// Starts to follow the owner of `serviceName` on `bus`, without waiting. Returns a negative errno value
    /// on failure. Once, and `stop` must come before the bus goes.
    int start(sd_bus* bus, const std::string& serviceName);
    void stop();

    /// The owner's unique name, or empty if there is none or none is known yet.
    const std::string& uniqueName() const { return m_uniqueName; }
    Trust trust() const { return m_trust; }

private:
    static int onNameOwnerChanged(sd_bus_message* message, void* self, sd_bus_error* error);
    static int onNameOwner(sd_bus_message* message, void* self, sd_bus_error* error);
    static int onUnixUser(sd_bus_message* message, void* self, sd_bus_error* error);
    void setOwner(const char* uniqueName);
    void askForUser();

    Callbacks m_callbacks;
    sd_bus* m_bus = nullptr;
    std::string m_uniqueName;
    Trust m_trust = Trust::Unknown;
    SlotHandle m_ownerChanges;
    SlotHandle m_ownerQuery;
    SlotHandle m_userQuery;
};

}  // namespace platform
