#include "platform/linux/screenlock/ScreenLockState.h"

#include <algorithm>
#include <utility>

namespace platform {

ScreenLockState::ScreenLockState(std::function<void(bool locked)> report, std::function<void()> hintSeen)
    : m_report(std::move(report)), m_hintSeenHandler(std::move(hintSeen)) {}

bool ScreenLockState::sessionAppeared(const std::string& session) {
    return m_sessions.try_emplace(session).second;
}

void ScreenLockState::sessionRead(const std::string& session, bool own, bool locked) {
    const auto found = m_sessions.find(session);
    if (found == m_sessions.end()) {
        return;
    }
    Session& entry = found->second;
    if (!own) {
        entry = Session();
        entry.kind = Session::Kind::foreign;
        takeOver();
    } else if (entry.kind == Session::Kind::unread) {
        firstAnswer(entry, locked);
    } else if (entry.kind == Session::Kind::own) {
        setHint(entry, locked);
        announce();
    }
}

void ScreenLockState::sessionChanged(const std::string& session, bool locked) {
    const auto found = m_sessions.find(session);
    if (found == m_sessions.end()) {
        return;
    }
    Session& entry = found->second;
    if (entry.kind == Session::Kind::unread) {
        entry.early.push_back(locked);
    } else if (entry.kind == Session::Kind::own) {
        setHint(entry, locked);
        announce();
    }
}

void ScreenLockState::sessionRemoved(const std::string& session) {
    m_sessions.erase(session);
    takeOver();
}

void ScreenLockState::sessionsForgotten() {
    m_sessions.clear();
    takeOver();
}

void ScreenLockState::saverRead(const std::string& saver, bool active) {
    if (m_hintSeen) {
        return;
    }
    const bool first = m_savers.find(saver) == m_savers.end();
    m_savers[saver] = active;
    if (first) {
        takeOver();
    } else {
        announce();
    }
}

void ScreenLockState::saverChanged(const std::string& saver, bool active) {
    if (m_hintSeen) {
        return;
    }
    // It changed, so it was the other before.
    m_savers.try_emplace(saver, !active);
    takeOver();
    m_savers[saver] = active;
    announce();
}

void ScreenLockState::saverRemoved(const std::string& saver) {
    if (m_hintSeen) {
        return;
    }
    m_savers.erase(saver);
    takeOver();
}

bool ScreenLockState::anyLocked() const {
    return std::any_of(m_sessions.begin(), m_sessions.end(),
                       [](const auto& entry) { return entry.second.locked; }) ||
           std::any_of(m_savers.begin(), m_savers.end(), [](const auto& entry) { return entry.second; });
}

void ScreenLockState::takeOver() {
    m_locked = anyLocked();
}

void ScreenLockState::announce() {
    const bool before = std::exchange(m_locked, anyLocked());
    if (m_locked != before) {
        m_report(m_locked);
    }
}

void ScreenLockState::setHint(Session& session, bool locked) {
    session.locked = locked;
    if (locked && !m_hintSeen) {
        m_hintSeen = true;
        m_savers.clear();
        m_hintSeenHandler();
    }
}

void ScreenLockState::firstAnswer(Session& session, bool locked) {
    const std::vector<bool> early = std::exchange(session.early, {});
    session.kind = Session::Kind::own;
    // What changed to one value had the other before; that is the state to take over, and the rest are edges.
    setHint(session, early.empty() ? locked : !early.front());
    takeOver();
    for (const bool value : early) {
        setHint(session, value);
        announce();
    }
    setHint(session, locked);
    announce();
}

}  // namespace platform
