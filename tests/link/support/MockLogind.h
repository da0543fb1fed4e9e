#pragma once

#include <sys/types.h>

#include <memory>
#include <string>

#include "link/support/BusPeer.h"
#include "link/support/ChildProcess.h"
#include "link/support/PrivateBus.h"

namespace link_tests {

/// python3-dbusmock's logind on a private bus.
class MockLogind {
public:
    /// The bus must be running. Returns once the name is owned.
    explicit MockLogind(const PrivateBus& bus);

    /// Ends it as a crash does; sessions are forgotten.
    void stop();
    /// Starts it anew, with no session.
    void start();

    static std::string pathOf(const std::string& id) { return "/org/freedesktop/login1/session/" + id; }

    /// Adds a session without a signal, as it was there before anyone looked.
    void addSession(const std::string& id, uid_t uid, const std::string& sessionClass = "user");
    /// Emits SessionNew of a session that was added.
    void announce(const std::string& id);
    /// Removes a session, with the signal.
    void removeSession(const std::string& id);
    /// Sets the property, with the signal.
    void setLockedHint(const std::string& id, bool locked);
    /// Asks for the session to be locked or unlocked: "Lock" and "Unlock", which change nothing by
    /// themselves.
    void request(const std::string& id, const char* lockOrUnlock);
    /// Has a session's object emit a signal whose one argument is a text.
    void emitText(const std::string& path, const char* interface, const char* signal, const char* text);
    /// Has a session's object say that its properties `changed` (one boolean) and `invalidated` (its name).
    void emitPropertiesChanged(const std::string& id, const char* interface, const char* property,
                               const char* type, int value);

    std::string uniqueName();

private:
    void mustSucceed(const Reply& reply, const char* operation);
    BusTarget mock(const std::string& path) const;

    const PrivateBus& m_bus;
    std::unique_ptr<BusPeer> m_control;
    std::unique_ptr<ChildProcess> m_process;
};

}  // namespace link_tests
