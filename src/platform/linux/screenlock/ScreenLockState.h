#pragma once

#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace platform {

/// Decides from what logind and the screen savers say when the user's screen became locked or unlocked. Does
/// no input or output of its own; one thread.
///
/// The screen counts as locked while the hint of any open session is set. While no open session has ever set
/// its hint, its desktop may be one that keeps none, and any active saver counts as well; a hint, unlike a
/// saver's "active", always means locked. Only a change that was announced as one is reported, once for each
/// edge of the whole: what is found by a first read, and what a session takes with it when it goes, is taken
/// over silently.
///
/// A session that ended while locked may stay for days, hint and all, and nobody announces that it is
/// closing. So before such a hint swallows the edge of another session, or a saver that went away is believed
/// to have left an open session behind, the session is looked at again, and what comes meanwhile waits in
/// order.
class ScreenLockState {
public:
    /// What a look at a session found.
    struct Reading {
        /// Not ended; a session that is only closing counts no more than one that is gone.
        bool open = true;
        bool locked = false;
        /// Whether a saver may belong to it, as one cannot to a remote shell.
        bool hasScreen = true;
    };

    /// `report` is told each edge, true when locked; it must not call back. `lookAgain` asks for a
    /// sessionRead() or sessionRemoved() of a session, now or later; what waits for it waits until then.
    ScreenLockState(std::function<void(bool locked)> report,
                    std::function<void(const std::string& session)> lookAgain);

    /// A session exists that is still to be read. False if it was known already.
    bool sessionAppeared(const std::string& session);
    /// The answer to a read. The first answer is taken over silently, except for changes announced before it;
    /// a later answer that differs is an edge. Of a session that is not known it says nothing.
    void sessionRead(const std::string& session, const Reading& reading);
    /// The session's hint changed to `locked`. A session that is not known is ignored.
    void sessionChanged(const std::string& session, bool locked);
    /// The session is gone or none of the user's, and what it said with it.
    void sessionRemoved(const std::string& session);
    /// All sessions are gone: logind went away or was replaced, or its bus was lost.
    void sessionsForgotten();
    /// The open sessions that have set their hint: those that swallow edges and quiet the savers, and whose
    /// end should be noticed.
    std::vector<std::string> sessionsWithHint() const;

    /// The answer to a read, by the same rules; a saver counts from its first word on.
    void saverRead(const std::string& saver, bool active);
    /// The saver became active or inactive.
    void saverChanged(const std::string& saver, bool active);
    /// The saver vanished, by itself or with its session; what it said stays until somebody in its place says
    /// something, or until saverStaysAway().
    void saverVanished(const std::string& saver);
    /// Nobody came in the place of a saver that vanished. If it was active and a session with a screen is
    /// still open, nobody keeps that locked any more, which is an edge.
    void saverStaysAway(const std::string& saver);
    /// The saver does not count any more, and what it said is forgotten.
    void saverForgotten(const std::string& saver);

private:
    struct Session {
        enum class Kind { Unread, Closing, Open };
        Kind kind = Kind::Unread;
        bool locked = false;
        bool hasScreen = false;
        bool keepsHint = false;
        /// Changes announced before the first answer, oldest first.
        std::vector<bool> early;
    };
    struct Saver {
        bool active = false;
        bool away = false;
    };
    /// An edge that may have to wait: of a session's hint, or that a saver stays away.
    struct Edge {
        enum class Kind { Hint, SaverAway };
        Kind kind;
        std::string key;
        bool locked;
    };

    bool anyLocked() const;
    void takeOver();
    void announce();
    void firstAnswer(const std::string& key, Session& session, const Reading& reading);
    void setHint(Session& session, bool locked);
    void leave(Session& session);
    void submit(const Edge& edge);
    std::set<std::string> doubtfulFor(const Edge& edge) const;
    void apply(const Edge& edge);
    void applyHint(const Edge& edge);
    void applySaverAway(const Edge& edge);
    void resolve(const std::string& session);
    void applyWaiting();

    std::function<void(bool)> m_report;
    std::function<void(const std::string&)> m_lookAgain;
    std::map<std::string, Session> m_sessions;
    std::map<std::string, Saver> m_savers;
    bool m_locked = false;
    /// Sessions to be looked at before the waiting edges are applied.
    std::set<std::string> m_doubtful;
    std::vector<Edge> m_waiting;
};

}  // namespace platform
