#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "link/support/Await.h"
#include "link/support/SdBus.h"

namespace link_tests {

/// A method call that a peer received.
struct ReceivedCall {
    std::string sender;
    std::string path;
    std::string interface;
    std::string member;
    std::string signature;
    std::string text;  ///< the member and its arguments, as in "onScreenLocked true"
    bool expectsReply = false;
    std::chrono::steady_clock::time_point arrival;
};

/// How a call ended.
struct Reply {
    std::string error;  ///< the error's name; empty if there was none
    std::string text;   ///< the arguments of the answer

    bool ok() const { return error.empty(); }
};

/// Where a call goes.
struct BusTarget {
    std::string destination;
    std::string path;
    std::string interface;
};

inline const BusTarget busDriver{"org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus"};

/// A connection to a private bus under a chosen user, played by the test's own thread: it may say anything to
/// anyone, and keeps every call that it is sent.
class BusPeer : public Pumped {
public:
    BusPeer(const std::string& address, uid_t uid);

    const std::string& uniqueName() const { return m_uniqueName; }

    /// Asks for a name and gives the bus's answer: 1 owner, 2 in the queue, 3 exists, 4 owner already.
    std::uint32_t requestName(const std::string& name, std::uint32_t flags = 0);

    template <typename... Arguments>
    MessageHandle newCall(const BusTarget& target, const char* member, const char* types,
                          Arguments... arguments) {
        MessageHandle message = newCall(target, member);
        append(message.get(), types, arguments...);
        return message;
    }
    MessageHandle newCall(const BusTarget& target, const char* member);

    /// Calls and waits for the answer. All that was received before it is among `calls` then.
    template <typename... Arguments>
    Reply call(const BusTarget& target, const char* member, const char* types, Arguments... arguments) {
        return call(newCall(target, member, types, arguments...));
    }
    Reply call(const MessageHandle& message, std::chrono::microseconds cap = waitCap);

    /// Calls without wanting an answer. What the bus does not take at once, the next `await` sends.
    template <typename... Arguments>
    void send(const BusTarget& target, const char* member, const char* types, Arguments... arguments) {
        send(newCall(target, member, types, arguments...));
    }
    void send(const MessageHandle& message);

    /// Sends a signal: to all or, with a destination, to that connection only.
    template <typename... Arguments>
    void emit(const BusTarget& target, const char* member, const char* types, Arguments... arguments) {
        MessageHandle message = newSignal(target, member);
        append(message.get(), types, arguments...);
        send(message);
    }
    MessageHandle newSignal(const BusTarget& target, const char* member);

    /// The unique names of all connections that the process `pid` has on this bus.
    std::vector<std::string> namesOf(pid_t pid);
    bool nameHasOwner(const std::string& name);

    /// Answers every later call of `member` with one boolean. Other calls get no answer.
    void answer(const std::string& member, bool value) { m_answers[member] = value; }

    const std::vector<ReceivedCall>& calls() const { return m_calls; }

    /// Drops the connection as a dying process does. Nothing else may be asked of the peer afterwards.
    void disconnect() { m_bus.reset(); }
    bool connected() const { return m_bus != nullptr; }

    void pump() override;

private:
    int received(sd_bus_message* message, sd_bus_error* error);
    static void append(sd_bus_message* message, const char* types) {
        check(sd_bus_message_append(message, types), "append");
    }
    template <typename... Arguments>
    static void append(sd_bus_message* message, const char* types, Arguments... arguments) {
        check(sd_bus_message_append(message, types, arguments...), "append");
    }

    BusHandle m_bus;
    std::string m_uniqueName;
    std::vector<ReceivedCall> m_calls;
    std::map<std::string, bool> m_answers;
};

}  // namespace link_tests
