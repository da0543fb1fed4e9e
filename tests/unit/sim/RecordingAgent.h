#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "velmmonitord/XpcProtocols.h"

/// An agent that writes down how it is called.
class RecordingAgent final : public XpcAgentProtocol {
public:
    std::vector<std::string> calls;

    void connected(bool flag) override { calls.push_back("connected:" + std::to_string(flag)); }
    void putMessage(const XpcData& data) override { calls.push_back("putMessage:" + text(data)); }
    void initRmmMessage(const std::string& message, const std::string& token, const std::string& subdomain,
                        const std::string& rmmUrl, const std::string& appVer) override {
        calls.push_back("initRmmMessage:" + message + "|" + token + "|" + subdomain + "|" + rmmUrl + "|" +
                        appVer);
    }
    void networkReachability(bool reachable) override {
        calls.push_back("networkReachability:" + std::to_string(reachable));
    }
    void logLevel(std::int64_t level) override { calls.push_back("logLevel:" + std::to_string(level)); }
    void rmmMessage(const XpcData& data) override { calls.push_back("rmmMessage:" + text(data)); }
    bool respondsToSelector(std::string_view /*selector*/) const override { return true; }

private:
    static std::string text(const XpcData& data) {
        return data.length == 0 ? std::string() : std::string(data.bytes, data.length);
    }
};
