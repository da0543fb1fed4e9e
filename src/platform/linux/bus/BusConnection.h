#pragma once

#include <functional>

#include "platform/linux/bus/BusHandles.h"
#include "platform/linux/runloop/Backoff.h"
#include "platform/linux/runloop/OneShotTimer.h"

namespace platform {

/// A connection to a message bus that an sd-event loop serves and that is opened again whenever it is lost.
/// Never blocks on the bus, and refuses whoever calls. Everything on the loop's thread.
class BusConnection {
public:
    /// openSystemBus or openUserBus.
    using Open = int (*)(sd_bus** bus);
    struct Handlers {
        /// A connection is being made: matches and calls may be queued on `bus`, which lives until `lost`.
        std::function<void(sd_bus* bus)> opened;
        /// That bus is gone; everything made from it is to be released here.
        std::function<void()> lost;
        /// Asked after an attempt that failed: true if somebody calls `start` as soon as the bus may be
        /// there, so that no time is set for the next attempt. May be empty, which stands for false.
        std::function<bool()> isAwaited = nullptr;
    };

    /// Calls nothing yet. `retry` gives the time between attempts.
    BusConnection(sd_event* loop, Open openBus, Backoff retry, Handlers handlers);
    ~BusConnection() = default;
    BusConnection(const BusConnection&) = delete;
    BusConnection& operator=(const BusConnection&) = delete;

    /// Makes the first attempt, or the next one at once. Gives up for good where the environment names no bus
    /// at all, as that cannot change while the process lives. Not while there is a connection.
    void start();

private:
    void attempt();
    int tryOpen();
    int prepare();
    void release();
    int filter(sd_bus_message* message, sd_bus_error* error);
    void disconnected(sd_bus_message* message);
    void answered(sd_bus_message* message);

    sd_event* m_loop;
    Open m_open;
    Backoff m_retry;
    Handlers m_handlers;
    OneShotTimer m_timer;
    BusHandle m_bus;
    SlotHandle m_filter;
    SlotHandle m_disconnected;
    SlotHandle m_answered;
};

}  // namespace platform
