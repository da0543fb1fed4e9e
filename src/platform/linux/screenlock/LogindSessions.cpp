#include "platform/linux/screenlock/LogindSessions.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>

#include "platform/linux/bus/BusCallback.h"
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

// The classes that logind lets be locked, systemd 257's names included. The type is left open: a compositor
// that was started from a console keeps the type "tty".
bool hasScreen(const std::string& kind) {
    static constexpr std::array<const char*, 4> kinds{"user", "user-early", "user-light", "user-light-early"};
    return std::any_of(kinds.begin(), kinds.end(), [&kind](const char* one) { return kind == one; });
}

bool isOwn(const SessionProperties& properties) {
    return *properties.user == getuid() && hasScreen(*properties.kind);
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
    m_state.sessionsForgotten();
    m_logind = owner;
    if (!m_logind.empty()) {
        sd_bus_call_method_async(m_bus, OutHandle(m_list), m_logind.c_str(), managerPath, managerInterface,
                                 "ListSessions", &busCallback<&LogindSessions::listed, LogindSessions>, this,
                                 "");
    }
}

void LogindSessions::listed(sd_bus_message* message) {
    if (sd_bus_message_is_method_error(message, nullptr) != 0 ||
        sd_bus_message_enter_container(message, 'a', "(susso)") <= 0) {
        return;
    }
    const char* path = nullptr;
    while (sd_bus_message_read(message, "(susso)", nullptr, nullptr, nullptr, nullptr, &path) > 0) {
        follow(path);
    }
}

void LogindSessions::sessionNew(sd_bus_message* message) {
    const char* path = nullptr;
    if (m_owner->sent(message) && sd_bus_message_read(message, "so", nullptr, &path) >= 0) {
        follow(path);
    }
}

void LogindSessions::sessionRemoved(sd_bus_message* message) {
    const char* path = nullptr;
    if (m_owner->sent(message) && sd_bus_message_read(message, "so", nullptr, &path) >= 0) {
        forget(path);
    }
}

void LogindSessions::propertiesChanged(sd_bus_message* message) {
    const char* interface = nullptr;
    if (!m_owner->sent(message) || sd_bus_message_read(message, "s", &interface) < 0 ||
        std::strcmp(interface, sessionInterface) != 0) {
        return;
    }
    const auto properties = readSessionProperties(message);
    if (!properties) {
        return;
    }
    const std::string session = sd_bus_message_get_path(message);
    if (properties->lockedHint) {
        // Also of a session that no list has named yet; its first read tells whose it is.
        follow(session);
        m_state.sessionChanged(session, *properties->lockedHint);
    } else if (listsLockedHint(message)) {
        m_state.sessionAppeared(session);
        ask(session);
    }
}

void LogindSessions::follow(const std::string& session) {
    if (m_state.sessionAppeared(session)) {
        ask(session);
    }
}

void LogindSessions::ask(const std::string& session) {
    m_questions.push_back({this, session, nullptr});
    Question& question = m_questions.back();
    sd_bus_call_method_async(m_bus, OutHandle(question.slot), m_logind.c_str(), session.c_str(),
                             propertiesInterface, "GetAll", &busCallback<&Question::answered, Question>,
                             &question, "s", sessionInterface);
}

void LogindSessions::Question::answered(sd_bus_message* message) {
    sessions->takeAnswer(*this, message);
}

void LogindSessions::takeAnswer(const Question& question, sd_bus_message* message) {
    const std::string session = question.session;
    m_questions.remove_if([&question](const Question& other) { return &other == &question; });
    std::optional<SessionProperties> properties;
    if (sd_bus_message_is_method_error(message, nullptr) == 0) {
        properties = readSessionProperties(message);
    }
    if (properties && properties->user && properties->kind) {
        m_state.sessionRead(session, isOwn(*properties), properties->lockedHint.value_or(false));
    } else {
        // Gone in the meantime, or not to be made out: its next signal asks again.
        forget(session);
    }
}

void LogindSessions::forget(const std::string& session) {
    m_questions.remove_if([&session](const Question& question) { return question.session == session; });
    m_state.sessionRemoved(session);
}

}  // namespace platform
