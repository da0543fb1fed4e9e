#include "link/support/LinkTest.h"

#include <unistd.h>

#include <chrono>
#include <iostream>
#include <stdexcept>
#include <utility>

#include "link/support/Await.h"

namespace link_tests {
namespace {

void show(const char* title, AgentLog& log) {
    std::cout << "--- " << title << "\n";
    const std::vector<std::string>& lines = log.rawLines();
    constexpr std::size_t shown = 200;
    for (std::size_t index = lines.size() > shown ? lines.size() - shown : 0; index < lines.size(); ++index) {
        std::cout << lines[index] << "\n";
    }
}

}  // namespace

RootOnly::RootOnly() {
    if (::geteuid() != 0) {
        throw std::runtime_error(
            "the link tests play several users and mount over /etc for the agent: run "
            "them as root");
    }
}

LinkTest::LinkTest() {
    options.user = agentUser;
    options.systemBus = bus.address();
}

void LinkTest::TearDown() {
    if (HasFailure() && agent) {
        show("the agent's log", agent->log());
        show("the agent's standard error", agent->errors());
    }
}

void LinkTest::startAgent() {
    agent = std::make_unique<AgentProcess>(machine, options);
}

void LinkTest::startSystem() {
    bus.start();
    monitor = std::make_unique<BusMonitor>(bus.address());
    logind = std::make_unique<MockLogind>(bus);
    logind->addSession(ownSession, agentUser);
    // An agent that runs already may have asked before there was one.
    logind->announce(ownSession);
}

void LinkTest::startLinked() {
    daemon = std::make_unique<FakeDaemon>(bus.address());
    startAgent();
    if (!confirmLink(*daemon)) {
        throw std::runtime_error("the link does not come up");
    }
}

bool LinkTest::confirmLink(FakeDaemon& toConfirm) {
    const std::size_t known = agent->log().count(message::connected);
    return toConfirm.awaitConnects(toConfirm.connects() + 1) && toConfirm.confirm().ok() &&
           agent->log().awaitCount(message::connected, known + 1);
}

bool LinkTest::awaitEndOfTicks() {
    using Clock = std::chrono::steady_clock;
    std::size_t ticks = 0;
    auto since = Clock::now();
    return await([&] {
        const std::size_t now = agent->log().count(message::tick);
        if (std::exchange(ticks, now) != now) {
            since = Clock::now();
        }
        return Clock::now() - since > std::chrono::milliseconds(1500);
    });
}

bool LinkTest::awaitSessionRead(const std::string& id, std::size_t times) {
    return await([&] { return sessionReads(id) >= times; });
}

void LinkTest::expectLossesASecondApart(const char* loss, std::chrono::steady_clock::time_point start) {
    const std::size_t losses = agent->log().count(loss);
    const std::chrono::duration<double> span = std::chrono::steady_clock::now() - start;
    EXPECT_LE(static_cast<double>(losses), span.count() + 1.0);
}

std::size_t LinkTest::sessionReads(const std::string& id) const {
    return monitor->answered(MockLogind::pathOf(id), "org.freedesktop.login1.Session", "GetAll");
}

}  // namespace link_tests
