#include "StandIn.h"

#include <algorithm>
#include <cstdint>
#include <utility>
#include <vector>

#include "Text.h"

namespace sim {
namespace {

constexpr const char* self = "daemon";

std::string describeDuration(std::chrono::steady_clock::duration duration) {
    return std::to_string(std::chrono::duration_cast<std::chrono::seconds>(duration).count()) + " s";
}

const char* wordFor(Ping ping) {
    switch (ping) {
        case Ping::Yes:
            return "yes";
        case Ping::No:
            return "no";
        case Ping::Never:
            return "never";
    }
    return "";
}

std::string wordsFor(Answer answer, std::chrono::milliseconds delay) {
    switch (answer) {
        case Answer::Yes:
            return "yes";
        case Answer::No:
            return "no";
        case Answer::Never:
            return "never";
        case Answer::Late:
            return "late, after " + std::to_string(delay.count()) + " ms";
    }
    return "";
}

}  // namespace

// Writes each call to the timeline, and makes it.
class StandIn::ToldAgent final : public XpcAgentProtocol {
public:
    ToldAgent(Timeline& timeline, std::string name, std::shared_ptr<XpcAgentProtocol> agent)
        : m_timeline(timeline), m_name(std::move(name)), m_agent(std::move(agent)) {}

    void connected(bool flag) override {
        tell("connected", describe(flag));
        m_agent->connected(flag);
    }
    void putMessage(const XpcData& data) override {
        tell("putMessage", describe(data));
        m_agent->putMessage(data);
    }
    void initRmmMessage(const std::string& message, const std::string& token, const std::string& subdomain,
                        const std::string& rmmUrl, const std::string& appVer) override {
        tell("initRmmMessage", inQuotes(message) + " token=" + inQuotes(token) +
                                   " subdomain=" + inQuotes(subdomain) + " rmmUrl=" + inQuotes(rmmUrl) +
                                   " appVer=" + inQuotes(appVer));
        m_agent->initRmmMessage(message, token, subdomain, rmmUrl, appVer);
    }
    void networkReachability(bool reachable) override {
        tell("networkReachability", describe(reachable));
        m_agent->networkReachability(reachable);
    }
    void logLevel(std::int64_t level) override {
        tell("logLevel", std::to_string(level));
        m_agent->logLevel(level);
    }
    void rmmMessage(const XpcData& data) override {
        tell("rmmMessage", describe(data));
        m_agent->rmmMessage(data);
    }
    bool respondsToSelector(std::string_view selector) const override {
        return m_agent->respondsToSelector(selector);
    }

private:
    void tell(std::string_view what, const std::string& details) { m_timeline.sent(m_name, what, details); }

    Timeline& m_timeline;
    std::string m_name;
    std::shared_ptr<XpcAgentProtocol> m_agent;
};

class StandIn::Conversation final : public XpcDaemonProtocol {
public:
    Conversation(StandIn& owner, std::string address, Introduction introduction)
        : m_owner(owner), m_address(std::move(address)), m_introduction(std::move(introduction)) {}

    void connect() override {
        m_owner.meet(m_address, m_introduction);
        tell("connect");
        m_owner.answerConnect(m_address);
    }
    void pingWithReply(XpcBoolReply reply) override {
        tell("pingWithReply");
        if (m_owner.m_behaviour.ping != Ping::Never) {
            const bool flag = m_owner.m_behaviour.ping == Ping::Yes;
            tellReply("pingWithReply", describe(flag));
            reply(flag);
        }
    }
    void putMessage(const XpcData& data) override { tell("putMessage", describe(data)); }
    void onScreenLocked(bool locked) override { tell("onScreenLocked", describe(locked)); }
    void onTimeZoneChanged() override { tell("onTimeZoneChanged"); }
    void requestForNetworkReachability() override { tell("requestForNetworkReachability"); }
    void requestForInitRmm() override { tell("requestForInitRmm"); }
    void requestForLogLevel(std::int32_t level) override {
        tell("requestForLogLevel", std::to_string(level));
        const auto found = m_owner.m_agents.find(m_address);
        if (found != m_owner.m_agents.end()) {
            ToldAgent(m_owner.m_timeline, m_owner.nameOf(m_address), found->second.peer.agent)
                .logLevel(m_owner.m_behaviour.logLevel);
        }
    }
    // In seconds since 1970; 0 for a caller that never sent `connect`.
    void lastCommunicationTime(XpcNumberReply reply) override {
        const auto found = m_owner.m_agents.find(m_address);
        std::int64_t seconds = 0;
        if (found != m_owner.m_agents.end()) {
            seconds = std::chrono::system_clock::to_time_t(found->second.lastCall);
        }
        tell("lastCommunicationTime");
        answerNumber("lastCommunicationTime", seconds, reply);
    }
    void loggedUser(XpcStringReply reply) override {
        tell("loggedUser");
        const auto found = m_owner.m_agents.find(m_address);
        const std::string user = found == m_owner.m_agents.end() ? std::string() : found->second.peer.user;
        tellReply("loggedUser", inQuotes(user));
        reply(user);
    }
    // In seconds, of this program.
    void upTime(XpcNumberReply reply) override {
        tell("upTime");
        const auto up = std::chrono::steady_clock::now() - m_owner.m_started;
        answerNumber("upTime", std::chrono::duration_cast<std::chrono::seconds>(up).count(), reply);
    }
    void requestForRmmMonitors() override { tell("requestForRmmMonitors"); }

private:
    void tell(std::string_view what, const std::string& details = {}) {
        m_owner.received(m_address, what, details);
    }
    void tellReply(const std::string& what, const std::string& value) {
        m_owner.m_timeline.sent(m_owner.nameOf(m_address), "reply", what + " " + value);
    }
    void answerNumber(const std::string& what, std::int64_t value, const XpcNumberReply& reply) {
        tellReply(what, std::to_string(value));
        reply(value);
    }

