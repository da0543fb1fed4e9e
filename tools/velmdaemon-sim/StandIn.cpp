#include "StandIn.h"

#include <algorithm>
#include <cstdint>
#include <utility>
#include <vector>

#include "Text.h"

namespace sim {
namespace {

const Party& self() {
    static const Party daemon{"daemon"};
    return daemon;
}

// Only a script asks for them, and it asks soon.
constexpr std::size_t keptCalls = 1000;

std::string describeDuration(std::chrono::steady_clock::duration duration) {
    return std::to_string(std::chrono::duration_cast<std::chrono::seconds>(duration).count()) + " s";
}

std::string inMilliseconds(std::chrono::milliseconds time) {
    return std::to_string(time.count()) + " ms";
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
            return "late, after " + inMilliseconds(delay);
    }
    return "";
}

}  // namespace

// Writes each call to the timeline, and makes it.
class StandIn::ToldAgent final : public XpcAgentProtocol {
public:
    ToldAgent(Timeline& timeline, Party party, std::shared_ptr<XpcAgentProtocol> agent)
        : m_timeline(timeline), m_party(std::move(party)), m_agent(std::move(agent)) {}

    void connected(bool flag) override {
        tell("connected:", {flag});
        m_agent->connected(flag);
    }
    void putMessage(const XpcData& data) override {
        tell("putMessage:", {data});
        m_agent->putMessage(data);
    }
    void initRmmMessage(const std::string& message, const std::string& token, const std::string& subdomain,
                        const std::string& rmmUrl, const std::string& appVer) override {
        tell("initRmmMessage:token:subdomain:rmmUrl:appVer:", {message, token, subdomain, rmmUrl, appVer});
        m_agent->initRmmMessage(message, token, subdomain, rmmUrl, appVer);
    }
    void networkReachability(bool reachable) override {
        tell("networkReachability:", {reachable});
        m_agent->networkReachability(reachable);
    }
    void logLevel(std::int64_t level) override {
        tell("logLevel:", {level});
        m_agent->logLevel(level);
    }
    void rmmMessage(const XpcData& data) override {
        tell("rmmMessage:", {data});
        m_agent->rmmMessage(data);
    }
    bool respondsToSelector(std::string_view selector) const override {
        return m_agent->respondsToSelector(selector);
    }

private:
    void tell(std::string_view selector, const Values& arguments) {
        m_timeline.sent(m_party, selector, arguments);
    }

    Timeline& m_timeline;
    Party m_party;
    std::shared_ptr<XpcAgentProtocol> m_agent;
};

class StandIn::Conversation final : public XpcDaemonProtocol {
public:
    Conversation(StandIn& owner, std::string address, Introduction introduction)
        : m_owner(owner), m_address(std::move(address)), m_introduction(std::move(introduction)) {}

