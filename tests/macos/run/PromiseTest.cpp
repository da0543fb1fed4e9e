#include <gtest/gtest.h>

#include <future>

#include "World.h"
#include "platform/LossPacing.h"

// What XpcConnection.h promises, under each reading of the points that Apple's documents leave open.

namespace {

using namespace std::chrono_literals;

struct Reading {
    const char* name;
    void (*set)(doubles::Readings&);
};

std::ostream& operator<<(std::ostream& to, const Reading& reading) {
    return to << reading.name;
}

const Reading readings[] = {
    {"plain", [](doubles::Readings&) {}},
    {"missingJobAtResume", [](doubles::Readings& all) { all.missingJobAtResume = true; }},
    {"invalidationFollows", [](doubles::Readings& all) { all.invalidationFollows = true; }},
    {"releaseReports", [](doubles::Readings& all) { all.releaseReports = true; }},
    {"lossOvertakesCalls", [](doubles::Readings& all) { all.lossOvertakesCalls = true; }},
    {"callsOnOwnQueue", [](doubles::Readings& all) { all.callsOnOwnQueue = true; }},
    {"reachesAtResume", [](doubles::Readings& all) { all.reachesAtResume = true; }},
    {"allOfThem", [](doubles::Readings& all) { all = {true, true, true, true, true, true}; }},
};

// Long enough for what must not happen to happen, where it does.
constexpr auto aWhile = 200ms;

class PromiseTest : public WorldTest, public testing::WithParamInterface<Reading> {
protected:
    PromiseTest() { GetParam().set(doubles::readings()); }
};

TEST_P(PromiseTest, OneLossAConnection) {
    const auto link = linked();
    peer->unload();
    EXPECT_TRUE(eventuallyLost());
    link->remoteObjectProxy()->connect();
    // Past the time at which a second loss could be reported.
    std::this_thread::sleep_for(1100ms);
    EXPECT_EQ(losses(), 1U);
}

TEST_P(PromiseTest, NoLossBeforeSomethingWasSent) {
    peer->unload();
    const auto link = connection();
    link->resume();
    // The first loss of a process comes a second after its launch at the earliest.
    std::this_thread::sleep_for(1500ms);
    EXPECT_EQ(losses(), 0U);
    link->remoteObjectProxy()->connect();
    EXPECT_TRUE(eventuallyLost());
    EXPECT_EQ(record.lines(), std::vector<std::string>{"invalidation"});
}

TEST_P(PromiseTest, NoLossAfterTheRelease) {
    auto link = linked();
    const auto daemon = link->remoteObjectProxy();
    link.reset();
    peer->unload();
    daemon->connect();
    std::this_thread::sleep_for(1100ms);
    EXPECT_EQ(losses(), 0U);
}

TEST_P(PromiseTest, LossesASecondApart) {
    // From here on, as the handler that records the first may be held up. The first itself may have to wait a
    // second.
    const auto before = Clock::now();
    for (std::size_t i = 1; i <= 3; ++i) {
        const auto link = linked();
        peer->die();
        EXPECT_TRUE(eventuallyLost(i));
    }
    const auto lost = record.of("in");
    ASSERT_EQ(lost.size(), 3U);
    EXPECT_GE(lost[2].when - before, 2s);
}

TEST_P(PromiseTest, NoLossCloseBehindACall) {
    const auto link = linked();
    // Not held back by an earlier test's loss.
    std::this_thread::sleep_for(1100ms);
    peer->confirm();
    EXPECT_TRUE(eventually([&] { return !record.lines().empty(); }));
    peer->die();
    EXPECT_TRUE(eventuallyLost());
    const auto entries = record.entries();
    EXPECT_GE(entries.back().when - entries.front().when, platform::LossPacing::distanceToCalls);
}

TEST_P(PromiseTest, NoCallOrReplyAfterTheLoss) {
    const auto link = linked();
    link->remoteObjectProxy()->pingWithReply([this](bool) { record.add("reply"); });
    const doubles::Frame ping = peer->read();
    peer->announceDeath();
    peer->confirm();
    peer->reply(ping, "v@?c", "1");
    peer->confirm();
    peer->die();
    EXPECT_TRUE(eventuallyLost());
    std::this_thread::sleep_for(aWhile);
    EXPECT_EQ(record.entries().back().what.substr(0, 2), "in");
    if (doubles::readings().lossOvertakesCalls) {
        EXPECT_EQ(record.entries().size(), 1U);
    }
}

TEST_P(PromiseTest, NoCallAfterTheRelease) {
    auto link = linked();
    const auto daemon = link->remoteObjectProxy();
    link.reset();
    peer->confirm();
    std::this_thread::sleep_for(aWhile);
    EXPECT_TRUE(record.lines().empty());
}

TEST_P(PromiseTest, CallsWaitForTheFirstMessage) {
    const auto link = connection();
    link->resume();
    if (doubles::readings().reachesAtResume) {
        peer->accept();
        peer->confirm();
        std::this_thread::sleep_for(aWhile);
        EXPECT_TRUE(record.lines().empty());
        link->remoteObjectProxy()->connect();
    } else {
        link->remoteObjectProxy()->connect();
        peer->accept();
        peer->confirm();
    }
    EXPECT_TRUE(eventually([&] { return !record.lines().empty(); }));
    EXPECT_EQ(record.lines(), std::vector<std::string>{"connected 1"});
}

TEST_P(PromiseTest, OneAtATimeAndInOrder) {
    std::atomic<int> inside{0};
    std::atomic<bool> overlapped{false};
    struct Slow : Client {
        using Client::Client;
        std::function<void()> work;
        void connected(bool flag) override {
            work();
            Client::connected(flag);
        }
    };
    const auto work = [&] {
        overlapped = overlapped || ++inside > 1;
        std::this_thread::sleep_for(2ms);
        --inside;
    };
    auto slow = std::make_shared<Slow>(record);
    slow->work = work;
    client = slow;
    const auto link = linked();
    link->setInterruptionHandler([&] {
        work();
        record.add("interruption");
    });
    for (int i = 0; i < 20; ++i) {
        link->remoteObjectProxy()->pingWithReply([&](bool) {
            work();
            record.add("reply");
        });
        const doubles::Frame ping = peer->read();
        peer->confirm(i % 2 == 0);
        peer->reply(ping, "v@?c", "1");
    }
    EXPECT_TRUE(eventually([&] { return record.entries().size() == 40; }));
    peer->die();
    EXPECT_TRUE(eventuallyLost());
    EXPECT_FALSE(overlapped);
    const auto calls = record.of("connected");
    for (std::size_t i = 0; i < calls.size(); ++i) {
        EXPECT_EQ(calls[i].what, i % 2 == 0 ? "connected 1" : "connected 0");
        EXPECT_NE(calls[i].where, std::this_thread::get_id());
    }
}

TEST_P(PromiseTest, AHandlerMayClearItselfAndGoOn) {
    const auto link = linked();
    platform::IXpcConnection* const raw = link.get();
    const std::string text = "a text of the handler's own that is too long for a string without a heap";
    link->setInterruptionHandler([this, raw, text] {
        raw->setInterruptionHandler({});
        record.add("in " + text);
    });
    peer->die();
    EXPECT_TRUE(eventuallyLost());
    EXPECT_EQ(record.lines(), std::vector<std::string>{"in " + text});
}

TEST_P(PromiseTest, AHandlerMayReleaseTheConnectionAndWaitForASender) {
    auto link = linked();
    const auto daemon = link->remoteObjectProxy();
    link->setInterruptionHandler([&] {
        link.reset();
        std::async(std::launch::async, [&] { daemon->connect(); }).wait();
        record.add("interruption");
    });
    peer->die();
    EXPECT_TRUE(eventuallyLost());
}

TEST_P(PromiseTest, SendsInAnyState) {
    const auto link =
        platform::createXpcConnection("com.brovik.velmdaemon", platform::xpcConnectionPrivileged);
    const auto early = link->remoteObjectProxy();
    early->connect();
    link->setRemoteObjectInterface(xpcDaemonProtocol);
    early->onScreenLocked(true);
    link->remoteObjectProxy()->pingWithReply([](bool) {});
    link->setExportedInterface(xpcAgentProtocol);
    link->setExportedObject(client);
    link->resume();
    early->connect();
    peer->unload();
    const auto daemon = link->remoteObjectProxy();
    for (int i = 0; i < 3; ++i) {
        daemon->connect();
        daemon->pingWithReply([](bool) {});
    }
    EXPECT_TRUE(record.lines().empty());
}

TEST_P(PromiseTest, AnotherConnectionWorksAfterALoss) {
    for (std::size_t i = 1; i <= 2; ++i) {
        const auto link = linked();
        peer->confirm();
        EXPECT_TRUE(eventually([&] { return record.of("connected").size() == i; }));
        peer->die();
        EXPECT_TRUE(eventuallyLost(i));
    }
}

INSTANTIATE_TEST_SUITE_P(Readings, PromiseTest, testing::ValuesIn(readings),
                         [](const auto& info) { return info.param.name; });

}  // namespace
