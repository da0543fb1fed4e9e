#pragma once

#include <list>
#include <memory>
#include <set>
#include <string>

#include "platform/linux/bus/BusHandles.h"
#include "platform/linux/bus/BusNameOwner.h"
#include "platform/linux/screenlock/ScreenLockState.h"

namespace platform {

/// Follows the locked hint of the sessions that logind keeps for this process's user, and tells a
/// ScreenLockState.
///
/// A process of the user's service manager belongs to no session, so neither XDG_SESSION_ID nor a look-up by
/// process would find the right one: the list of all sessions says which are this user's, and of these all of
/// a class that has a screen count. No other session is ever asked for: on a machine with hundreds of them
/// each of hundreds of agents would. Everything on the bus's thread.
class LogindSessions {
public:
    /// `state` must outlive this object.
    explicit LogindSessions(ScreenLockState& state);
    ~LogindSessions() = default;
    LogindSessions(const LogindSessions&) = delete;
    LogindSessions& operator=(const LogindSessions&) = delete;

    /// Starts following on `bus`, a connection to the system bus that is at least being made.
    void open(sd_bus* bus);
    /// Releases everything made from the bus; what was known of the sessions is forgotten.
    void close();
    /// Asks for the session's state; the answer goes to the ScreenLockState.
    void lookAgain(const std::string& session);

private:
    struct Question {
        LogindSessions* sessions;
        std::string session;
        SlotHandle slot;

        void answered(sd_bus_message* message);
    };
    using Questions = std::list<Question>;

    void match(SlotHandle& slot, const std::string& rule, sd_bus_message_handler_t handler);
    void ownerChanged(const std::string& owner);
    void list();
    void listed(sd_bus_message* message);
    void takeList(const std::set<std::string>& own, const std::set<std::string>& foreign);
    bool sentByLogind(sd_bus_message* message);
    void sessionNew(sd_bus_message* message);
    void sessionRemoved(sd_bus_message* message);
    void propertiesChanged(sd_bus_message* message);
    void hintChanged(const std::string& session, bool locked);
    void otherwiseChanged(const std::string& session);
    void follow(const std::string& session);
    void lookAgainAtHints();
    void takeAnswer(const Question& question, sd_bus_message* message);

    ScreenLockState& m_state;
    sd_bus* m_bus = nullptr;
    std::string m_logind;
    std::unique_ptr<BusNameOwner> m_owner;
    SlotHandle m_newMatch;
    SlotHandle m_removedMatch;
    SlotHandle m_propertiesMatch;
    SlotHandle m_list;
    Questions m_questions;
    /// What the last list said, without those that were removed since.
    std::set<std::string> m_own;
    std::set<std::string> m_foreign;
    /// Sessions that sent a signal before any list named them.
    std::set<std::string> m_unlisted;
};

}  // namespace platform