    void connect() noexcept override {
        attempt([this] {
            m_owner.meet(m_address, m_introduction);
            note("connect");
            m_owner.answerConnect(m_address);
        });
    }
    void pingWithReply(XpcBoolReply reply) noexcept override {
        attempt([&] {
            note("pingWithReply:");
            if (m_owner.m_behaviour.ping != Ping::Never) {
                const bool flag = m_owner.m_behaviour.ping == Ping::Yes;
                noteReply("pingWithReply:", flag);
                reply(flag);
            }
        });
    }
    void putMessage(const XpcData& data) noexcept override { onlyNote("putMessage:", data); }
    void onScreenLocked(bool locked) noexcept override { onlyNote("onScreenLocked:", locked); }
    void onTimeZoneChanged() noexcept override { onlyNote("onTimeZoneChanged"); }
    void requestForNetworkReachability() noexcept override { onlyNote("requestForNetworkReachability"); }
    void requestForInitRmm() noexcept override { onlyNote("requestForInitRmm"); }
    void requestForLogLevel(std::int32_t level) noexcept override {
        attempt([&] {
            note("requestForLogLevel:", {std::int64_t{level}});
            const auto found = m_owner.m_agents.find(m_address);
            if (found != m_owner.m_agents.end()) {
                ToldAgent(m_owner.m_timeline, m_owner.partyAt(m_address), found->second.peer.agent)
                    .logLevel(m_owner.m_behaviour.logLevel);
            }
        });
    }
    // In seconds since 1970; 0 for a caller that never sent `connect`.
    void lastCommunicationTime(XpcNumberReply reply) noexcept override {
        attempt([&] {
            const auto found = m_owner.m_agents.find(m_address);
            std::int64_t seconds = 0;
            if (found != m_owner.m_agents.end()) {
                seconds = std::chrono::system_clock::to_time_t(found->second.lastCall);
            }
            note("lastCommunicationTime:");
            answerNumber("lastCommunicationTime:", seconds, reply);
        });
    }
    void loggedUser(XpcStringReply reply) noexcept override {
        attempt([&] {
            note("loggedUser:");
            const auto found = m_owner.m_agents.find(m_address);
            const std::string user =
                found == m_owner.m_agents.end() ? std::string() : found->second.peer.user;
            noteReply("loggedUser:", user);
            reply(user);
        });
    }
    // In seconds, of this program.
    void upTime(XpcNumberReply reply) noexcept override {
        attempt([&] {
            note("upTime:");
            const auto up = std::chrono::steady_clock::now() - m_owner.m_started;
            answerNumber("upTime:", std::chrono::duration_cast<std::chrono::seconds>(up).count(), reply);
        });
    }
    void requestForRmmMonitors() noexcept override { onlyNote("requestForRmmMonitors"); }

private:
    template <typename Work>
    void attempt(const Work& work) noexcept {
        try {
            work();
        } catch (...) {
            m_owner.m_end(std::current_exception());
        }
    }
    void note(std::string_view selector, const Values& arguments = {}) {
        m_owner.received(m_address, selector, arguments);
    }
    template <typename... Argument>
    void onlyNote(std::string_view selector, const Argument&... argument) noexcept {
        attempt([&] { note(selector, {argument...}); });
    }
    void noteReply(std::string_view selector, const Value& value) {
        m_owner.m_timeline.replied(m_owner.partyAt(m_address), selector, value);
    }
    void answerNumber(std::string_view selector, std::int64_t value, const XpcNumberReply& reply) {
        noteReply(selector, value);
        reply(value);
    }

    StandIn& m_owner;
    std::string m_address;
    Introduction m_introduction;
};

StandIn::StandIn(Behaviour behaviour, Timeline& timeline, Later later, End end)
    : m_behaviour(behaviour), m_timeline(timeline), m_later(std::move(later)), m_end(std::move(end)) {}

std::unique_ptr<XpcDaemonProtocol> StandIn::conversation(std::string address, Introduction introduction) {
    return std::make_unique<Conversation>(*this, std::move(address), std::move(introduction));
}

Party StandIn::partyAt(const std::string& address) const {
    const auto found = m_agents.find(address);
    if (found == m_agents.end()) {
        return {address};
    }
    const Agent& agent = found->second;
    return {"agent " + std::to_string(agent.number), agent.number, agent.peer.user};
}

void StandIn::meet(const std::string& address, const Introduction& introduction) {
    if (m_agents.count(address) != 0) {
        return;
    }
    Peer peer = introduction();
    const std::string description = peer.description;
    const auto now = std::chrono::steady_clock::now();
    m_agents.emplace(address, Agent{++m_lastNumber, std::move(peer), now, {}});
    m_timeline.note(partyAt(address), "arrived", description);
    lookAgain();
}

void StandIn::received(const std::string& address, std::string_view selector, const Values& arguments) {
    m_timeline.received(partyAt(address), selector, arguments);
    m_received.push_back(
        {std::string(selector.substr(0, selector.find(':'))), describe(selector, arguments)});
    if (m_received.size() > keptCalls) {
        m_received.pop_front();
    }
    lookAgain();
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
        ToldAgent(m_timeline, partyAt(address), found->second.peer.agent).connected(flag);
    }
}

