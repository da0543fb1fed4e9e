#include "unit/platform/screenlock/FakeLogind.h"

#include <stdexcept>
#include <utility>

#include "platform/linux/bus/BusCallback.h"
#include "platform/linux/process/OutHandle.h"

namespace {

constexpr const char* service = "org.freedesktop.login1";
constexpr const char* managerPath = "/org/freedesktop/login1";
constexpr const char* managerInterface = "org.freedesktop.login1.Manager";
constexpr const char* sessionInterface = "org.freedesktop.login1.Session";
constexpr const char* propertiesInterface = "org.freedesktop.DBus.Properties";

void check(int result, const char* what) {
    if (result < 0) {
        throw std::runtime_error(what);
    }
}

std::string calledSession(sd_bus_message* call) {
    const std::string path = sd_bus_message_get_path(call);
    return path.substr(path.rfind('/') + 1);
}

}  // namespace

platform::BusHandle connectTo(const std::string& address) {
    platform::BusHandle bus;
    check(sd_bus_new(platform::OutHandle(bus)), "new");
    check(sd_bus_set_address(bus.get(), address.c_str()), "address");
    check(sd_bus_set_bus_client(bus.get(), 1), "client");
    check(sd_bus_start(bus.get()), "start");
    const char* name = nullptr;
    check(sd_bus_get_unique_name(bus.get(), &name), "connect");
    return bus;
}

FakeLogind::FakeLogind(sd_event* loop, const std::string& address) : m_bus(connectTo(address)) {
    check(sd_bus_add_filter(m_bus.get(), platform::OutHandle(m_filter),
                            platform::busCallback<&FakeLogind::called, FakeLogind>, this),
          "filter");
    check(sd_bus_request_name(m_bus.get(), service, 0), "name");
    check(sd_bus_attach_event(m_bus.get(), loop, SD_EVENT_PRIORITY_NORMAL), "attach");
}

void FakeLogind::add(const std::string& session, const FakeSession& value) {
    have(session, value);
    sd_bus_emit_signal(m_bus.get(), managerPath, managerInterface, "SessionNew", "so", session.c_str(),
                       path(session).c_str());
}

void FakeLogind::remove(const std::string& session) {
    m_sessions.erase(session);
    sd_bus_emit_signal(m_bus.get(), managerPath, managerInterface, "SessionRemoved", "so", session.c_str(),
                       path(session).c_str());
}

void FakeLogind::setHint(const std::string& session, bool locked) {
    if (std::exchange(m_sessions.at(session).locked, locked) != locked) {
        sd_bus_emit_signal(m_bus.get(), path(session).c_str(), propertiesInterface, "PropertiesChanged",
                           "sa{sv}as", sessionInterface, 2, "IdleHint", "b", 0, "LockedHint", "b",
                           static_cast<int>(locked), 0);
    }
}

void FakeLogind::invalidateHint(const std::string& session, bool locked) {
    m_sessions.at(session).locked = locked;
    sd_bus_emit_signal(m_bus.get(), path(session).c_str(), propertiesInterface, "PropertiesChanged",
                       "sa{sv}as", sessionInterface, 0, 2, "IdleHint", "LockedHint");
}

void FakeLogind::setClass(const std::string& session, const std::string& kind) {
    m_sessions.at(session).kind = kind;
    sd_bus_emit_signal(m_bus.get(), path(session).c_str(), propertiesInterface, "PropertiesChanged",
                       "sa{sv}as", sessionInterface, 0, 1, "Class");
}

void FakeLogind::releaseName() {
    check(sd_bus_release_name(m_bus.get(), service), "release");
}

void FakeLogind::answerHeld() {
    m_holding = m_holdingLists = false;
    for (const platform::MessageHandle& call : std::exchange(m_held, {})) {
        answer(call.get());
    }
}

int FakeLogind::called(sd_bus_message* call, sd_bus_error* /*error*/) {
    if (sd_bus_message_is_method_call(call, nullptr, nullptr) <= 0) {
        return 0;
    }
    if (answerLocker(call)) {
        return 1;
    }
    m_asker = sd_bus_message_get_sender(call);
    const bool asksForList = sd_bus_message_is_method_call(call, managerInterface, "ListSessions") > 0;
    if (asksForList) {
        ++m_listsAsked;
    } else {
        m_sessionsAsked.push_back(calledSession(call));
    }
    if (std::exchange(m_swallows, false)) {
        return 1;
    }
    if (asksForList ? m_holdingLists : m_holding) {
        m_held.emplace_back(sd_bus_message_ref(call));
    } else {
        answer(call);
    }
    return 1;
}

bool FakeLogind::answerLocker(sd_bus_message* call) {
    if (m_sessions.empty()) {
        return false;
    }
    const std::string first = m_sessions.begin()->first;
    if (sd_bus_message_is_method_call(call, managerInterface, "GetSession") > 0) {
        return sd_bus_reply_method_return(call, "o", path(first).c_str()) >= 0;
    }
    if (sd_bus_message_is_method_call(call, propertiesInterface, "Get") > 0) {
        return sd_bus_reply_method_return(call, "v", "b", static_cast<int>(isLocked(first))) >= 0;
    }
    if (sd_bus_message_is_method_call(call, sessionInterface, "SetLockedHint") > 0) {
        int locked = 0;
        sd_bus_message_read(call, "b", &locked);
        m_hintsSet.push_back(locked != 0);
        setHint(first, locked != 0);
        return sd_bus_reply_method_return(call, "") >= 0;
    }
    return false;
}

void FakeLogind::answer(sd_bus_message* call) {
    if (sd_bus_message_is_method_call(call, managerInterface, "ListSessions") > 0) {
        answerList(call);
    } else {
        answerSession(call);
    }
}

void FakeLogind::answerList(sd_bus_message* call) {
    if (std::exchange(m_refusesList, false)) {
        sd_bus_reply_method_errorf(call, SD_BUS_ERROR_LIMITS_EXCEEDED, "too many questions");
        return;
    }
    platform::MessageHandle reply;
    sd_bus_message_new_method_return(call, platform::OutHandle(reply));
    sd_bus_message_open_container(reply.get(), 'a', "(susso)");
    for (const auto& [name, session] : m_sessions) {
        sd_bus_message_append(reply.get(), "(susso)", name.c_str(), session.user, "somebody", "seat0",
                              path(name).c_str());
    }
    sd_bus_message_close_container(reply.get());
    sd_bus_send(m_bus.get(), reply.get(), nullptr);
}

void FakeLogind::answerSession(sd_bus_message* call) {
    const auto found = m_sessions.find(calledSession(call));
    if (found == m_sessions.end()) {
        sd_bus_reply_method_errorf(call, SD_BUS_ERROR_UNKNOWN_OBJECT, "no such session");
        return;
    }
    platform::MessageHandle reply;
    sd_bus_message_new_method_return(call, platform::OutHandle(reply));
    if (m_fill) {
        m_fill(reply.get());
    } else {
        const FakeSession& session = found->second;
        sd_bus_message_append(reply.get(), "a{sv}", 7, "Id", "s", found->first.c_str(), "User", "(uo)",
                              session.user, "/org/freedesktop/login1/user/_0", "Type", "s", "tty", "State",
                              "s", session.state.c_str(), "Remote", "b", static_cast<int>(session.remote),
                              "Class", "s", session.kind.c_str(), "LockedHint", "b",
                              static_cast<int>(session.locked));
    }
    sd_bus_send(m_bus.get(), reply.get(), nullptr);
}
