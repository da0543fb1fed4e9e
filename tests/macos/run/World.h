#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Peer.h"
#include "doubles/World.h"
#include "platform/XpcConnection.h"

using Clock = std::chrono::steady_clock;

/// What the adapters did, in its order. Any thread.
class Record {
public:
    struct Entry {
        std::string what;
        Clock::time_point when;
        std::thread::id where;
    };

    void add(std::string what);
    std::vector<Entry> entries() const;
    std::vector<std::string> lines() const;
    /// Those that begin so.
    std::vector<Entry> of(const std::string& beginning) const;

private:
    mutable std::mutex m_mutex;
    std::vector<Entry> m_entries;
};

/// Stands for the client: writes what the daemon calls into the record, and whether two calls overlap.
class Client : public XpcAgentProtocol {
public:
    explicit Client(Record& record) : m_record(&record) {}

    void connected(bool flag) override;
    void putMessage(const XpcData& data) override;
    void initRmmMessage(const std::string& message, const std::string& token, const std::string& subdomain,
                        const std::string& rmmUrl, const std::string& appVer) override;
    void networkReachability(bool reachable) override;
    void logLevel(std::int64_t level) override;
    void rmmMessage(const XpcData& data) override;
    bool respondsToSelector(std::string_view selector) const override;

private:
    Record* m_record;
};

/// Each test has a world of its own: a place for services, a peer that serves, a record. At its end nothing
/// of the doubles may be left.
class WorldTest : public testing::Test {
protected:
    WorldTest();
    ~WorldTest() override;

    /// A connection set up as the client does it, whose losses go to the record as "interruption",
    /// "invalidation".
    std::shared_ptr<platform::IXpcConnection> connection();
    /// That, resumed, and with a first message that the peer has read.
    std::shared_ptr<platform::IXpcConnection> linked();
    /// How many losses the record has.
    std::size_t losses() const;
    bool eventuallyLost(std::size_t count = 1) const;

    const std::string directory;
    Record record;
    std::shared_ptr<Client> client = std::make_shared<Client>(record);
    std::unique_ptr<Peer> peer;

private:
    const long m_objects;
};
