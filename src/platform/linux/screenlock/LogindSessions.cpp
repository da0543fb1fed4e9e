#include "platform/linux/screenlock/LogindSessions.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <optional>
#include <utility>

#include "platform/linux/bus/BusCallback.h"
#include "platform/linux/bus/BusQuestion.h"
#include "platform/linux/process/OutHandle.h"
#include "platform/linux/screenlock/SessionProperties.h"

namespace platform {
namespace {

constexpr const char* service = "org.freedesktop.login1";
constexpr const char* managerPath = "/org/freedesktop/login1";
constexpr const char* managerInterface = "org.freedesktop.login1.Manager";
constexpr const char* sessionInterface = "org.freedesktop.login1.Session";
constexpr const char* propertiesInterface = "org.freedesktop.DBus.Properties";

std::string managerRule(const char* member) {
    return std::string("type='signal',sender='") + service + "',path='" + managerPath + "',interface='" +
           managerInterface + "',member='" + member + "'";
}

std::string propertiesRule() {
    return std::string("type='signal',sender='") + service + "',path_namespace='" + managerPath +
           "/session',interface='" + propertiesInterface + "',member='PropertiesChanged',arg0='" +
           sessionInterface + "'";
}

// The classes that logind lets be locked (SESSION_CLASS_CAN_LOCK of systemd 257). The type is left open: a
// compositor that was started from a console keeps the type "tty".
bool canBeLocked(const std::string& kind) {
    static constexpr std::array<const char*, 4> kinds{"user", "user-early", "user-light", "user-early-light"};
    return std::any_of(kinds.begin(), kinds.end(), [&kind](const char* one) { return kind == one; });
}

bool counts(const SessionProperties& properties) {
    return properties.user == getuid() && properties.kind && canBeLocked(*properties.kind);
}

// Of remote sessions only those of a remote desktop. A local one of the type "tty" may be one that a desktop
// was started from.
bool hasScreen(const SessionProperties& properties) {
    const std::string type = properties.type.value_or("");
    return type == "x11" || type == "wayland" || type == "mir" || !properties.remote.value_or(false);
}

}  // namespace

LogindSessions::LogindSessions(ScreenLockState& state) : m_state(state) {}

void LogindSessions::open(sd_bus* bus) {
    m_bus = bus;
    match(m_newMatch, managerRule("SessionNew"), &busCallback<&LogindSessions::sessionNew, LogindSessions>);
    match(m_removedMatch, managerRule("SessionRemoved"),
          &busCallback<&LogindSessions::sessionRemoved, LogindSessions>);
    match(m_propertiesMatch, propertiesRule(),
          &busCallback<&LogindSessions::propertiesChanged, LogindSessions>);
    m_owner = std::make_unique<BusNameOwner>(bus, service,
                                             [this](const std::string& owner) { ownerChanged(owner); });
}

void LogindSessions::close() {
    ownerChanged(std::string());
    m_newMatch.reset();
    m_removedMatch.reset();
    m_propertiesMatch.reset();
    m_owner.reset();
    m_bus = nullptr;
}

void LogindSessions::match(SlotHandle& slot, const std::string& rule, sd_bus_message_handler_t handler) {
    sd_bus_add_match_async(m_bus, OutHandle(slot), rule.c_str(), handler, nullptr, this);
}

// A new logind knows nothing of the hints that the old one was given, and answers of the old one are void.
void LogindSessions::ownerChanged(const std::string& owner) {
    m_list.reset();
    m_questions.clear();
    m_own.clear();
    m_foreign.clear();
    m_unlisted.clear();
    m_logind = owner;
    m_state.sessionsForgotten();
    if (!m_logind.empty()) {
        list();
    }
}

// An answer that is still to come comes from after whatever was told before it.
void LogindSessions::list() {
    if (!m_list) {
        askService(m_bus, m_list, {m_logind.c_str(), managerPath, managerInterface, "ListSessions"}, nullptr,
                   &busCallback<&LogindSessions::listed, LogindSessions>, this);
    }
}

void LogindSessions::listed(sd_bus_message* message) {
    m_list.reset();
    if (isUnanswered(message)) {
        list();
        return;
    }
    std::set<std::string> own;
    std::set<std::string> foreign;
    if (sd_bus_message_is_method_error(message, nullptr) == 0 &&
        sd_bus_message_enter_container(message, 'a', "(susso)") > 0) {
        std::uint32_t user = 0;
        const char* path = nullptr;
        while (sd_bus_message_read(message, "(susso)", nullptr, &user, nullptr, nullptr, &path) > 0) {
            (user == getuid() ? own : foreign).insert(path);
        }
        takeList(own, foreign);
    }
}

void LogindSessions::takeList(const std::set<std::string>& own, const std::set<std::string>& foreign) {
    const std::set<std::string> known = std::exchange(m_own, own);
    m_foreign = foreign;
    for (const std::string& session : std::exchange(m_unlisted, {})) {
        if (own.count(session) == 0) {
            m_state.sessionRemoved(session);
        } else {
            lookAgain(session);
        }
    }
    for (const std::string& session : own) {
        if (known.count(session) == 0) {
            follow(session);
        }
    }
}

// A stranger may be a logind that the bus did not tell us of.
bool LogindSessions::sentByLogind(sd_bus_message* message) {
    const bool sent = m_owner->sent(message);
    if (!sent) {
        m_owner->ask();
    }
    return sent;
}

void LogindSessions::sessionNew(sd_bus_message* message) {
    if (sentByLogind(message)) {
        list();
        lookAgainAtHints();
    }
}

void LogindSessions::sessionRemoved(sd_bus_message* message) {
    const char* path = nullptr;
    if (sentByLogind(message) && sd_bus_message_read(message, "so", nullptr, &path) >= 0) {
        const std::string session = path;
        m_own.erase(session);
        m_foreign.erase(session);
        m_unlisted.erase(session);
        m_questions.remove_if([&session](const Question& question) { return question.session == session; });
        m_state.sessionRemoved(session);
        lookAgainAtHints();
    }
}

// A session that is only closing keeps its hint, and no signal says that it closes.
void LogindSessions::lookAgainAtHints() {
    for (const std::string& session : m_state.sessionsWithHint()) {
        lookAgain(session);
    }
}

void LogindSessions::propertiesChanged(sd_bus_message* message) {
    const char* interface = nullptr;
    if (!sentByLogind(message) || sd_bus_message_read(message, "s", &interface) < 0 ||
        std::strcmp(interface, sessionInterface) != 0) {
        return;
    }
    const std::string session = sd_bus_message_get_path(message);
    const auto properties = readSessionProperties(message);
    if (!properties || m_foreign.count(session) > 0) {
        return;
    }
    if (properties->lockedHint) {
        hintChanged(session, *properties->lockedHint);
    }
    // Another class may let the session be locked.
    if (properties->kind || properties->state || listsWhatMatters(message)) {
        otherwiseChanged(session);
    }
}

void LogindSessions::hintChanged(const std::string& session, bool locked) {
    if (m_own.count(session) > 0) {
        follow(session);
    } else {
        m_state.sessionAppeared(session);
        m_unlisted.insert(session);
        list();
    }
    m_state.sessionChanged(session, locked);
}

void LogindSessions::otherwiseChanged(const std::string& session) {
    if (m_own.count(session) > 0) {
        m_state.sessionAppeared(session);
        lookAgain(session);
    } else {
        list();
    }
}

void LogindSessions::follow(const std::string& session) {
    if (m_state.sessionAppeared(session)) {
        lookAgain(session);
    }
}

void LogindSessions::lookAgain(const std::string& session) {
    const bool asked = std::any_of(m_questions.begin(), m_questions.end(),
                                   [&session](const Question& other) { return other.session == session; });
    if (asked) {
        return;
    }
    m_questions.push_back({this, session, nullptr});
    Question& question = m_questions.back();
    askService(m_bus, question.slot, {m_logind.c_str(), session.c_str(), propertiesInterface, "GetAll"},
               sessionInterface, &busCallback<&Question::answered, Question>, &question);
}

void LogindSessions::Question::answered(sd_bus_message* message) {
    sessions->takeAnswer(*this, message);
}

void LogindSessions::takeAnswer(const Question& question, sd_bus_message* message) {
    const std::string session = question.session;
    m_questions.remove_if([&question](const Question& other) { return &other == &question; });
    if (isUnanswered(message)) {
        lookAgain(session);
        return;
    }
    std::optional<SessionProperties> properties;
    if (sd_bus_message_is_method_error(message, nullptr) == 0) {
        properties = readSessionProperties(message);
    }
    if (properties && counts(*properties)) {
        m_state.sessionRead(session, {properties->state != "closing", properties->lockedHint.value_or(false),
                                      hasScreen(*properties)});
    } else {
        // Gone in the meantime, not to be made out, or of a class without a screen: its next signal asks
        // again.
        m_state.sessionRemoved(session);
    }
}

}  // namespace platform
