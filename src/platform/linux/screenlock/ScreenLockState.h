#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

namespace platform {

/// Decides from what logind and the screen savers say when the user's screen became locked or unlocked. Does
/// no input or output of its own; one thread.
///
/// The screen counts as locked while the hint of any own session is set or, on desktops that keep no hint,
/// while any saver is active. Only a change that was announced as one is reported, once for each edge of the
/// whole: what is found by a first read, and what a session or saver takes with it when it goes away, is
/// taken over silently.
///
/// The savers count until the first hint is seen set; from then on the desktop is known to keep the hint,
/// which unlike a saver's "active" always means locked, and the savers are ignored for good.
class ScreenLockState {
public:
    /// `report` is told each edge, true when locked. `hintSeen` is called once, when the savers stop
    /// counting. Neither may call back into this object.
    ScreenLockState(std::function<void(bool locked)> report, std::function<void()> hintSeen);

    /// A session exists, whose owner and hint are still to be read. False if it was known already.
    bool sessionAppeared(const std::string& session);
    /// The answer to a read. `own` says whether the session is one that counts. The first answer is taken
    /// over silently, except for changes announced before it; a later answer that differs is an edge.
    void sessionRead(const std::string& session, bool own, bool locked);
    /// The session's hint changed to `locked`. A session that is not known is ignored.
    void sessionChanged(const std::string& session, bool locked);
    /// The session is gone, and what it said with it.
    void sessionRemoved(const std::string& session);
    /// All sessions are gone: logind went away or was replaced, or its bus was lost.
    void sessionsForgotten();

    /// The answer to a read, by the same rules; a saver counts from its first word on.
    void saverRead(const std::string& saver, bool active);
    /// The saver became active or inactive.
    void saverChanged(const std::string& saver, bool active);
    /// The saver is gone, and what it said with it.
    void saverRemoved(const std::string& saver);

private:
    struct Session {
        enum class Kind { unread, foreign, own };
        Kind kind = Kind::unread;
        bool locked = false;
        /// Changes announced before the first answer, oldest first.
        std::vector<bool> early;
    };

    bool anyLocked() const;
    void takeOver();
    void announce();
    void setHint(Session& session, bool locked);
    void firstAnswer(Session& session, bool locked);

    std::function<void(bool)> m_report;
    std::function<void()> m_hintSeenHandler;
    std::map<std::string, Session> m_sessions;
    std::map<std::string, bool> m_savers;
    bool m_hintSeen = false;
    bool m_locked = false;
};

}  // namespace platform
