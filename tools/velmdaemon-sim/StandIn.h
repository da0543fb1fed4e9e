#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <memory>
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

    StandIn(Behaviour behaviour, Timeline& timeline, Later later);

    /// What the calls from `address` go to. Any number may exist for one address, for one call or for many.
    std::unique_ptr<XpcDaemonProtocol> conversation(std::string address, Introduction introduction);

    /// The program at `address` is gone; nothing happens if it is not an agent.
    void left(const std::string& address);

    /// The agent at `address` refused a call.
    void refused(const std::string& address, std::string_view what, std::string_view why);

    /// Carries out a line of standard input. False if it asks for the end of the program.
    bool execute(std::string_view line);

private:
    class Conversation;
    class ToldAgent;
    struct Agent {
        int number;
        Peer peer;
        std::chrono::steady_clock::time_point arrived;
        std::chrono::system_clock::time_point lastCall;
    };

    std::string nameOf(const std::string& address) const;
    void meet(const std::string& address, const Introduction& introduction);
    void received(const std::string& address, std::string_view what, std::string_view details);
    void answerConnect(const std::string& address);
    void confirm(const std::string& address, bool flag);
    void listAgents();
    void send(const Command& command);
    void complain(std::string_view why);

    Behaviour m_behaviour;
    Timeline& m_timeline;
    Later m_later;
    std::map<std::string, Agent> m_agents;
    int m_lastNumber = 0;
    std::chrono::steady_clock::time_point m_started = std::chrono::steady_clock::now();
};

}  // namespace sim
