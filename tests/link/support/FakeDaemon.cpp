#include "link/support/FakeDaemon.h"

#include <stdexcept>

#include "link/support/Await.h"

namespace link_tests {
namespace {

constexpr const char* connectMember = "connect";

}  // namespace

FakeDaemon::FakeDaemon(const std::string& busAddress, uid_t uid) : m_peer(busAddress, uid) {
    if (m_peer.requestName(daemonName, SD_BUS_NAME_ALLOW_REPLACEMENT | SD_BUS_NAME_REPLACE_EXISTING) != 1) {
        throw std::runtime_error("the daemon's name is not to be had");
    }
}

std::vector<ReceivedCall> FakeDaemon::connectCalls() const {
    std::vector<ReceivedCall> connects;
    for (const ReceivedCall& call : m_peer.calls()) {
        if (call.member == connectMember) {
            connects.push_back(call);
        }
    }
    return connects;
}

std::size_t FakeDaemon::connects() const {
    return connectCalls().size();
}

bool FakeDaemon::awaitConnects(std::size_t count) {
    return await([&] { return connects() >= count; });
}

std::string FakeDaemon::agent() const {
    const std::vector<ReceivedCall> all = connectCalls();
    return all.empty() ? "" : all.back().sender;
}

std::vector<std::string> FakeDaemon::events() const {
    std::vector<std::string> events;
    for (const ReceivedCall& call : m_peer.calls()) {
        if (call.member != connectMember) {
            events.push_back(call.text);
        }
    }
    return events;
}

bool FakeDaemon::awaitEvents(std::size_t count) {
    return await([&] { return m_peer.calls().size() - connects() >= count; });
}

}  // namespace link_tests
