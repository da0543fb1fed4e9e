#include "velmmonitord/TimeZoneChangeMonitor.h"

#include "velmmonitord/LogLine.h"

namespace {

void observe(TimeZoneChangeMonitor* monitor) {
    CFNotificationCenterAddObserver(CFNotificationCenterGetLocalCenter(), monitor,
                                    &TimeZoneChangeMonitor::onTimezoneChanged,
                                    kCFTimeZoneSystemTimeZoneDidChangeNotification, nullptr,
                                    CFNotificationSuspensionBehaviorDeliverImmediately);
}

}  // namespace

TimeZoneChangeMonitor::TimeZoneChangeMonitor()
    : m_signal(std::make_unique<boost::signals2::signal<void()>>()) {}

TimeZoneChangeMonitor::~TimeZoneChangeMonitor() {
    // Posts come on any thread, even now: only the removal of this very observer makes sure that none of them
    // is still on its way to the signal.
    CFNotificationCenterRemoveObserver(CFNotificationCenterGetLocalCenter(), this,
                                       kCFTimeZoneSystemTimeZoneDidChangeNotification, nullptr);
}

void TimeZoneChangeMonitor::init() {
    logLine(Logging::Level::Trace, "Time zone change monitor is running");
    observe(this);
}

void TimeZoneChangeMonitor::registerObservers() {
    observe(this);
}

void TimeZoneChangeMonitor::subscribeOnTimeZoneChange(Slot&& slot) {
    m_signal->connect(slot);
}

void TimeZoneChangeMonitor::onTimezoneChanged(CFNotificationCenterRef /*center*/, void* observer,
                                              CFNotificationName /*name*/, const void* /*object*/,
                                              CFDictionaryRef /*userInfo*/) {
    logLine(Logging::Level::Trace, "Timezone changed notification came");
    (*static_cast<TimeZoneChangeMonitor*>(observer)->m_signal)();
}
