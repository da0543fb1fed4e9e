#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "platform/linux/screenlock/ScreenLockState.h"

/// One thing that happens to a ScreenLockState. `key` names a session or a saver.
struct ScreenLockEvent {
    enum class Kind {
        SessionAppeared,
        SessionRead,
        SessionReadWithoutScreen,
        SessionReadClosing,
        SessionChanged,
        SessionRemoved,
        SessionsForgotten,
        SaverRead,
        SaverChanged,
        SaverVanished,
        SaverStaysAway,
        SaverForgotten,
    };
    static constexpr int kinds = 12;

    Kind kind;
    std::string key;
    bool value;
};

inline void apply(platform::ScreenLockState& state, const ScreenLockEvent& event) {
    using Kind = ScreenLockEvent::Kind;
    switch (event.kind) {
        case Kind::SessionAppeared:
            state.sessionAppeared(event.key);
            break;
        case Kind::SessionRead:
            state.sessionRead(event.key, {true, event.value, true});
            break;
        case Kind::SessionReadWithoutScreen:
            state.sessionRead(event.key, {true, event.value, false});
            break;
        case Kind::SessionReadClosing:
            state.sessionRead(event.key, {false, event.value, true});
            break;
        case Kind::SessionChanged:
            state.sessionChanged(event.key, event.value);
            break;
        case Kind::SessionRemoved:
            state.sessionRemoved(event.key);
            break;
        case Kind::SessionsForgotten:
            state.sessionsForgotten();
            break;
        case Kind::SaverRead:
            state.saverRead(event.key, event.value);
            break;
        case Kind::SaverChanged:
            state.saverChanged(event.key, event.value);
            break;
        case Kind::SaverVanished:
            state.saverVanished(event.key);
            break;
        case Kind::SaverStaysAway:
            state.saverStaysAway(event.key);
            break;
        case Kind::SaverForgotten:
            state.saverForgotten(event.key);
            break;
    }
}

/// The slow and simple second opinion: knows the whole history, turns it into single steps that are either
/// silent or announced, and finds out how things stand by taking all steps from the first one on.
class ScreenLockModel {
public:
    static std::vector<bool> reports(const std::vector<ScreenLockEvent>& history) {
        ScreenLockModel model;
        for (std::size_t now = 0; now < history.size(); ++now) {
            model.happens(history, now);
        }
        return model.evaluate().reports;
    }

private:
    using Kind = ScreenLockEvent::Kind;

    struct Step {
        enum class What {
            Hint,
            Closed,
            Opened,
            SessionGone,
            AllGone,
            Saver,
            SaverAway,
            SaverLost,
            SaverGone
        };
        What what;
        std::string key;
        bool value = false;
        bool announced = false;
    };
    struct World {
        struct Session {
            bool locked = false;
            bool everLocked = false;
            bool screen = false;
        };
        struct Saver {
            bool active = false;
            bool away = false;
        };
        std::map<std::string, Session> sessions;  ///< the open ones
        std::map<std::string, Saver> savers;
        std::vector<bool> reports;

        bool locked() const {
            std::size_t hints = 0;
            std::size_t keepers = 0;
            std::size_t active = 0;
            for (const auto& entry : sessions) {
                hints += entry.second.locked ? 1U : 0U;
                keepers += entry.second.everLocked ? 1U : 0U;
            }
            for (const auto& entry : savers) {
                active += entry.second.active ? 1U : 0U;
            }
            return hints > 0 || (keepers == 0 && active > 0);
        }
        bool hasScreen() const {
            std::size_t screens = 0;
            for (const auto& entry : sessions) {
                screens += entry.second.screen ? 1U : 0U;
            }
            return screens > 0;
        }
        void dropSaversThatAreAway() {
            const auto all = savers;
            for (const auto& [key, saver] : all) {
                if (saver.away) {
                    savers.erase(key);
                }
            }
        }
        void close(const std::string& key) {
            if (sessions.count(key) > 0 && sessions[key].screen) {
                dropSaversThatAreAway();
            }
            sessions.erase(key);
        }
    };

    /// What has happened to the session since it appeared; nothing if it is not there before `now`.
    static std::optional<std::vector<ScreenLockEvent>> life(const std::vector<ScreenLockEvent>& history,
                                                            std::size_t now) {
        std::optional<std::vector<ScreenLockEvent>> events;
        for (std::size_t index = 0; index < now; ++index) {
            const ScreenLockEvent& event = history[index];
            const bool ends = event.kind == Kind::SessionRemoved && event.key == history[now].key;
            if (ends || event.kind == Kind::SessionsForgotten) {
                events.reset();
            } else if (event.kind == Kind::SessionAppeared && event.key == history[now].key) {
                events = events.value_or(std::vector<ScreenLockEvent>());
            } else if (events && event.kind < Kind::SessionsForgotten && event.key == history[now].key) {
                events->push_back(event);
            }
        }
        return events;
    }
    static bool isRead(const ScreenLockEvent& event) {
        return event.kind == Kind::SessionRead || event.kind == Kind::SessionReadWithoutScreen ||
               event.kind == Kind::SessionReadClosing;
    }

