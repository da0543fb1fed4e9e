#include "platform/linux/bus/BusConnection.h"

#include <cerrno>
#include <utility>

#include "platform/linux/bus/BusCallback.h"
#include "platform/linux/bus/Refusal.h"
#include "platform/linux/process/OutHandle.h"

namespace platform {
namespace {

bool namesNoBus(int error) {
    return error == -ENOMEDIUM || error == -ENXIO;
}

}  // namespace

BusConnection::BusConnection(sd_event* loop, Open openBus, Backoff retry, Handlers handlers)
    : m_loop(loop), m_open(openBus), m_retry(retry), m_handlers(std::move(handlers)), m_timer(loop, [this] {
          attempt();
      }) {}

void BusConnection::start() {
    m_retry.reset();
    attempt();
}

void BusConnection::attempt() {
    m_timer.stop();
    const int error = tryOpen();
    if (error >= 0) {
        m_handlers.opened(m_bus.get());
        return;
    }
    release();
    const bool isAwaited = m_handlers.isAwaited && m_handlers.isAwaited();
    if (!namesNoBus(error) && !isAwaited) {
        m_timer.start(m_retry.next());
    }
}

int BusConnection::tryOpen() {
    release();
    const int error = m_open(OutHandle(m_bus));
    return error < 0 ? error : prepare();
}

int BusConnection::prepare() {
    sd_bus* const bus = m_bus.get();
    int error = sd_bus_attach_event(bus, m_loop, SD_EVENT_PRIORITY_NORMAL);
    if (error >= 0) {
        error = sd_bus_add_filter(bus, OutHandle(m_filter),
                                  &busCallback<&BusConnection::filter, BusConnection>, this);
    }
    if (error >= 0) {
        // The library posts this one itself, so nobody on the bus can forge it.
        error = sd_bus_match_signal_async(
            bus, OutHandle(m_disconnected), nullptr, "/org/freedesktop/DBus/Local",
            "org.freedesktop.DBus.Local", "Disconnected",
            &busCallback<&BusConnection::disconnected, BusConnection>, nullptr, this);
    }
    if (error >= 0) {
        // Connecting proves little: a bus may still turn us away. One that answers is there.
        error = sd_bus_call_method_async(bus, OutHandle(m_answered), "org.freedesktop.DBus",
                                         "/org/freedesktop/DBus", "org.freedesktop.DBus", "GetId",
                                         &busCallback<&BusConnection::answered, BusConnection>, this, "");
    }
    return error;
}

void BusConnection::release() {
    m_filter.reset();
    m_disconnected.reset();
    m_answered.reset();
    m_bus.reset();
}

/// Sees each message before the library, which would answer some calls by itself: nothing is offered here.
int BusConnection::filter(sd_bus_message* message, sd_bus_error* error) {
    const bool isCall = sd_bus_message_is_method_call(message, nullptr, nullptr) > 0;
    return isCall ? refuseCall(m_bus.get(), error, "The agent is not to be called here") : 0;
}

void BusConnection::disconnected(sd_bus_message* /*message*/) {
    m_handlers.lost();
    // The bus itself is still inside its own processing; the next attempt releases it.
    m_timer.start(m_retry.next());
}

void BusConnection::answered(sd_bus_message* message) {
    if (sd_bus_message_is_method_error(message, nullptr) == 0) {
        m_retry.reset();
    }
}

}  // namespace platform
