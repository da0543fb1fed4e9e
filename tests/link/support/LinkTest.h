#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>

#include "link/support/AgentProcess.h"
#include "link/support/BusMonitor.h"
#include "link/support/FakeDaemon.h"
#include "link/support/Intruder.h"
#include "link/support/MockLogind.h"
#include "link/support/PrivateBus.h"
#include "link/support/PrivateMachine.h"

namespace link_tests {

// Three users who are neither root nor each other; every Linux has them.
inline constexpr uid_t agentUser = 1;
inline constexpr uid_t otherUser = 5;
inline constexpr uid_t intruderUser = 65534;

/// What FakeDaemon::events() has of a lock and of an unlock.
inline const Messages daemonSawLock{"onScreenLocked true"};
inline const Messages daemonSawUnlock{"onScreenLocked false"};

/// Fails the test, with the reason, unless root runs it: before anything of the stage is built.
class RootOnly {
public:
    RootOnly();
};

/// The stage of every test: a machine and a system bus of its own, and the real agent on them once it is
/// started. On failure the agent's log is shown.
class LinkTest : public ::testing::Test {
protected:
    LinkTest();
    void TearDown() override;

    /// Starts the agent without waiting for anything.
    void startAgent();
    /// Starts the system bus with someone watching it, and logind with one session "31" of the agent's user.
    void startSystem();
    /// Starts a daemon and the agent, and brings their link up.
    void startLinked();
    /// Waits for the next `connect` and confirms it; true once the agent has taken note.
    bool confirmLink(FakeDaemon& toConfirm);
    /// Waits until the agent has asked nobody for a link any more for longer than its interval.
    bool awaitEndOfTicks();
    /// Waits until the agent has read the session's state at least `times` times.
    bool awaitSessionRead(const std::string& id, std::size_t times = 1);
    /// No more losses are in the log than fit into the time since `start`, which was before the first, if
    /// they are a second apart. Their lines may be closer: each is written some time after its report.
    void expectLossesASecondApart(const char* loss, std::chrono::steady_clock::time_point start);
    std::size_t sessionReads(const std::string& id) const;

    static constexpr const char* ownSession = "31";

    RootOnly rootOnly;
    PrivateMachine machine{agentUser};
    PrivateBus bus;
    AgentOptions options;
    std::unique_ptr<BusMonitor> monitor;
    std::unique_ptr<MockLogind> logind;
    std::unique_ptr<FakeDaemon> daemon;
    std::unique_ptr<AgentProcess> agent;
};

}  // namespace link_tests
