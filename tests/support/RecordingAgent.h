#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "velmmonitord/XpcProtocols.h"

/// An agent that writes down how it is called: "logLevel:6", "putMessage:" and the bytes. Safe on any thread.
class RecordingAgent final : public XpcAgentProtocol {
public:
    void connected(bool flag) override {
        note("connected:" + std::to_string(static_cast<int>(flag)));
        if (onConnected) {
            onConnected();
        }
    }
    void putMessage(const XpcData& data) override { note("putMessage:" + text(data)); }
    void initRmmMessage(const std::string& message, const std::string& token, const std::string& subdomain,
                        const std::string& rmmUrl, const std::string& appVer) override {
        note("initRmmMessage:" + message + "|" + token + "|" + subdomain + "|" + rmmUrl + "|" + appVer);
    }
    void networkReachability(bool reachable) override {
        note("networkReachability:" + std::to_string(static_cast<int>(reachable)));
    }
    void logLevel(std::int64_t level) override { note("logLevel:" + std::to_string(level)); }
    /// Whoever asks first does not call this.
    void rmmMessage(const XpcData& data) override { note("rmmMessage:" + text(data)); }
    /// As the agent does.
    bool respondsToSelector(std::string_view selector) const override { return selector != "rmmMessage:"; }

    std::vector<std::string> calls() const {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_calls;
    }
    /// The threads that the calls came on, one each.
    std::vector<std::thread::id> threads() const {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_threads;
    }

    std::function<void()> onConnected;  ///< runs inside the call; set before the first

private:
    static std::string text(const XpcData& data) {
        return data.length == 0 ? std::string() : std::string(data.bytes, data.length);
    }
    void note(std::string call) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_calls.push_back(std::move(call));
        m_threads.push_back(std::this_thread::get_id());
    }

    mutable std::mutex m_mutex;
    std::vector<std::string> m_calls;
    std::vector<std::thread::id> m_threads;
};
