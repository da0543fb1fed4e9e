#pragma once

#import <dispatch/dispatch.h>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>

#include "platform/XpcConnection.h"

#pragma clang assume_nonnull begin

namespace platform {

/// The way from the system to the agent: every call, reply and loss of one connection comes through here and
/// is delivered one at a time, in order, with no lock held.
///
/// It makes of what the system's documents promise what XpcConnection.h does. Nothing is delivered before the
/// connection has sent something; one loss is reported, at the pace of LossPacing; calls and replies that
/// come later than the loss, or than the release of the connection, are dropped. Any thread.
class XpcDelivery : public std::enable_shared_from_this<XpcDelivery> {
public:
    enum class Loss { Interruption, Invalidation };

    XpcDelivery();
    XpcDelivery(const XpcDelivery&) = delete;
    XpcDelivery& operator=(const XpcDelivery&) = delete;
    ~XpcDelivery() = default;

    /// The handler of one kind of loss; an empty one clears. May be called by the handler itself.
    void setHandler(Loss loss, IXpcConnection::Handler handler);

    /// Runs `work`, a call or a reply, and returns when it has run or was dropped. Waits for the first
    /// message, so a daemon that calls early and often is held up and not stored. An exception ends the
    /// process.
    template <typename Work>
    void deliver(const Work& work) noexcept {
        runInTurn(std::cref(work));
    }

    /// The connection is lost: delivers nothing more but, in its turn and time, the handler. Returns at once.
    void lose(Loss loss) noexcept;

    /// A message was handed to the system: what waits for the first one may begin.
    void messageSent() noexcept;

    /// The agent let go of the connection: delivers nothing more. To be called once, before the last
    /// reference goes.
    void release() noexcept;

private:
    enum class State { Open, Lost, Released };

    void runInTurn(const std::function<void()>& work) noexcept;
    void report(Loss loss);
    IXpcConnection::Handler& handlerOf(Loss loss);

    // Suspended until the first message or the release.
    dispatch_queue_t const m_queue;
    std::atomic<bool> m_started{false};
    std::atomic<State> m_state{State::Open};
    std::mutex m_mutex;  // of the handlers
    IXpcConnection::Handler m_interruption;
    IXpcConnection::Handler m_invalidation;
};

}  // namespace platform

#pragma clang assume_nonnull end
