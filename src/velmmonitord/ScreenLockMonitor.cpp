#include "velmmonitord/ScreenLockMonitor.h"

#include "velmmonitord/LogLine.h"

namespace {

CFNotificationName screenIsLocked() {
    return CFSTR("com.apple.screenIsLocked");
}

CFNotificationName screenIsUnlocked() {
    return CFSTR("com.apple.screenIsUnlocked");
}

}  // namespace

ScreenLockMonitor::ScreenLockMonitor() : m_signal(std::make_unique<boost::signals2::signal<void(bool)>>()) {}

ScreenLockMonitor::~ScreenLockMonitor() {
    // The null observer is meant: it removes nothing, the registrations stay, and the monitor's owner keeps
    // it until nothing is delivered any more.
    const auto center = CFNotificationCenterGetDistributedCenter();
    CFNotificationCenterRemoveObserver(center, nullptr, screenIsLocked(), nullptr);
    CFNotificationCenterRemoveObserver(center, nullptr, screenIsUnlocked(), nullptr);
}

void ScreenLockMonitor::init() {
    logLine(Logging::Level::Trace, "Screen lock monitor is running");
    registerObservers();
}

void ScreenLockMonitor::registerObservers() {
    const auto center = CFNotificationCenterGetDistributedCenter();
    CFNotificationCenterAddObserver(center, this, &ScreenLockMonitor::onScreenLocked, screenIsLocked(),
                                    nullptr, CFNotificationSuspensionBehaviorDeliverImmediately);
    CFNotificationCenterAddObserver(center, this, &ScreenLockMonitor::onScreenUnlocked, screenIsUnlocked(),
                                    nullptr, CFNotificationSuspensionBehaviorDeliverImmediately);
}

void ScreenLockMonitor::subscribeOnScreenLock(Slot&& slot) {
    m_signal->connect(slot);
}

void ScreenLockMonitor::onScreenLocked(CFNotificationCenterRef /*center*/, void* observer,
                                       CFNotificationName /*name*/, const void* /*object*/,
                                       CFDictionaryRef /*userInfo*/) {
    logLine(Logging::Level::Trace, "Screen lock monitor: User's screen was locked");
    (*static_cast<ScreenLockMonitor*>(observer)->m_signal)(true);
}

void ScreenLockMonitor::onScreenUnlocked(CFNotificationCenterRef /*center*/, void* observer,
                                         CFNotificationName /*name*/, const void* /*object*/,
                                         CFDictionaryRef /*userInfo*/) {
    logLine(Logging::Level::Trace, "Screen lock monitor: User's screen was unlocked");
    (*static_cast<ScreenLockMonitor*>(observer)->m_signal)(false);
}
