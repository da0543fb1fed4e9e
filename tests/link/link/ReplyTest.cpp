#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "link/support/Await.h"
#include "link/support/BusPeer.h"
#include "link/support/PrivateBus.h"
#include "link/support/SdBus.h"
#include "platform/XpcConnection.h"
#include "platform/linux/bus/BusCallback.h"

// Answers to calls with a reply block, from a daemon that answers what the test says.

namespace {

using link_tests::await;
using link_tests::check;

class AnsweringDaemon : public link_tests::Pumped {
public:
    using Answer = std::function<int(sd_bus_message* call)>;

    explicit AnsweringDaemon(const std::string& address) : m_bus(link_tests::newClient(address)) {
        sd_bus* const bus = m_bus.get();
        check(sd_bus_add_filter(bus, nullptr,
                                platform::busCallback<&AnsweringDaemon::received, AnsweringDaemon>, this),
              "filter");
        check(sd_bus_start(bus), "start");
        check(sd_bus_request_name(bus, "com.brovik.velmdaemon", 0), "name");
    }

    void pump() override {
        while (m_bus && sd_bus_process(m_bus.get(), nullptr) > 0) {
        }
    }
    void disconnect() { m_bus.reset(); }

    std::map<std::string, Answer> answers;
    int calls = 0;

private:
    int received(sd_bus_message* message, sd_bus_error* /*error*/) {
        if (sd_bus_message_is_method_call(message, nullptr, nullptr) <= 0) {
            return 0;
        }
        ++calls;
        const auto answer = answers.find(sd_bus_message_get_member(message));
        if (answer != answers.end()) {
            check(answer->second(message), "answer");
        }
        return 1;
    }

    link_tests::BusHandle m_bus;
};

AnsweringDaemon::Answer returning(const char* types, int value) {
    return [=](sd_bus_message* call) { return sd_bus_reply_method_return(call, types, value); };
}

template <typename Value>
AnsweringDaemon::Answer returningNumber(const char* type, Value value) {
    return [=](sd_bus_message* call) { return sd_bus_reply_method_return(call, "v", type, value); };
}

int refuse(sd_bus_message* call) {
    return sd_bus_reply_method_errorf(call, SD_BUS_ERROR_FAILED, "not today");
}

class Replies : public testing::Test {
protected:
    Replies() {
        bus.start();
        setenv("DBUS_SYSTEM_BUS_ADDRESS", bus.address().c_str(), 1);
        daemon.emplace(bus.address());
        connection =
            platform::createXpcConnection("com.brovik.velmdaemon", platform::xpcConnectionPrivileged);
        connection->setRemoteObjectInterface(xpcDaemonProtocol);
        connection->resume();
        proxy = connection->remoteObjectProxy();
    }

    /// Whatever came before on the link has been answered once this is.
    void expectNothingBeforeTheNextAnswer(const std::atomic<int>& count) {
        daemon->answers["loggedUser"] = [](sd_bus_message* call) {
            return sd_bus_reply_method_return(call, "s", "someone");
        };
        std::atomic<bool> later{false};
        proxy->loggedUser([&](const std::string&) { later = true; });
        ASSERT_TRUE(await([&] { return later.load(); }));
        EXPECT_EQ(count, 0);
    }

