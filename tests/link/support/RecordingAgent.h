#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "velmmonitord/XpcProtocols.h"

namespace link_tests {

/// Keeps what arrives, and runs what a test wants run inside a call.
class RecordingAgent : public XpcAgentProtocol {
public:
    void connected(bool flag) override {
        note(std::string("connected ") + (flag ? "1" : "0"));
        if (onConnected) {
            onConnected();
        }
    }
    void putMessage(const XpcData& data) override { note("putMessage " + std::to_string(data.length)); }
    void initRmmMessage(const std::string& message, const std::string& token, const std::string& subdomain,
                        const std::string& rmmUrl, const std::string& appVer) override {
        note("initRmmMessage " + message + token + subdomain + rmmUrl + appVer);
    }
    void networkReachability(bool reachable) override {
        note(std::string("networkReachability ") + (reachable ? "1" : "0"));
    }
    void logLevel(std::int64_t level) override { note("logLevel " + std::to_string(level)); }
    bool respondsToSelector(std::string_view selector) const override { return selector != "rmmMessage:"; }

    std::vector<std::string> calls() const {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_calls;
    }
    std::vector<std::thread::id> threads() const {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_threads;
    }

    std::function<void()> onConnected;  ///< set before the connection is resumed

private:
    void note(std::string call) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_calls.push_back(std::move(call));
        m_threads.push_back(std::this_thread::get_id());
    }

    mutable std::mutex m_mutex;
    std::vector<std::string> m_calls;
    std::vector<std::thread::id> m_threads;
};

struct Losses {
    std::atomic<int> interruptions{0};
    std::atomic<int> invalidations{0};
    int all() const { return interruptions + invalidations; }
};

}  // namespace link_tests
