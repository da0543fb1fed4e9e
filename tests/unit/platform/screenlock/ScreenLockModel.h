#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "platform/linux/screenlock/ScreenLockState.h"

/// One thing that happens to a ScreenLockState. `key` names a session or a saver.
struct ScreenLockEvent {
    enum class Kind {
        sessionAppeared,
        sessionRead,
        sessionReadForeign,
        sessionChanged,
        sessionRemoved,
        sessionsForgotten,
        saverRead,
        saverChanged,
        saverRemoved,
    };
    static constexpr int kinds = 9;

    Kind kind;
    std::string key;
    bool value;
};

inline void apply(platform::ScreenLockState& state, const ScreenLockEvent& event) {
    using Kind = ScreenLockEvent::Kind;
    switch (event.kind) {
        case Kind::sessionAppeared:
            state.sessionAppeared(event.key);
            break;
        case Kind::sessionRead:
            state.sessionRead(event.key, true, event.value);
            break;
        case Kind::sessionReadForeign:
            state.sessionRead(event.key, false, event.value);
            break;
        case Kind::sessionChanged:
            state.sessionChanged(event.key, event.value);
            break;
        case Kind::sessionRemoved:
            state.sessionRemoved(event.key);
            break;
        case Kind::sessionsForgotten:
            state.sessionsForgotten();
            break;
        case Kind::saverRead:
            state.saverRead(event.key, event.value);
            break;
        case Kind::saverChanged:
            state.saverChanged(event.key, event.value);
            break;
        case Kind::saverRemoved:
            state.saverRemoved(event.key);
            break;
    }
}

/// The slow and simple second opinion: knows the whole history, turns it into single assignments that are
/// either silent or announced, and looks at each alone.
class ScreenLockModel {
public:
    static std::vector<bool> reports(const std::vector<ScreenLockEvent>& history) {
        ScreenLockModel model;
        for (std::size_t now = 0; now < history.size(); ++now) {
            model.translate(history, now);
        }
        return model.evaluate();
    }

private:
    struct Step {
        bool session;
        std::string key;
        std::optional<bool> value;
        bool announced;
    };
    using Kind = ScreenLockEvent::Kind;

    static bool concerns(const ScreenLockEvent& event, const std::string& key) {
        return event.kind == Kind::sessionsForgotten || (isOfSession(event) && event.key == key);
    }
    static bool isOfSession(const ScreenLockEvent& event) { return event.kind < Kind::sessionsForgotten; }

    /// What the session's life so far holds, from its appearance on; nothing if it is not there before `now`.
    static std::optional<std::vector<ScreenLockEvent>> life(const std::vector<ScreenLockEvent>& history,
                                                            std::size_t now) {
        std::optional<std::vector<ScreenLockEvent>> events;
        for (std::size_t index = 0; index < now; ++index) {
            const ScreenLockEvent& event = history[index];
            if (!concerns(event, history[now].key)) {
                continue;
            }
            if (event.kind == Kind::sessionRemoved || event.kind == Kind::sessionsForgotten) {
                events.reset();
            } else if (event.kind == Kind::sessionAppeared) {
                events = events.value_or(std::vector<ScreenLockEvent>());
            } else if (events) {
                events->push_back(event);
            }
        }
        return events;
    }

    void translate(const std::vector<ScreenLockEvent>& history, std::size_t now) {
        const ScreenLockEvent& event = history[now];
        if (event.kind == Kind::sessionsForgotten) {
            for (const ScreenLockEvent& other : history) {
                m_steps.push_back({true, other.key, std::nullopt, false});
            }
        } else if (!isOfSession(event)) {
            translateSaver(event);
        } else if (event.kind == Kind::sessionRemoved) {
            m_steps.push_back({true, event.key, std::nullopt, false});
        } else if (const auto before = life(history, now)) {
            translateSession(event, *before);
        }
    }

    void translateSaver(const ScreenLockEvent& event) {
        if (event.kind == Kind::saverRemoved) {
            m_steps.push_back({false, event.key, std::nullopt, false});
            return;
        }
        m_steps.push_back({false, event.key, event.value, true});
        m_steps.back().announced = event.kind == Kind::saverChanged || knownSaver(event.key);
    }

    /// Whether the saver said anything since it was last removed.
    bool knownSaver(const std::string& key) const {
        bool known = false;
        for (std::size_t index = 0; index + 1 < m_steps.size(); ++index) {
            if (!m_steps[index].session && m_steps[index].key == key) {
                known = m_steps[index].value.has_value();
            }
        }
        return known;
    }

    void translateSession(const ScreenLockEvent& event, const std::vector<ScreenLockEvent>& before) {
        bool read = false;
        std::vector<bool> early;
        for (const ScreenLockEvent& past : before) {
            if (past.kind == Kind::sessionReadForeign) {
                return;
            }
            read = read || past.kind == Kind::sessionRead;
            if (past.kind == Kind::sessionChanged) {
                early.push_back(past.value);
            }
        }
        if (event.kind == Kind::sessionReadForeign) {
            m_steps.push_back({true, event.key, std::nullopt, false});
        } else if (read && event.kind != Kind::sessionAppeared) {
            m_steps.push_back({true, event.key, event.value, true});
        } else if (event.kind == Kind::sessionRead) {
            m_steps.push_back({true, event.key, early.empty() ? event.value : !early.front(), false});
            for (const bool value : early) {
                m_steps.push_back({true, event.key, value, true});
            }
            m_steps.push_back({true, event.key, event.value, true});
        }
    }

    static bool locked(const std::map<std::string, bool>& sessions,
                       const std::map<std::string, bool>& savers) {
        std::size_t count = 0;
        for (const auto& entry : sessions) {
            count += entry.second ? 1U : 0U;
        }
        for (const auto& entry : savers) {
            count += entry.second ? 1U : 0U;
        }
        return count > 0;
    }

    std::vector<bool> evaluate() const {
        std::vector<bool> reports;
        std::map<std::string, bool> sessions;
        std::map<std::string, bool> savers;
        bool hintSeen = false;
        for (const Step& step : m_steps) {
            if (hintSeen && !step.session) {
                continue;
            }
            auto& values = step.session ? sessions : savers;
            if (!step.session && step.value && step.announced) {
                values.try_emplace(step.key, !*step.value);
            }
            const bool before = locked(sessions, savers);
            values.erase(step.key);
            if (step.value) {
                values[step.key] = *step.value;
            }
            if (step.session && step.value.value_or(false)) {
                hintSeen = true;
                savers.clear();
            }
            if (step.announced && locked(sessions, savers) != before) {
                reports.push_back(locked(sessions, savers));
            }
        }
        return reports;
    }

    std::vector<Step> m_steps;
};
