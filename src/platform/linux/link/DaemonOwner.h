#pragma once

#include <functional>
#include <optional>
#include <string>
#include <utility>

#include "platform/linux/bus/BusHandles.h"
#include "platform/linux/bus/BusNameOwner.h"

namespace platform {

/// Follows, on one bus, who owns the daemon's name and whether that owner may call the agent: it must run as
/// root or as the agent's own user.
///
/// Not thread-safe: belongs to whatever guards the bus. The callbacks run inside sd_bus_process.
class DaemonOwner {
public:
    enum class Trust {
        Unknown,  ///< there is no owner, or the bus has not yet said who runs it
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

    /// Starts to follow the owner of `serviceName` on `bus`, without waiting. Once, and `stop` must come
    /// before the bus goes.
    void start(sd_bus* bus, const std::string& serviceName);
    void stop();

    /// Whether `message` comes from the present owner.
    bool sent(sd_bus_message* message) const { return m_owner && m_owner->sent(message); }
    /// Whether the present owner may call.
    Trust trust() const { return m_trust; }

private:
    void ownerChanged(const std::string& uniqueName);
    void userAnswered(sd_bus_message* message);

    Callbacks m_callbacks;
    sd_bus* m_bus = nullptr;
    bool m_owned = false;
    Trust m_trust = Trust::Unknown;
    std::optional<BusNameOwner> m_owner;
    SlotHandle m_userQuery;
};

}  // namespace platform
