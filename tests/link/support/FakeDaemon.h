#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "link/support/BusPeer.h"

namespace link_tests {

inline constexpr const char* daemonName = "com.brovik.velmdaemon";
inline constexpr const char* agentInterface = "com.brovik.XpcAgentProtocol";
inline constexpr const char* agentPath = "/com/brovik/velmmonitord";

/// A management daemon that does only what the test tells it to: it answers no `connect` by itself.
class FakeDaemon {
public:
    /// Connects as `uid` and owns the service name, replacing an owner that allows it. Others may replace it.
    explicit FakeDaemon(const std::string& busAddress, uid_t uid = 0);

    BusPeer& peer() { return m_peer; }

    /// Waits until the agent has sent `count` `connect` in all.
    bool awaitConnects(std::size_t count);
    std::size_t connects() const;
    std::vector<ReceivedCall> connectCalls() const;
    /// The unique name that the last `connect` came from; empty before the first.
    std::string agent() const;
    /// Every other call, in order, as text.
    std::vector<std::string> events() const;
    /// Waits until there are `count` events.
    bool awaitEvents(std::size_t count);

    /// Calls the agent that connected last and waits for the answer.
    template <typename... Arguments>
    Reply call(const char* member, const char* types, Arguments... arguments) {
        return m_peer.call(agentTarget(), member, types, arguments...);
    }
    /// Calls it without wanting an answer.
    template <typename... Arguments>
    void send(const char* member, const char* types, Arguments... arguments) {
        m_peer.send(agentTarget(), member, types, arguments...);
    }
    BusTarget agentTarget() const { return {agent(), agentPath, agentInterface}; }

    /// Answers `connect`.
    Reply confirm(bool flag = true) { return call("connected", "b", static_cast<int>(flag)); }

    /// Dies.
    void crash() { m_peer.disconnect(); }

private:
    BusPeer m_peer;
};

}  // namespace link_tests
