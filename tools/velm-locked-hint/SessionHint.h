#pragma once

#include <string>

/// The locked hint of the session that this process works for, kept by logind (org.freedesktop.login1(5)).
/// Failures are thrown as std::runtime_error with logind's or the bus's words. Waits for logind, some seconds
/// at most. One thread.
class SessionHint {
public:
    /// Finds the session: the one that this process is in or, where it is in none, as a service of the user's
    /// manager is, the one with the user's display.
    SessionHint();

    /// What names it among the sessions of its time; good for the name of a file.
    const std::string& session() const { return m_session; }
    bool isSet() const;
    void set(bool locked) const;

private:
    std::string m_path;
    std::string m_session;
};
