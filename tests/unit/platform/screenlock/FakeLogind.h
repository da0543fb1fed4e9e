#pragma once

#include <sys/types.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "platform/linux/bus/BusHandles.h"
#include "platform/linux/runloop/EventHandles.h"

/// One session of a FakeLogind.
struct FakeSession {
    uid_t user = 0;
    std::string kind = "user";
    bool locked = false;
    std::string state = "active";
    bool remote = false;
};

/// A login manager with as much on the bus as the agent uses of it, and misbehaving on request. Lives on the
/// loop of the one that asks, so that a test decides what happens in which order.
class FakeLogind {
public:
    /// Connects to the bus at `address` and takes the name there.
    FakeLogind(sd_event* loop, const std::string& address);
    ~FakeLogind() = default;
    FakeLogind(const FakeLogind&) = delete;
    FakeLogind& operator=(const FakeLogind&) = delete;

    static std::string path(const std::string& session) {
        return "/org/freedesktop/login1/session/" + session;
    }

    /// A session that exists without having been announced.
    void have(const std::string& session, const FakeSession& value) { m_sessions[session] = value; }
    /// A session that begins.
    void add(const std::string& session, const FakeSession& value);
    /// A session that ends.
    void remove(const std::string& session);
    /// Sets the hint as a locker does: announced only if it changes.
    void setHint(const std::string& session, bool locked);
    /// Sets the hint and announces only that it is no longer what it was.
    void invalidateHint(const std::string& session, bool locked);
    /// The session ends but stays while one of its processes lives; nobody is told.
    void close(const std::string& session) { m_sessions.at(session).state = "closing"; }
    /// Gives the session another class, announced only as no longer what it was.
    void setClass(const std::string& session, const std::string& kind);
    /// Lets go of the name but stays on the bus.
    void releaseName();

    /// From here on calls wait for an answer until `answerHeld`.
    void holdAnswers() { m_holding = m_holdingLists = true; }
    /// The same for all but the list of sessions.
    void holdSessionAnswers() { m_holding = true; }
    void answerHeld();
    /// The next question of all is never answered, as when the bus drops the answer.
    void swallowQuestion() { m_swallows = true; }
    /// The next question for the list of sessions is refused, as one too many at a time is.
    void refuseList() { m_refusesList = true; }
    /// What is asked from here on of a session's properties is answered with this instead.
    void answerWith(std::function<void(sd_bus_message* reply)> fill) { m_fill = std::move(fill); }

    /// The hint of a session.
    bool isLocked(const std::string& session) const { return m_sessions.at(session).locked; }
    /// What lockers have set hints to, in order.
    const std::vector<bool>& hintsSet() const { return m_hintsSet; }
    void forgetHintsSet() { m_hintsSet.clear(); }
    int listsAsked() const { return m_listsAsked; }
    int sessionsAsked() const { return static_cast<int>(m_sessionsAsked.size()); }
    /// The sessions that were asked for, in order.
    const std::vector<std::string>& askedFor() const { return m_sessionsAsked; }
    int held() const { return static_cast<int>(m_held.size()); }
    /// The unique name of the one that asks.
    const std::string& asker() const { return m_asker; }
    sd_bus* bus() const { return m_bus.get(); }

private:
    int called(sd_bus_message* call, sd_bus_error* error);
    bool answerLocker(sd_bus_message* call);
    void answer(sd_bus_message* call);
    void answerList(sd_bus_message* call);
    void answerSession(sd_bus_message* call);

    platform::BusHandle m_bus;
    platform::SlotHandle m_filter;
    std::map<std::string, FakeSession> m_sessions;
    std::vector<platform::MessageHandle> m_held;
    std::function<void(sd_bus_message*)> m_fill;
    std::string m_asker;
    std::vector<bool> m_hintsSet;
    std::vector<std::string> m_sessionsAsked;
    bool m_holding = false;
    bool m_holdingLists = false;
    bool m_refusesList = false;
    bool m_swallows = false;
    int m_listsAsked = 0;
};

/// A connection to the bus at `address`, already set up.
platform::BusHandle connectTo(const std::string& address);
