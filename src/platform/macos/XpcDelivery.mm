#import "platform/macos/XpcDelivery.h"

#include <chrono>
#include <utility>

#include "platform/LossPacing.h"
#include "platform/macos/ExceptionBoundary.h"

namespace platform {

XpcDelivery::XpcDelivery()
    : m_queue(dispatch_queue_create("com.brovik.velmmonitord.delivery", DISPATCH_QUEUE_SERIAL)) {
    dispatch_suspend(m_queue);
}

void XpcDelivery::setHandler(Loss loss, IXpcConnection::Handler handler) {
    // The old one goes when the lock is free, as it may hold whatever its maker likes.
    const std::lock_guard<std::mutex> lock(m_mutex);
    handlerOf(loss).swap(handler);
}

void XpcDelivery::lose(Loss loss) noexcept {
    State open = State::Open;
    if (!m_state.compare_exchange_strong(open, State::Lost)) {
        return;
    }
    const std::shared_ptr<XpcDelivery> self = shared_from_this();
    dispatch_async(m_queue, ^{
        atExceptionBoundary([&] { self->report(loss); });
    });
}

void XpcDelivery::messageSent() noexcept {
    if (!m_started.exchange(true)) {
        dispatch_resume(m_queue);
    }
}

void XpcDelivery::release() noexcept {
    m_state = State::Released;
    setHandler(Loss::Interruption, {});
    setHandler(Loss::Invalidation, {});
    // A suspended queue must not be released, and whoever waits in it is let go, to be dropped.
    messageSent();
}

void XpcDelivery::runInTurn(const std::function<void()>& work) noexcept {
    const std::function<void()>* const waiting = &work;
    dispatch_sync(m_queue, ^{
        atExceptionBoundary([&] {
            if (m_state == State::Open) {
                (*waiting)();
                LossPacing::instance().callDelivered(LossPacing::Clock::now());
            }
        });
    });
}

void XpcDelivery::report(Loss loss) {
    if (m_state == State::Released) {
        return;
    }
    const auto tooSoon = LossPacing::instance().acquire(LossPacing::Clock::now());
    if (tooSoon > LossPacing::Clock::duration::zero()) {
        const std::shared_ptr<XpcDelivery> self = shared_from_this();
        const std::chrono::nanoseconds later = tooSoon;
        dispatch_after(dispatch_time(DISPATCH_TIME_NOW, later.count()), m_queue, ^{
            atExceptionBoundary([&] { self->report(loss); });
        });
        return;
    }
    IXpcConnection::Handler handler;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        // A copy, as the handler may clear or replace itself while it runs.
        handler = handlerOf(loss);
    }
    if (handler) {
        handler();
    }
}

IXpcConnection::Handler& XpcDelivery::handlerOf(Loss loss) {
    return loss == Loss::Interruption ? m_interruption : m_invalidation;
}

}  // namespace platform
