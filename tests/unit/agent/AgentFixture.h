#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "support/CallTrace.h"
#include "support/FakePlatform.h"
#include "support/LogCapture.h"
#include "unit/agent/ClientSignals.h"

/// A test of the agent's core on the faked platform, with the log captured. What is process-wide (the logger,
/// the client's signals, the fakes) is as new for each test.
class AgentTest : public testing::Test {
public:
    AgentTest(const AgentTest&) = delete;
    AgentTest& operator=(const AgentTest&) = delete;

protected:
    AgentTest() { trace().clear(); }

    ~AgentTest() override {
        m_sigConnectedImpl.disconnect_all_slots();
        m_sigDisconnectedImpl.disconnect_all_slots();
        m_sigMsgReceivedImpl.disconnect_all_slots();
        m_sigLogLevel.disconnect_all_slots();
        fake::resetPlatform();
    }

    static fake::CallTrace& trace() { return fake::CallTrace::instance(); }

    /// What the test's own thread did, and all lines logged but those of the launcher's timer, which ticks
    /// when it wants on a slow machine.
    static std::vector<std::string> entriesWithoutTicks() {
        std::vector<std::string> entries = trace().entriesOfThisThread();
        entries.erase(std::remove(entries.begin(), entries.end(), tick), entries.end());
        return entries;
    }

    /// Adds the entry `entry` when the next slot is connected to `signal`, by the thread that connects it.
    /// (It then throws away the slots whose tracked objects are gone, and with this one what it holds.)
    template <typename Signal>
    static void noteNextSubscription(Signal& signal, const std::string& entry) {
        const std::shared_ptr<void> note(nullptr, [entry](void*) { trace().add(entry); });
        const auto tracked = std::make_shared<int>(0);
        signal.connect(typename Signal::slot_type([note](auto&&... /*arguments*/) {}).track_foreign(tracked));
    }

    inline static const std::string tick = "[TRACE] Monitor launcher: requesting connect";

private:
    fake::LogCapture m_log;
};
