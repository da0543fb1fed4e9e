#include "platform/linux/link/Outbox.h"

#include <sys/eventfd.h>

#include <utility>

namespace platform {
namespace {

// A message costs its header too.
constexpr std::size_t headerBytes = 256;

std::size_t sizeOf(const OutgoingCall& call) {
    return call.payload() + headerBytes;
}

}  // namespace

Outbox::Outbox() : m_wakeUp(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

void Outbox::open() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_state = State::Open;
}

void Outbox::close() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_state = State::Closed;
    notify();
}

bool Outbox::isOpen() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_state != State::Closed;
}

bool Outbox::append(OutgoingCall call) {
    const std::size_t size = sizeOf(call);
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_state == State::Closed) {
        return false;
    }
    m_used = true;
    if (m_state == State::Open && fits(call, size)) {
        const bool wantsReply = call.wantsReply();
        m_calls.push_back(std::move(call));
        // What there was no memory for takes no room.
        m_bytes += size;
        m_replies += wantsReply ? 1U : 0U;
    }
    notify();
    return true;
}

bool Outbox::fits(const OutgoingCall& call, std::size_t size) const {
    return call.payload() <= largestPayload && m_bytes + size <= bytesLimit && m_calls.size() < callsLimit &&
           (!call.wantsReply() || m_replies < repliesLimit);
}

bool Outbox::used() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_used;
}

void Outbox::clearWakeUp() {
    eventfd_t count = 0;
    eventfd_read(m_wakeUp.get(), &count);
}

std::optional<OutgoingCall> Outbox::take() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_calls.empty()) {
        return std::nullopt;
    }
    std::optional<OutgoingCall> call(std::move(m_calls.front()));
    m_calls.pop_front();
    m_bytes -= sizeOf(*call);
    return call;
}

void Outbox::replySettled() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    --m_replies;
}

void Outbox::sink() {
    std::deque<OutgoingCall> dropped;
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_state = m_state == State::Open ? State::Sink : m_state;
    dropped.swap(m_calls);
    m_bytes = 0;
    m_replies = 0;
}

bool Outbox::awaitUse() {
    std::unique_lock<std::mutex> lock(m_mutex);
    m_changed.wait(lock, [this] { return m_used || m_state == State::Closed; });
    return m_state != State::Closed;
}

bool Outbox::staysOpenFor(std::chrono::steady_clock::duration span) {
    std::unique_lock<std::mutex> lock(m_mutex);
    return !m_changed.wait_for(lock, span, [this] { return m_state == State::Closed; });
}

void Outbox::notify() {
    m_changed.notify_all();
    wake();
}

void Outbox::wake() {
    eventfd_write(m_wakeUp.get(), 1);
}

}  // namespace platform
