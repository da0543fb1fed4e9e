#include "platform/linux/EventSources.h"

#include <memory>

#include "platform/NotificationCenter.h"
#include "platform/SystemLog.h"
#include "platform/linux/process/LocalTime.h"
#include "platform/linux/runloop/MainRunLoop.h"

namespace platform {
namespace {

constexpr const char* localTimePath = "/etc/localtime";

void postScreenLock(bool locked) {
    CFNotificationCenterPostNotification(
        CFNotificationCenterGetDistributedCenter(),
        locked ? CFSTR("com.apple.screenIsLocked") : CFSTR("com.apple.screenIsUnlocked"), nullptr, nullptr,
        1);
}

void postTimeZoneChange() {
    CFNotificationCenterPostNotification(CFNotificationCenterGetLocalCenter(),
                                         kCFTimeZoneSystemTimeZoneDidChangeNotification, nullptr, nullptr, 1);
}

void tellThatTheZoneIsUnwatched() {
    writeSystemLog("[ERROR] No inotify watches left; looking at the time zone once a minute, path = ",
                   localTimePath);
}

}  // namespace

EventSources::EventSources(sd_event* loop)
    : m_screenLock(loop, &postScreenLock),
      m_timeZone(loop, localTimePath, {&setLocalTime, &postTimeZoneChange, &tellThatTheZoneIsUnwatched}) {}

IRunLoop& mainRunLoop() {
    MainRunLoop& loop = MainRunLoop::instance();
    loop.setSources([](sd_event* event) { return std::make_shared<EventSources>(event); });
    return loop;
}

}  // namespace platform