    link_tests::PrivateBus bus;
    std::optional<AnsweringDaemon> daemon;
    std::shared_ptr<platform::IXpcConnection> connection;
    std::shared_ptr<XpcDaemonProtocol> proxy;
};

TEST_F(Replies, APingIsAnsweredYesOrNo) {
    for (const int ready : {1, 0}) {
        daemon->answers["pingWithReply"] = returning("b", ready);
        std::atomic<int> answer{-1};
        proxy->pingWithReply([&](bool value) { answer = value ? 1 : 0; });
        ASSERT_TRUE(await([&] { return answer != -1; }));
        EXPECT_EQ(answer, ready);
    }
}

TEST_F(Replies, AnErrorIsDroppedSilently) {
    daemon->answers["pingWithReply"] = refuse;
    std::atomic<int> count{0};
    proxy->pingWithReply([&](bool) { ++count; });
    expectNothingBeforeTheNextAnswer(count);
}

TEST_F(Replies, AnAnswerOfAnotherTypeIsDroppedSilently) {
    daemon->answers["pingWithReply"] = returning("i", 1);
    daemon->answers["upTime"] = returning("i", 1);
    std::atomic<int> count{0};
    proxy->pingWithReply([&](bool) { ++count; });
    proxy->upTime([&](const XpcNumber&) { ++count; });
    expectNothingBeforeTheNextAnswer(count);
}

TEST_F(Replies, AVariantThatHoldsNoNumberIsDroppedSilently) {
    daemon->answers["upTime"] = [](sd_bus_message* call) {
        return sd_bus_reply_method_return(call, "v", "s", "many");
    };
    std::atomic<int> count{0};
    proxy->upTime([&](const XpcNumber&) { ++count; });
    expectNothingBeforeTheNextAnswer(count);
}

TEST_F(Replies, ANumberComesAsTheWidestOfItsKind) {
    const std::vector<std::pair<AnsweringDaemon::Answer, XpcNumber>> cases = {
        {returningNumber("b", 1), XpcNumber(true)},
        {returningNumber("y", 200), XpcNumber(std::uint64_t{200})},
        {returningNumber("n", -5), XpcNumber(std::int64_t{-5})},
        {returningNumber("q", 65535), XpcNumber(std::uint64_t{65535})},
        {returningNumber("i", -7), XpcNumber(std::int64_t{-7})},
        {returningNumber("u", 4000000000U), XpcNumber(std::uint64_t{4000000000})},
        {returningNumber("x", std::int64_t{-8}), XpcNumber(std::int64_t{-8})},
        {returningNumber("t", UINT64_MAX), XpcNumber(std::uint64_t{UINT64_MAX})},
        {returningNumber("d", 1.5), XpcNumber(1.5)},
    };
    for (const auto& [answer, expected] : cases) {
        daemon->answers["lastCommunicationTime"] = answer;
        XpcNumber number;
        std::atomic<bool> done{false};
        proxy->lastCommunicationTime([&](const XpcNumber& value) {
            number = value;
            done = true;
        });
        ASSERT_TRUE(await([&] { return done.load(); }));
        EXPECT_EQ(number, expected);
    }
}

TEST_F(Replies, WhatABlockHoldsIsReleasedWithTheConnection) {
    auto token = std::make_shared<int>(0);
    const std::weak_ptr<int> watch = token;
    proxy->pingWithReply([token = std::move(token)](bool) {});
    ASSERT_TRUE(await([&] { return daemon->calls == 1; }));
    EXPECT_FALSE(watch.expired());
    connection.reset();
    EXPECT_TRUE(await([&] { return watch.expired(); }));
}

TEST_F(Replies, WhatABlockHoldsMaySendWhileItIsReleased) {
    struct SendsAtItsEnd {
        explicit SendsAtItsEnd(std::shared_ptr<XpcDaemonProtocol> daemonProxy)
            : proxy(std::move(daemonProxy)) {}
        ~SendsAtItsEnd() { proxy->onTimeZoneChanged(); }
        SendsAtItsEnd(const SendsAtItsEnd&) = delete;
        SendsAtItsEnd& operator=(const SendsAtItsEnd&) = delete;
        std::shared_ptr<XpcDaemonProtocol> proxy;
    };
    daemon->answers["pingWithReply"] = returning("b", 1);
    proxy->pingWithReply([held = std::make_shared<SendsAtItsEnd>(proxy)](bool) {});
    EXPECT_TRUE(await([&] { return daemon->calls == 2; }));
}

TEST_F(Replies, ADaemonThatNeverAnswersCostsBoundedMemory) {
    std::weak_ptr<int> last;
    for (int i = 0; i < 1000; ++i) {
        auto token = std::make_shared<int>(i);
        last = token;
        proxy->pingWithReply([token](bool) {});
    }
    EXPECT_TRUE(await([&] { return last.expired(); })) << "no more than the bus takes are kept waiting";
    proxy->onTimeZoneChanged();
    EXPECT_TRUE(await([&] { return daemon->calls == 101; }));
}

}  // namespace
