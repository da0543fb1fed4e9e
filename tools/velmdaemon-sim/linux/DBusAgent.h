#pragma once

#include <cstdint>
#include <functional>
#include <list>
#include <string>

#include "linux/Handles.h"
#include "velmmonitord/XpcProtocols.h"

namespace sim {

/// Calls one agent over the bus, at its unique name, so that a successor never gets what was meant for it.
/// Nothing waits for the agent; large messages leave while the event loop runs. Single-threaded, as its bus
/// is.
class DBusAgent final : public XpcAgentProtocol {
public:
    /// Told about a call that could not be sent or, for `rmmMessage:`, that the agent refused.
    using Refused = std::function<void(const std::string& member, const std::string& why)>;

    /// `bus` must outlive this object.
    DBusAgent(sd_bus* bus, std::string uniqueName, Refused refused);

    void connected(bool flag) override;
    void putMessage(const XpcData& data) override;
    void initRmmMessage(const std::string& message, const std::string& token, const std::string& subdomain,
                        const std::string& rmmUrl, const std::string& appVer) override;
    void networkReachability(bool reachable) override;
    void logLevel(std::int64_t level) override;
    /// Asks for a reply, to show how an agent refuses a method that it does not implement.
    void rmmMessage(const XpcData& data) override;
    /// True: what the other side implements shows only when it is called.
    bool respondsToSelector(std::string_view selector) const override;

private:
    MessageHandle newCall(const char* member);
    void send(const MessageHandle& call, int appended);
    void reportError(const char* member, int error);
    void replied(sd_bus_message* reply);

    sd_bus* m_bus;
    std::string m_uniqueName;
    Refused m_refused;
    std::list<SlotHandle> m_pending;
};

}  // namespace sim