void StandIn::left(const std::string& address) {
    const auto found = m_agents.find(address);
    if (found == m_agents.end()) {
        return;
    }
    const auto stay = std::chrono::steady_clock::now() - found->second.arrived;
    m_timeline.note(partyAt(address), "left", "after " + describeDuration(stay));
    m_agents.erase(found);
}

void StandIn::refused(const std::string& address, std::string_view what, std::string_view why) {
    m_timeline.refused(partyAt(address), what, why);
}

void StandIn::execute(std::string_view line) {
    m_lines.emplace_back(line);
    carryOn();
}

void StandIn::carryOn() {
    while (!m_wait && !m_ended && !m_lines.empty()) {
        const Command command = parseCommand(m_lines.front());
        m_lines.pop_front();
        carryOut(command);
    }
}

void StandIn::carryOut(const Command& command) {
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
            m_timeline.note(self(), "answer", wordsFor(m_behaviour.answer, m_behaviour.delay));
            break;
        case Command::Kind::SetPing:
            m_behaviour.ping = command.ping;
            m_timeline.note(self(), "ping", wordFor(m_behaviour.ping));
            break;
        case Command::Kind::WaitAgent:
            await(m_behaviour.patience, {[this, number = *command.target] { return isHere(number); },
                                         "agent " + std::to_string(*command.target) +
                                             " did not come within " + inMilliseconds(m_behaviour.patience)});
            break;
        case Command::Kind::Expect:
            await(m_behaviour.patience,
                  {[this, command] { return takeCall(command.member, command.arguments); },
                   "no " + command.member + (command.arguments.empty() ? "" : " ") + command.arguments +
                       " came within " + inMilliseconds(m_behaviour.patience)});
            break;
        case Command::Kind::Sleep:
            await(*command.delay, {[] { return false; }, {}});
            break;
        case Command::Kind::Help:
            m_timeline.text("help", commandHelp());
            break;
        case Command::Kind::Quit:
            m_ended = true;
            m_end({});
            break;
    }
}

void StandIn::await(std::chrono::milliseconds atMost, Wait wait) {
    if (wait.isOver()) {
        return;
    }
    m_wait = std::move(wait);
    m_later(atMost, [this, number = ++m_waits] { endWait(number); });
}

// Later, so that the call which ends a wait is answered before what comes next.
void StandIn::lookAgain() {
    if (!m_wait) {
        return;
    }
    m_later(std::chrono::milliseconds(0), [this] {
        if (m_wait && m_wait->isOver()) {
            m_wait.reset();
            carryOn();
        }
    });
}

void StandIn::endWait(unsigned number) {
    if (!m_wait || m_waits != number) {
        return;
    }
    const Wait ended = *std::exchange(m_wait, std::nullopt);
    if (!ended.complaint.empty()) {
        complain(ended.complaint);
    }
    carryOn();
}

bool StandIn::isHere(std::int64_t number) const {
    return std::any_of(m_agents.begin(), m_agents.end(),
                       [number](const auto& each) { return each.second.number == number; });
}

// What came before the call goes with it, so that a script follows the calls in their order.
bool StandIn::takeCall(const std::string& member, const std::string& arguments) {
    const auto found = std::find_if(m_received.begin(), m_received.end(), [&](const ReceivedCall& call) {
        return call.member == member && (arguments.empty() || call.arguments == arguments);
    });
    if (found == m_received.end()) {
        return false;
    }
    m_received.erase(m_received.begin(), found + 1);
    return true;
}

void StandIn::listAgents() {
    if (m_agents.empty()) {
        m_timeline.note(self(), "agents", "none");
        return;
    }
    std::map<int, const Agent*> byNumber;
    for (const auto& [address, agent] : m_agents) {
        byNumber[agent.number] = &agent;
    }
    const auto now = std::chrono::steady_clock::now();
    for (const auto& [number, agent] : byNumber) {
        m_timeline.note({"agent " + std::to_string(number), number, agent->peer.user}, "here",
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
        ToldAgent told(m_timeline, partyAt(address), m_agents.find(address)->second.peer.agent);
        command.send(told);
    }
}

void StandIn::complain(std::string_view why) {
    m_allDone = false;
    m_timeline.note(self(), "not done", why);
}

}  // namespace sim
