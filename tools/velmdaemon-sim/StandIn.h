#pragma once

#include <chrono>
#include <cstddef>
#include <deque>
#include <exception>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Behaviour.h"
#include "Command.h"
#include "Timeline.h"
#include "velmmonitord/XpcProtocols.h"

namespace sim {

/// An agent as the platform knows it.
struct Peer {
    std::string description;                  ///< for people: process, user
    std::string user;                         ///< the name of the user that it runs as
    std::shared_ptr<XpcAgentProtocol> agent;  ///< calls it; what cannot be sent is lost
};

/// The daemon's behaviour without its wire: knows the agents, answers them, carries out commands, and writes
/// all of it to a timeline.
///
/// An agent is told apart by its address, a text that the platform chooses. Agents are numbered from 1 in the
/// order in which they first sent `connect`; a number is not given twice.
///
/// Single-threaded: every operation, and what is given to `later`, runs on one thread or queue. Must outlive
/// the conversations that it hands out and the work that it gave to `later`.
class StandIn {
public:
    /// Runs the work once, after the time, on the same thread; what is still open when the program ends is
    /// dropped.
    using Later = std::function<void(std::chrono::milliseconds, std::function<void()>)>;
    /// Tells about the agent that sends `connect` for the first time.
    using Introduction = std::function<Peer()>;

    /// Asks for the end of the program; `why` is the error that keeps it from going on, or null if it ends as
    /// asked.
    using End = std::function<void(const std::exception_ptr& why)>;

    StandIn(Behaviour behaviour, Timeline& timeline, Later later, End end);

    /// What the calls from `address` go to. Any number may exist for one address, for one call or for many.
    /// An error inside a call, also of the introduction, asks for the end of the program.
    std::unique_ptr<XpcDaemonProtocol> conversation(std::string address, Introduction introduction);

    /// The program at `address` is gone; nothing happens if it is not an agent.
    void left(const std::string& address);

    /// The agent at `address` refused a call.
    void refused(const std::string& address, std::string_view what, std::string_view why);

    /// Takes a line of standard input and carries it out, at once or when those before it are done.
    void execute(std::string_view line);

    /// Whether every command so far could be carried out; one that still waits does not count.
    bool allDone() const { return m_allDone; }

private:
    class Conversation;
    class ToldAgent;
    struct ReceivedCall {
        std::string member;
        std::string arguments;
    };
    /// What the commands that come next wait for.
    struct Wait {
        std::function<bool()> isOver;
        std::string complaint;  ///< if it is not over in time; empty if that is as it should be
    };
    struct Agent {
        int number;
        Peer peer;
        std::chrono::steady_clock::time_point arrived;
        std::chrono::system_clock::time_point lastCall;
    };

    Party partyAt(const std::string& address) const;
    void meet(const std::string& address, const Introduction& introduction);
    void received(const std::string& address, std::string_view selector, const Values& arguments);
    void answerConnect(const std::string& address);
    void confirm(const std::string& address, bool flag);
    void carryOn();
    void carryOut(const Command& command);
    void await(std::chrono::milliseconds atMost, Wait wait);
    void lookAgain();
    void endWait(unsigned number);
    bool isHere(std::int64_t number) const;
    bool takeCall(const std::string& member, const std::string& arguments);
    void listAgents();
    void send(const Command& command);
    void complain(std::string_view why);

    Behaviour m_behaviour;
    Timeline& m_timeline;
    Later m_later;
    End m_end;
    std::map<std::string, Agent> m_agents;
    int m_lastNumber = 0;
    std::deque<std::string> m_lines;      ///< not yet carried out
    std::deque<ReceivedCall> m_received;  ///< and not yet expected
    std::optional<Wait> m_wait;
    unsigned m_waits = 0;
    bool m_ended = false;
    bool m_allDone = true;
    std::chrono::steady_clock::time_point m_started = std::chrono::steady_clock::now();
};

}  // namespace sim
