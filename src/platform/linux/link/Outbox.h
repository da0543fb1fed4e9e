#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <mutex>
#include <optional>

#include "platform/linux/link/OutgoingCall.h"
#include "platform/linux/process/FileDescriptor.h"

namespace platform {

/// Where senders leave their calls for the one thread that has the bus. Senders never wait: what does not fit
/// is dropped, and so is everything before it is opened and after it is closed.
///
/// It also is the link's life as senders see it: open from `resume` until the link was released or has
/// reported its loss. Safe on any thread, except what is marked as the private thread's. Calls are destroyed
/// without the mutex held, for their reply blocks hold what is not ours.
class Outbox {
public:
    // Larger calls the system bus would answer by cutting the connection (dbus-daemon(1), max_message_size in
    // its system configuration); the margin is for the message's header.
    static constexpr std::size_t largestPayload = std::size_t{32} * 1024 * 1024 - 4096;
    // The three limits on what waits here: bytes, which have room for two of the largest; calls; and calls
    // whose answers are awaited, of which the bus lets one connection have 128 (dbus-daemon(1),
    // max_replies_per_connection).
    static constexpr std::size_t bytesLimit = 2 * largestPayload;
    static constexpr std::size_t callsLimit = 16384;
    static constexpr std::size_t repliesLimit = 100;

    Outbox();
    ~Outbox() = default;
    Outbox(const Outbox&) = delete;
    Outbox& operator=(const Outbox&) = delete;

    /// Accepts calls from here on.
    void open();
    /// Accepts none any more; those that are here can still be taken.
    void close();
    bool isOpen() const;

    /// Leaves a call here, unless it does not fit; false if the outbox is not open. Throws std::bad_alloc if
    /// there is no memory for it; then it is as if it had not fitted.
    bool append(OutgoingCall call);
    /// Whether any call was appended while it was open, also one that was dropped.
    bool used() const;

    // On the private thread.

    /// Readable when there is something new to look at; -1 if the system has no descriptors left.
    int wakeUp() const { return m_wakeUp.get(); }
    /// Makes it readable.
    void wake();
    /// Takes note of it.
    void clearWakeUp();
    /// The oldest call.
    std::optional<OutgoingCall> take();
    /// An answer that was counted in `append` is awaited no more.
    void replySettled();
    /// Drops what is here, and keeps nothing that is appended later; `used` goes on to tell.
    void sink();
    /// Waits until it was used; false once it is closed.
    bool awaitUse();
    /// Waits that long; false as soon as it is closed.
    bool staysOpenFor(std::chrono::steady_clock::duration span);

private:
    enum class State { Closed, Open, Sink };

    bool fits(const OutgoingCall& call, std::size_t size) const;
    void notify();

    const FileDescriptor m_wakeUp;
    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    State m_state = State::Closed;
    bool m_used = false;
    std::deque<OutgoingCall> m_calls;
    std::size_t m_bytes = 0;
    std::size_t m_replies = 0;
};

}  // namespace platform
