#pragma once

#include <functional>
#include <string>

#include "platform/linux/bus/BusHandles.h"
#include "platform/linux/bus/BusNameOwner.h"

namespace platform {

/// Follows, on one bus, who owns the daemon's name and whether that owner may call the agent and be called by
/// it: it must run as root or as the agent's own user.
///
/// On the bus's thread. The callbacks run inside sd_bus_process.
class DaemonOwner {
public:
    enum class Trust {
        Asking,     ///< the bus has not yet said who owns the name, or who runs the owner
        Nobody,     ///< the name has no owner
        Undecided,  ///< the bus could not say who runs the owner; `doubt` asks again
        Trusted,
        Untrusted,
    };
    struct Callbacks {
        std::function<void()> lost;     ///< an owner went away or another took its place
        std::function<void()> decided;  ///< trust() is not Asking any more
    };

    /// Starts to follow the owner of `serviceName` on `bus`, which must outlive this object, without waiting.
    DaemonOwner(sd_bus* bus, const std::string& serviceName, Callbacks callbacks);
    ~DaemonOwner() = default;
    DaemonOwner(const DaemonOwner&) = delete;
    DaemonOwner& operator=(const DaemonOwner&) = delete;

    /// Whether `message` comes from the present owner.
    bool sent(sd_bus_message* message) const { return m_owner.sent(message); }
    Trust trust() const { return m_trust; }
    /// The owner's unique name; empty if there is none.
    const std::string& uniqueName() const { return m_uniqueName; }

    /// Asks the bus again who owns the name and, if it could not tell, who runs the owner. A bus drops what a
    /// full queue cannot take, its own signals too, so that none came proves nothing.
    void doubt();

private:
    void ownerTold(const std::string& uniqueName);
    void askUser();
    void userTold(sd_bus_message* message);
    void decide(Trust trust);

    sd_bus* m_bus;
    Callbacks m_callbacks;
    Trust m_trust = Trust::Asking;
    std::string m_uniqueName;
    SlotHandle m_userQuestion;
    BusNameOwner m_owner;
};

}  // namespace platform
