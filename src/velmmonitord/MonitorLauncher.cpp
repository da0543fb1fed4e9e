#include "velmmonitord/MonitorLauncher.h"

#include <chrono>

#include "common/BaseTimer.h"
#include "velmmonitord/LogLine.h"
#include "velmmonitord/ScreenLockMonitor.h"
#include "velmmonitord/TimeZoneChangeMonitor.h"
#include "velmmonitord/XpcServiceClientImpl.h"

namespace {

constexpr std::chrono::milliseconds reconnectInterval(1000);

}  // namespace

// Destroyed from the end: the timer's task is over before what its ticks use goes away.
struct MonitorLauncher::Impl {
    Impl() {
        m_client = XpcServiceClientImpl::create();
        m_client->connectToXpc();
    }

    std::shared_ptr<XpcServiceClientImpl> m_client;
    ScreenLockMonitor m_screenLockMonitor;
    TimeZoneChangeMonitor m_timeZoneChangeMonitor;
    // Stands in until init() makes the real one, whose ticks need the launcher; never run.
    cmn::BaseTimer m_timer{std::chrono::milliseconds(0), {}, false};
};

MonitorLauncher::MonitorLauncher() : m_impl(std::make_unique<Impl>()) {}

MonitorLauncher::~MonitorLauncher() {
    // A tick under way reads m_impl until the timer's destructor has waited for it, and a unique_ptr may
    // forget its pointer before it deletes.
    std::default_delete<Impl>()(m_impl.get());
    static_cast<void>(m_impl.release());
}

void MonitorLauncher::launch() {
    init();
    // Started before their handlers are connected: the daemon hears only of changes after the start-up.
    m_impl->m_screenLockMonitor.init();
    m_impl->m_timeZoneChangeMonitor.init();
    m_impl->m_screenLockMonitor.subscribeOnScreenLock(ScreenLockMonitor::Slot([this](bool locked) {
        logLine(Logging::Level::Trace, "Monitor launcher: screen lock status ", locked);
        m_impl->m_client->onScreenLocked(locked);
    }));
    m_impl->m_timeZoneChangeMonitor.subscribeOnTimeZoneChange(TimeZoneChangeMonitor::Slot([this] {
        logLine(Logging::Level::Trace, "Monitor launcher: time zone notification signaled");
        m_impl->m_client->onTimeZoneChanged();
    }));
}

// The link is being opened meanwhile, and its handlers use the timer, which is replaced below. That is safe
// because a connection that has sent nothing yet reports no loss and delivers no call, and the first message
// is the first tick's `connect`, one interval after the end of this.
void MonitorLauncher::init() {
    logLine(Logging::Level::Trace, "Monitor launcher is running");
    m_impl->m_client->subscribeOnConnected(XpcServiceClientImpl::EventSlot([this] {
        logLine(Logging::Level::Trace, "Monitor launcher: connected came");
        m_impl->m_timer.stop();
    }));
    m_impl->m_client->subscribeOnDisconnected(XpcServiceClientImpl::EventSlot([this] {
        logLine(Logging::Level::Trace, "Monitor launcher: disconnected came");
        m_impl->m_client->connectToXpc();
        m_impl->m_timer.run();
    }));
    const auto onTick = [this] {
        logLine(Logging::Level::Trace, "Monitor launcher: requesting connect");
        // The connection is built on the client's own queue, so this connect may come too early and be lost;
        // the next tick repeats it.
        m_impl->m_client->connectToXpc();
        m_impl->m_client->connect();
    };
    // Runs from the start, unasked: only the daemon's answer ends the asking.
    m_impl->m_timer = cmn::BaseTimer(reconnectInterval, onTick, false);
    m_impl->m_timer.run();
}
