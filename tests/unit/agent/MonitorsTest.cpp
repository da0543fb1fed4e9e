#include <gmock/gmock.h>

#include <memory>
#include <stdexcept>
#include <thread>

#include "logging/Log.h"
#include "unit/agent/AgentFixture.h"
#include "velmmonitord/ScreenLockMonitor.h"
#include "velmmonitord/TimeZoneChangeMonitor.h"

// The two monitors turn notifications into events.

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr long deliverImmediately = 4;

class ScreenLockMonitorTest : public AgentTest {
protected:
    void subscribe() {
        m_monitor->subscribeOnScreenLock(ScreenLockMonitor::Slot(
            [](bool locked) { trace().add(locked ? "raised true" : "raised false"); }));
    }

    std::unique_ptr<ScreenLockMonitor> m_monitor = std::make_unique<ScreenLockMonitor>();
};

TEST_F(ScreenLockMonitorTest, ObservesNothingBeforeItIsStarted) {
    EXPECT_THAT(trace().entries(), IsEmpty());
}

TEST_F(ScreenLockMonitorTest, RegistersItselfForBothNotificationsInOrder) {
    m_monitor->init();
    EXPECT_THAT(trace().entries(),
                ElementsAre("[TRACE] Screen lock monitor is running",
                            "distributed centre: added an observer for com.apple.screenIsLocked",
                            "distributed centre: added an observer for com.apple.screenIsUnlocked"));
    ASSERT_EQ(fake::registrations().size(), 2U);
    for (const fake::Registration& registration : fake::registrations()) {
        EXPECT_EQ(registration.observer, m_monitor.get());
        EXPECT_EQ(registration.object, nullptr);
        EXPECT_EQ(registration.suspensionBehavior, deliverImmediately);
    }
}

TEST_F(ScreenLockMonitorTest, RaisesEachChangeAfterItsLogLine) {
    m_monitor->init();
    subscribe();
    trace().clear();
    fake::postScreenLocked();
    fake::postScreenUnlocked();
    fake::postScreenLocked();
    EXPECT_THAT(trace().entries(),
                ElementsAre("[TRACE] Screen lock monitor: User's screen was locked", "raised true",
                            "[TRACE] Screen lock monitor: User's screen was unlocked", "raised false",
                            "[TRACE] Screen lock monitor: User's screen was locked", "raised true"));
}

TEST_F(ScreenLockMonitorTest, RaisesRepeats) {
    m_monitor->init();
    subscribe();
    trace().clear();
    fake::postScreenLocked();
    fake::postScreenLocked();
    EXPECT_THAT(trace().entries(),
                ElementsAre("[TRACE] Screen lock monitor: User's screen was locked", "raised true",
                            "[TRACE] Screen lock monitor: User's screen was locked", "raised true"));
}

TEST_F(ScreenLockMonitorTest, RaisesOnThePostersThread) {
    m_monitor->init();
    std::vector<std::thread::id> threads;
    m_monitor->subscribeOnScreenLock(
        ScreenLockMonitor::Slot([&](bool /*locked*/) { threads.push_back(std::this_thread::get_id()); }));
    fake::postScreenLocked();
    fake::postScreenUnlocked();
    EXPECT_THAT(threads, testing::ElementsAre(std::this_thread::get_id(), std::this_thread::get_id()));
}

TEST_F(ScreenLockMonitorTest, ANotificationBeforeAnySubscriptionIsLoggedAndLost) {
    m_monitor->init();
    trace().clear();
    fake::postScreenLocked();
    subscribe();
    EXPECT_THAT(trace().entries(), ElementsAre("[TRACE] Screen lock monitor: User's screen was locked"));
}

TEST_F(ScreenLockMonitorTest, SubscribersComeInTheirOrderAndMayComeBeforeTheStart) {
    subscribe();
    m_monitor->subscribeOnScreenLock(ScreenLockMonitor::Slot([](bool /*locked*/) { trace().add("second"); }));
    m_monitor->init();
    trace().clear();
    fake::postScreenUnlocked();
    EXPECT_THAT(trace().entries(), ElementsAre("[TRACE] Screen lock monitor: User's screen was unlocked",
                                               "raised false", "second"));
}

TEST_F(ScreenLockMonitorTest, StartedTwiceItRaisesTwice) {
    m_monitor->init();
    m_monitor->init();
    subscribe();
    trace().clear();
    fake::postScreenLocked();
    EXPECT_THAT(trace().entries(),
                ElementsAre("[TRACE] Screen lock monitor: User's screen was locked", "raised true",
                            "[TRACE] Screen lock monitor: User's screen was locked", "raised true"));
}

TEST_F(ScreenLockMonitorTest, WhatASlotThrowsReachesThePoster) {
    m_monitor->init();
    m_monitor->subscribeOnScreenLock(
        ScreenLockMonitor::Slot([](bool /*locked*/) { throw std::runtime_error("a slot's own"); }));
    EXPECT_THROW(fake::postScreenLocked(), std::runtime_error);
    EXPECT_THROW(fake::postScreenUnlocked(), std::runtime_error);
}