    StandIn& m_owner;
    std::string m_address;
    Introduction m_introduction;
};

StandIn::StandIn(Behaviour behaviour, Timeline& timeline, Later later)
    : m_behaviour(behaviour), m_timeline(timeline), m_later(std::move(later)) {}

std::unique_ptr<XpcDaemonProtocol> StandIn::conversation(std::string address, Introduction introduction) {
    return std::make_unique<Conversation>(*this, std::move(address), std::move(introduction));
}

std::string StandIn::nameOf(const std::string& address) const {
    const auto found = m_agents.find(address);
    return found == m_agents.end() ? address : "agent " + std::to_string(found->second.number);
}

void StandIn::meet(const std::string& address, const Introduction& introduction) {
    if (m_agents.count(address) != 0) {
        return;
    }
    Peer peer = introduction();
    const std::string description = peer.description;
    const auto now = std::chrono::steady_clock::now();
    m_agents.emplace(address, Agent{++m_lastNumber, std::move(peer), now, {}});
    m_timeline.note(nameOf(address), "arrived", description);
}

void StandIn::received(const std::string& address, std::string_view what, std::string_view details) {
    m_timeline.received(nameOf(address), what, details);
    const auto found = m_agents.find(address);
    if (found != m_agents.end()) {
        found->second.lastCall = std::chrono::system_clock::now();
    }
}

void StandIn::answerConnect(const std::string& address) {
    switch (m_behaviour.answer) {
        case Answer::Yes:
            confirm(address, true);
            break;
        case Answer::No:
            confirm(address, false);
            break;
        case Answer::Late:
            m_later(m_behaviour.delay, [this, address] { confirm(address, true); });
            break;
        case Answer::Never:
            break;
    }
}

void StandIn::confirm(const std::string& address, bool flag) {
    const auto found = m_agents.find(address);
    if (found != m_agents.end()) {
        ToldAgent(m_timeline, nameOf(address), found->second.peer.agent).connected(flag);
    }
}

void StandIn::left(const std::string& address) {
    const auto found = m_agents.find(address);
    if (found == m_agents.end()) {
        return;
    }
    const auto stay = std::chrono::steady_clock::now() - found->second.arrived;
    m_timeline.note(nameOf(address), "left", "after " + describeDuration(stay));
    m_agents.erase(found);
}

void StandIn::refused(const std::string& address, std::string_view what, std::string_view why) {
    std::string details(what);
    m_timeline.received(nameOf(address), "refused", details.append(": ").append(why));
}

bool StandIn::execute(std::string_view line) {
    const Command command = parseCommand(line);
    switch (command.kind) {
        case Command::Kind::Nothing:
            break;
        case Command::Kind::Error:
            complain(command.error);
            break;
        case Command::Kind::Send:
            send(command);
            break;
        case Command::Kind::ListAgents:
            listAgents();
            break;
        case Command::Kind::SetAnswer:
            m_behaviour.answer = command.answer;
            m_behaviour.delay = command.delay.value_or(m_behaviour.delay);
            m_timeline.note(self, "answer", wordsFor(m_behaviour.answer, m_behaviour.delay));
            break;
        case Command::Kind::SetPing:
            m_behaviour.ping = command.ping;
            m_timeline.note(self, "ping", wordFor(m_behaviour.ping));
            break;
        case Command::Kind::Help:
            m_timeline.text(commandHelp());
            break;
        case Command::Kind::Quit:
            return false;
    }
    return true;
}

void StandIn::listAgents() {
    if (m_agents.empty()) {
        m_timeline.note(self, "agents", "none");
        return;
    }
    std::map<int, const Agent*> byNumber;
    for (const auto& [address, agent] : m_agents) {
        byNumber[agent.number] = &agent;
    }
    const auto now = std::chrono::steady_clock::now();
    for (const auto& [number, agent] : byNumber) {
        m_timeline.note("agent " + std::to_string(number), "here",
                        agent->peer.description + ", for " + describeDuration(now - agent->arrived));
    }
}

void StandIn::send(const Command& command) {
    // By number, not by address, so that agents are called in the order in which they came.
    std::map<int, std::string> wanted;
    for (const auto& [address, agent] : m_agents) {
        if (!command.target || *command.target == agent.number) {
            wanted[agent.number] = address;
        }
    }
    if (wanted.empty()) {
        complain(command.target ? "there is no agent " + std::to_string(*command.target)
                                : std::string("no agent is here"));
    }
    for (const auto& [number, address] : wanted) {
        ToldAgent told(m_timeline, nameOf(address), m_agents.find(address)->second.peer.agent);
        command.send(told);
    }
}

void StandIn::complain(std::string_view why) {
    m_timeline.note(self, "not done", why);
}

}  // namespace sim
