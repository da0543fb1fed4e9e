#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "link/support/Await.h"
#include "link/support/SdBus.h"

namespace link_tests {

/// A call that passed over the bus.
struct SeenCall {
    std::string sender;
    std::string destination;
    std::string path;
    std::string member;
    std::string argument;  ///< the first argument, if it is a text
    bool answered = false;
};

/// Sees every message on a bus. Tells a test that the agent has asked what it needs to know, and has its
/// answer, so that whatever is sent from now on reaches it later.
class BusMonitor : public Pumped {
public:
    explicit BusMonitor(const std::string& address);

    const std::vector<SeenCall>& calls() const { return m_calls; }
    /// How many calls of `member` of the object `path` with this first argument were answered.
    std::size_t answered(const std::string& path, const std::string& argument,
                         const std::string& member) const;
    void pump() override;

private:
    void see(sd_bus_message* message);

    BusHandle m_bus;
    std::vector<SeenCall> m_calls;
    std::map<std::pair<std::string, std::uint64_t>, std::size_t> m_open;
};

}  // namespace link_tests
