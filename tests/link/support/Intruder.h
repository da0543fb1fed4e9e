#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "link/support/BusPeer.h"

namespace link_tests {

/// Another user of the machine who has found the agent's connections, and lies to each of them.
class Intruder {
public:
    Intruder(const std::string& busAddress, uid_t uid) : m_peer(busAddress, uid) {}

    BusPeer& peer() { return m_peer; }
    /// Whom to lie to: all connections of that process.
    void aimAt(pid_t agent) { m_victims = m_peer.namesOf(agent); }
    const std::vector<std::string>& victims() const { return m_victims; }

    /// Claims, in the bus's name, that `name` went from one owner to another.
    void forgeNameOwnerChanged(const char* name, const char* oldOwner, const char* newOwner);
    /// Claims, in logind's name, that a session's screen is locked or not.
    void forgeLockedHint(const std::string& sessionPath, bool locked);
    /// Claims, in logind's name, that a session came or went: "SessionNew", "SessionRemoved".
    void forgeSession(const char* signal, const char* id, const std::string& sessionPath);
    /// Claims, as a screen saver of that name would, that it is active or not.
    void forgeActiveChanged(const char* interface, const char* path, bool active);

    /// Returns once everything above is on its way to the victims.
    void delivered();

private:
    template <typename... Arguments>
    void forge(const char* path, const char* interface, const char* member, const char* types,
               Arguments... arguments) {
        for (const std::string& victim : m_victims) {
            m_peer.emit({victim, path, interface}, member, types, arguments...);
        }
        m_peer.emit({"", path, interface}, member, types, arguments...);
    }

    BusPeer m_peer;
    std::vector<std::string> m_victims;
};

}  // namespace link_tests