    void happens(const std::vector<ScreenLockEvent>& history, std::size_t now) {
        const ScreenLockEvent& event = history[now];
        if (event.kind == Kind::SessionsForgotten) {
            m_steps.push_back({Step::What::AllGone, event.key});
            answered(std::nullopt);
        } else if (event.kind > Kind::SessionsForgotten) {
            happensToSaver(event);
        } else if (event.kind == Kind::SessionRemoved) {
            m_steps.push_back({Step::What::SessionGone, event.key});
            answered(event.key);
        } else if (const auto before = life(history, now)) {
            happensToSession(event, *before);
            if (isRead(event)) {
                answered(event.key);
            }
        }
    }

    void happensToSaver(const ScreenLockEvent& event) {
        const World world = evaluate();
        const auto saver = world.savers.find(event.key);
        const bool known = saver != world.savers.end();
        if (event.kind == Kind::SaverRead) {
            m_steps.push_back({Step::What::Saver, event.key, event.value, known});
        } else if (event.kind == Kind::SaverChanged) {
            m_steps.push_back({Step::What::Saver, event.key, known ? saver->second.active : !event.value});
            m_steps.push_back({Step::What::Saver, event.key, event.value, true});
        } else if (event.kind == Kind::SaverVanished) {
            m_steps.push_back({Step::What::SaverAway, event.key});
        } else if (event.kind == Kind::SaverForgotten) {
            m_steps.push_back({Step::What::SaverGone, event.key});
        } else if (known && saver->second.away) {
            edge({Step::What::SaverLost, event.key});
        }
    }

    void happensToSession(const ScreenLockEvent& event, const std::vector<ScreenLockEvent>& before) {
        bool read = false;
        bool open = false;
        std::vector<bool> early;
        for (const ScreenLockEvent& past : before) {
            read = read || isRead(past);
            open = isRead(past) ? past.kind != Kind::SessionReadClosing : open;
            if (past.kind == Kind::SessionChanged && !read) {
                early.push_back(past.value);
            }
        }
        if (event.kind == Kind::SessionReadClosing) {
            m_steps.push_back({Step::What::Closed, event.key});
        } else if (isRead(event)) {
            m_steps.push_back({Step::What::Opened, event.key, event.kind == Kind::SessionRead});
            if (!open) {
                early = read ? std::vector<bool>() : early;
                m_steps.push_back(
                    {Step::What::Hint, event.key, early.empty() ? event.value : !early.front()});
                for (const bool value : early) {
                    edge({Step::What::Hint, event.key, value, true});
                }
            }
            edge({Step::What::Hint, event.key, event.value, true});
        } else if (event.kind == Kind::SessionChanged && open) {
            edge({Step::What::Hint, event.key, event.value, true});
        }
    }

    /// The step happens now, or once those have been looked at that it may wrongly rest on.
    void edge(const Step& step) {
        if (m_asked.empty()) {
            const World world = evaluate();
            const auto own = world.sessions.find(step.key);
            const bool changes = own != world.sessions.end() && own->second.locked != step.value;
            for (const auto& [key, session] : world.sessions) {
                if (step.what == Step::What::SaverLost ? session.screen
                                                       : changes && session.locked && key != step.key) {
                    m_asked.insert(key);
                }
            }
        }
        (m_asked.empty() ? m_steps : m_waiting).push_back(step);
    }

    void answered(const std::optional<std::string>& key) {
        const bool asked = !m_asked.empty();
        if (key) {
            m_asked.erase(*key);
        } else {
            m_asked.clear();
        }
        if (asked && m_asked.empty()) {
            m_steps.insert(m_steps.end(), m_waiting.begin(), m_waiting.end());
            m_waiting.clear();
        }
    }

    static void take(const Step& step, World& world) {
        const bool open = world.sessions.count(step.key) > 0;
        const bool saverKnown = world.savers.count(step.key) > 0;
        switch (step.what) {
            case Step::What::Opened:
                world.sessions[step.key].screen = step.value;
                break;
            case Step::What::Hint:
                if (open) {
                    world.sessions[step.key].locked = step.value;
                    world.sessions[step.key].everLocked |= step.value;
                }
                break;
            case Step::What::Closed:
            case Step::What::SessionGone:
                world.close(step.key);
                break;
            case Step::What::AllGone:
                world.sessions.clear();
                break;
            case Step::What::Saver:
                world.savers[step.key] = {step.value, false};
                break;
            case Step::What::SaverAway:
                if (saverKnown) {
                    world.savers[step.key].away = true;
                }
                break;
            case Step::What::SaverLost:
                if (saverKnown && world.savers[step.key].away) {
                    world.savers.erase(step.key);
                }
                break;
            case Step::What::SaverGone:
                world.savers.erase(step.key);
                break;
        }
    }

    World evaluate() const {
        World world;
        for (const Step& step : m_steps) {
            const bool before = world.locked();
            take(step, world);
            const bool announced = step.what == Step::What::SaverLost ? world.hasScreen() : step.announced;
            if (announced && world.locked() != before) {
                world.reports.push_back(world.locked());
            }
        }
        return world;
    }

    std::vector<Step> m_steps;
    std::vector<Step> m_waiting;
    std::set<std::string> m_asked;
};
