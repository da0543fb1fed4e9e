#include "platform/linux/bus/BusConnection.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <vector>

#include "link/support/PrivateBus.h"
#include "unit/platform/runloop/LoopFixture.h"
#include "unit/platform/screenlock/FakeLogind.h"

namespace {

using link_tests::PrivateBus;
using platform::Backoff;
using platform::BusConnection;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

// BusConnection takes a plain function, as the library's are.
std::vector<steady_clock::time_point> attempts;
int errorOfOpening = 0;
std::string addressOfBus;

int openBus(sd_bus** bus) {
    attempts.push_back(steady_clock::now());
    if (errorOfOpening < 0) {
        return errorOfOpening;
    }
    int error = sd_bus_new(bus);
    if (error >= 0) {
        error = sd_bus_set_address(*bus, addressOfBus.c_str());
    }
    if (error >= 0) {
        error = sd_bus_set_bus_client(*bus, 1);
    }
    return error < 0 ? error : sd_bus_start(*bus);
}

class BusConnectionTest : public LoopFixture {
protected:
    void SetUp() override {
        attempts.clear();
        errorOfOpening = 0;
        addressOfBus = m_bus.address();
    }
    bool waitForAttempts(std::size_t count) const {
        return runUntil([count] { return attempts.size() >= count; });
    }
    static milliseconds between(std::size_t one, std::size_t other) {
        return std::chrono::duration_cast<milliseconds>(attempts.at(other) - attempts.at(one));
    }

    PrivateBus m_bus;
    int m_opened = 0;
    int m_lost = 0;
    BusConnection m_connection{loop(),
                               &openBus,
                               Backoff(milliseconds(40), milliseconds(160)),
                               {[this](sd_bus*) { ++m_opened; }, [this] { ++m_lost; }}};
};

TEST_F(BusConnectionTest, TriesAgainWithGrowingDelays) {
    errorOfOpening = -ECONNREFUSED;
    m_connection.start();
    ASSERT_TRUE(waitForAttempts(5));
    EXPECT_GE(between(0, 1), milliseconds(40));
    EXPECT_GE(between(1, 2), milliseconds(80));
    EXPECT_GE(between(2, 3), milliseconds(160));
    EXPECT_GE(between(3, 4), milliseconds(160));
    EXPECT_EQ(m_opened, 0);
    EXPECT_EQ(m_lost, 0);
}

TEST_F(BusConnectionTest, NeverTriesAgainWhereNoBusIsNamed) {
    for (const int error : {-ENOMEDIUM, -ENXIO}) {
        errorOfOpening = error;
        attempts.clear();
        m_connection.start();
        runFor(milliseconds(400));
        EXPECT_EQ(attempts.size(), 1U);
    }
}

TEST_F(BusConnectionTest, LeavesTheNextAttemptToWhoeverAwaitsTheBus) {
    bool awaited = false;
    BusConnection connection(loop(), &openBus, Backoff(milliseconds(20), milliseconds(5000)),
                             {[this](sd_bus*) { ++m_opened; }, [] {}, [&awaited] { return awaited; }});
    errorOfOpening = -ECONNREFUSED;
    connection.start();
    ASSERT_TRUE(waitForAttempts(3));
    awaited = true;
    ASSERT_TRUE(waitForAttempts(4));
    runFor(milliseconds(600));
    EXPECT_EQ(attempts.size(), 4U);
    m_bus.start();
    errorOfOpening = 0;
    connection.start();
    EXPECT_EQ(m_opened, 1);
}

TEST_F(BusConnectionTest, TellsOfEachLossAndOpensAgain) {
    m_bus.start();
    m_connection.start();
    EXPECT_EQ(m_opened, 1);
    m_bus.stop();
    ASSERT_TRUE(runUntil([this] { return m_lost == 1; }));
    m_bus.start();
    ASSERT_TRUE(runUntil([this] { return m_opened >= 2; }));
    EXPECT_EQ(m_lost, m_opened - 1);
}

int noteAnswer(sd_bus_message* /*message*/, void* answered, sd_bus_error* /*error*/) {
    *static_cast<bool*>(answered) = true;
    return 0;
}

/// Asks behind what the connection has asked, so the bus has answered that too when `answered` is true.
void askBus(sd_bus* bus, bool& answered) {
    sd_bus_call_method_async(bus, nullptr, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                             "org.freedesktop.DBus", "GetId", &noteAnswer, &answered, "");
}

TEST_F(BusConnectionTest, StartsOverWithTheDelaysAfterABusThatAnswered) {
    bool answered = false;
    BusConnection connection(loop(), &openBus, Backoff(milliseconds(20), milliseconds(60000)),
                             {[&answered](sd_bus* bus) { askBus(bus, answered); }, [this] { ++m_lost; }});
    errorOfOpening = -ECONNREFUSED;
    connection.start();
    ASSERT_TRUE(waitForAttempts(5));
    m_bus.start();
    errorOfOpening = 0;
    ASSERT_TRUE(runUntil([&answered] { return answered; }));
    m_bus.stop();
    errorOfOpening = -ECONNREFUSED;
    ASSERT_TRUE(runUntil([this] { return m_lost == 1; }));
    const std::size_t before = attempts.size();
    ASSERT_TRUE(waitForAttempts(before + 4));
    // 40 ms, 80 ms and 160 ms; without starting over 1280, 2560 and 5120 ms.
    EXPECT_LT(between(before, before + 3), milliseconds(8900));
}

}  // namespace
