#include "platform/linux/screenlock/ScreenLockState.h"

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <utility>

namespace platform {
namespace {

// Far more than ever come while one question is under way: a logind that says much and answers nothing must
// not fill the memory.
constexpr std::size_t mostWaiting = 256;

}  // namespace

ScreenLockState::ScreenLockState(std::function<void(bool locked)> report,
                                 std::function<void(const std::string& session)> lookAgain)
    : m_report(std::move(report)), m_lookAgain(std::move(lookAgain)) {}

bool ScreenLockState::sessionAppeared(const std::string& session) {
    return m_sessions.try_emplace(session).second;
}

void ScreenLockState::sessionRead(const std::string& session, const Reading& reading) {
    const auto found = m_sessions.find(session);
    if (found == m_sessions.end()) {
        return;
    }
    Session& entry = found->second;
    if (!reading.open) {
        leave(entry);
        entry.kind = Session::Kind::Closing;
        takeOver();
    } else if (entry.kind == Session::Kind::Open) {
        entry.hasScreen = reading.hasScreen;
        submit({Edge::Kind::Hint, session, reading.locked});
    } else {
        firstAnswer(session, entry, reading);
    }
    resolve(session);
}

void ScreenLockState::sessionChanged(const std::string& session, bool locked) {
    const auto found = m_sessions.find(session);
    if (found == m_sessions.end()) {
        return;
    }
    if (found->second.kind == Session::Kind::Unread) {
        if (found->second.early.size() < mostWaiting) {
            found->second.early.push_back(locked);
        }
    } else if (found->second.kind == Session::Kind::Open) {
        submit({Edge::Kind::Hint, session, locked});
    }
}

void ScreenLockState::sessionRemoved(const std::string& session) {
    const auto found = m_sessions.find(session);
    if (found != m_sessions.end()) {
        leave(found->second);
        m_sessions.erase(found);
        takeOver();
    }
    resolve(session);
}

void ScreenLockState::sessionsForgotten() {
    m_sessions.clear();
    takeOver();
    applyWaiting();
}

std::vector<std::string> ScreenLockState::sessionsWithHint() const {
    std::vector<std::string> sessions;
    for (const auto& [key, session] : m_sessions) {
        if (session.keepsHint) {
            sessions.push_back(key);
        }
    }
    return sessions;
}

void ScreenLockState::saverRead(const std::string& saver, bool active) {
    const bool first = m_savers.find(saver) == m_savers.end();
    m_savers[saver] = {active, false};
    if (first) {
        takeOver();
    } else {
        announce();
    }
}

void ScreenLockState::saverChanged(const std::string& saver, bool active) {
    // It changed, so it was the other before.
    m_savers.try_emplace(saver, Saver{!active, false});
    takeOver();
    m_savers[saver] = {active, false};
    announce();
}

void ScreenLockState::saverVanished(const std::string& saver) {
    const auto found = m_savers.find(saver);
    if (found != m_savers.end()) {
        found->second.away = true;
    }
}

void ScreenLockState::saverStaysAway(const std::string& saver) {
    const auto found = m_savers.find(saver);
    if (found != m_savers.end() && found->second.away) {
        submit({Edge::Kind::SaverAway, saver, false});
    }
}

void ScreenLockState::saverForgotten(const std::string& saver) {
    m_savers.erase(saver);
    takeOver();
}

bool ScreenLockState::anyLocked() const {
    bool hintIsKept = false;
    for (const auto& [key, session] : m_sessions) {
        hintIsKept = hintIsKept || session.keepsHint;
        if (session.locked) {
            return true;
        }
    }
    return !hintIsKept && std::any_of(m_savers.begin(), m_savers.end(),
                                      [](const auto& entry) { return entry.second.active; });
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

void ScreenLockState::firstAnswer(const std::string& key, Session& session, const Reading& reading) {
    const std::vector<bool> early = std::exchange(session.early, {});
    session.kind = Session::Kind::Open;
    session.hasScreen = reading.hasScreen;
    // What changed to one value had the other before; that is the state to take over, and the rest are edges.
    setHint(session, early.empty() ? reading.locked : !early.front());
    takeOver();
    for (const bool value : early) {
        submit({Edge::Kind::Hint, key, value});
    }
    submit({Edge::Kind::Hint, key, reading.locked});
}

void ScreenLockState::setHint(Session& session, bool locked) {
    session.locked = locked;
    session.keepsHint = session.keepsHint || locked;
}

// With its session goes the saver that vanished just before.
void ScreenLockState::leave(Session& session) {
    if (std::exchange(session, Session()).hasScreen) {
        for (auto saver = m_savers.begin(); saver != m_savers.end();) {
            saver = saver->second.away ? m_savers.erase(saver) : std::next(saver);
        }
    }
}

void ScreenLockState::submit(const Edge& edge) {
    if (!m_doubtful.empty()) {
        m_waiting.push_back(edge);
        if (m_waiting.size() > mostWaiting) {
            applyWaiting();
        }
        return;
    }
    const std::set<std::string> sessions = doubtfulFor(edge);
    if (sessions.empty()) {
        apply(edge);
        return;
    }
    m_waiting.push_back(edge);
    m_doubtful = sessions;
    for (const std::string& session : sessions) {
        m_lookAgain(session);
    }
}

std::set<std::string> ScreenLockState::doubtfulFor(const Edge& edge) const {
    std::set<std::string> sessions;
    const auto own = m_sessions.find(edge.key);
    if (edge.kind == Edge::Kind::Hint && (own == m_sessions.end() || own->second.locked == edge.locked)) {
        return sessions;
    }
    for (const auto& [key, session] : m_sessions) {
        const bool swallows = edge.kind == Edge::Kind::Hint && session.locked && key != edge.key;
        const bool left = edge.kind == Edge::Kind::SaverAway && session.hasScreen;
        if (swallows || left) {
            sessions.insert(key);
        }
    }
    return sessions;
}

void ScreenLockState::apply(const Edge& edge) {
    if (edge.kind == Edge::Kind::Hint) {
        applyHint(edge);
    } else {
        applySaverAway(edge);
    }
}

void ScreenLockState::applyHint(const Edge& edge) {
    const auto found = m_sessions.find(edge.key);
    if (found != m_sessions.end() && found->second.kind == Session::Kind::Open) {
        setHint(found->second, edge.locked);
        announce();
    }
}

void ScreenLockState::applySaverAway(const Edge& edge) {
    const auto found = m_savers.find(edge.key);
    if (found == m_savers.end() || !found->second.away) {
        return;
    }
    m_savers.erase(found);
    const bool sessionIsLeft = std::any_of(m_sessions.begin(), m_sessions.end(),
                                           [](const auto& entry) { return entry.second.hasScreen; });
    if (sessionIsLeft) {
        announce();
    } else {
        takeOver();
    }
}

void ScreenLockState::resolve(const std::string& session) {
    if (m_doubtful.erase(session) > 0 && m_doubtful.empty()) {
        applyWaiting();
    }
}

void ScreenLockState::applyWaiting() {
    m_doubtful.clear();
    for (const Edge& edge : std::exchange(m_waiting, {})) {
        apply(edge);
    }
}

}  // namespace platform
