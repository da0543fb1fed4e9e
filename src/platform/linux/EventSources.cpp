#include "platform/linux/EventSources.h"

#include <ctime>
#include <memory>

#include "platform/NotificationCenter.h"
#include "platform/linux/runloop/MainRunLoop.h"

namespace platform {
namespace {

void postScreenLock(bool locked) {
    CFNotificationCenterPostNotification(
        CFNotificationCenterGetDistributedCenter(),
        locked ? CFSTR("com.apple.screenIsLocked") : CFSTR("com.apple.screenIsUnlocked"), nullptr, nullptr,
        1);
}

void postTimeZoneChange() {
    // localtime_r follows only after this, and observers may ask for the time.
    tzset();
    CFNotificationCenterPostNotification(CFNotificationCenterGetLocalCenter(),
                                         kCFTimeZoneSystemTimeZoneDidChangeNotification, nullptr, nullptr, 1);
}

}  // namespace

EventSources::EventSources(sd_event* loop)
    : m_screenLock(loop, &postScreenLock), m_timeZone(loop, "/etc", &postTimeZoneChange) {}

IRunLoop& mainRunLoop() {
    MainRunLoop& loop = MainRunLoop::instance();
    loop.setSources([](sd_event* event) { return std::make_shared<EventSources>(event); });
    return loop;
}

}  // namespace platform