TEST_F(ScreenLockMonitorTest, BelowTheTraceLevelItRaisesInSilence) {
    Logging::Logger::instance().setLoggingLevel(Logging::Level::Debug);
    m_monitor->init();
    subscribe();
    fake::postScreenLocked();
    fake::postScreenUnlocked();
    EXPECT_THAT(trace().logLines(), IsEmpty());
    EXPECT_THAT(trace().entries(), testing::IsSupersetOf({"raised true", "raised false"}));
}

TEST_F(ScreenLockMonitorTest, RemovesTheNullObserverAtItsEnd) {
    m_monitor->init();
    trace().clear();
    m_monitor.reset();
    EXPECT_THAT(trace().entries(),
                ElementsAre("distributed centre: removed null for com.apple.screenIsLocked",
                            "distributed centre: removed null for com.apple.screenIsUnlocked"));
    EXPECT_EQ(fake::registrations().size(), 2U);
}

class TimeZoneChangeMonitorTest : public AgentTest {
protected:
    void subscribe() {
        m_monitor->subscribeOnTimeZoneChange(TimeZoneChangeMonitor::Slot([] { trace().add("raised"); }));
    }

    std::unique_ptr<TimeZoneChangeMonitor> m_monitor = std::make_unique<TimeZoneChangeMonitor>();
};

TEST_F(TimeZoneChangeMonitorTest, ObservesNothingBeforeItIsStarted) {
    EXPECT_THAT(trace().entries(), IsEmpty());
}

TEST_F(TimeZoneChangeMonitorTest, RegistersItself) {
    m_monitor->init();
    EXPECT_THAT(
        trace().entries(),
        ElementsAre("[TRACE] Time zone change monitor is running",
                    "local centre: added an observer for kCFTimeZoneSystemTimeZoneDidChangeNotification"));
    ASSERT_EQ(fake::registrations().size(), 1U);
    EXPECT_EQ(fake::registrations().front().observer, m_monitor.get());
    EXPECT_EQ(fake::registrations().front().object, nullptr);
    EXPECT_EQ(fake::registrations().front().suspensionBehavior, deliverImmediately);
}

TEST_F(TimeZoneChangeMonitorTest, RegistersWithoutALineWhenAskedForThatAlone) {
    m_monitor->registerObservers();
    EXPECT_THAT(trace().logLines(), IsEmpty());
    EXPECT_EQ(fake::registrations().size(), 1U);
}

TEST_F(TimeZoneChangeMonitorTest, RaisesEachChangeAfterItsLogLine) {
    m_monitor->init();
    subscribe();
    trace().clear();
    fake::postTimeZoneChanged();
    fake::postTimeZoneChanged();
    EXPECT_THAT(trace().entries(), ElementsAre("[TRACE] Timezone changed notification came", "raised",
                                               "[TRACE] Timezone changed notification came", "raised"));
}

TEST_F(TimeZoneChangeMonitorTest, RaisesOnThePostersThread) {
    m_monitor->init();
    std::thread::id raisedOn;
    m_monitor->subscribeOnTimeZoneChange(
        TimeZoneChangeMonitor::Slot([&] { raisedOn = std::this_thread::get_id(); }));
    std::thread::id postedOn;
    std::thread([&] {
        postedOn = std::this_thread::get_id();
        fake::postTimeZoneChanged();
    }).join();
    EXPECT_EQ(raisedOn, postedOn);
}

TEST_F(TimeZoneChangeMonitorTest, ANotificationBeforeAnySubscriptionIsLoggedAndLost) {
    m_monitor->init();
    trace().clear();
    fake::postTimeZoneChanged();
    subscribe();
    EXPECT_THAT(trace().entries(), ElementsAre("[TRACE] Timezone changed notification came"));
}

TEST_F(TimeZoneChangeMonitorTest, SubscribersComeInTheirOrderAndMayComeBeforeTheStart) {
    subscribe();
    m_monitor->subscribeOnTimeZoneChange(TimeZoneChangeMonitor::Slot([] { trace().add("second"); }));
    m_monitor->init();
    trace().clear();
    fake::postTimeZoneChanged();
    EXPECT_THAT(trace().entries(),
                ElementsAre("[TRACE] Timezone changed notification came", "raised", "second"));
}

TEST_F(TimeZoneChangeMonitorTest, WhatASlotThrowsReachesThePoster) {
    m_monitor->init();
    m_monitor->subscribeOnTimeZoneChange(
        TimeZoneChangeMonitor::Slot([] { throw std::runtime_error("a slot's own"); }));
    EXPECT_THROW(fake::postTimeZoneChanged(), std::runtime_error);
}

TEST_F(TimeZoneChangeMonitorTest, BelowTheTraceLevelItRaisesInSilence) {
    Logging::Logger::instance().setLoggingLevel(Logging::Level::Debug);
    m_monitor->init();
    subscribe();
    fake::postTimeZoneChanged();
    EXPECT_THAT(trace().logLines(), IsEmpty());
    EXPECT_THAT(trace().entries(), testing::Contains("raised"));
}

TEST_F(TimeZoneChangeMonitorTest, NothingReachesItAfterItsEnd) {
    m_monitor->init();
    subscribe();
    trace().clear();
    m_monitor.reset();
    fake::postTimeZoneChanged();
    EXPECT_THAT(
        trace().entries(),
        ElementsAre("local centre: removed an observer for kCFTimeZoneSystemTimeZoneDidChangeNotification"));
    EXPECT_THAT(fake::registrations(), IsEmpty());
}

}  // namespace
