#include "platform/linux/link/LinkLoop.h"

#include <sys/epoll.h>

#include <cstdint>
#include <utility>

#include "platform/linux/bus/BusCallback.h"
#include "platform/linux/bus/OpenBus.h"
#include "platform/linux/process/OutHandle.h"
#include "platform/linux/runloop/EventCallback.h"

namespace platform {
namespace {

// Between two looks at the bus, so that neither side starves the other.
constexpr int callsAtOnce = 128;

}  // namespace

LinkLoop::LinkLoop(Ends ends, Outbox& outbox, Loss& loss)
    : m_ends(std::move(ends)), m_outbox(outbox), m_loss(loss) {}

void LinkLoop::run() {
    if (!open() || sd_event_loop(m_loop.get()) < 0) {
        m_loss.note(Loss::Kind::Invalidation);
    }
    if (!m_loss.isNoted()) {
        transfer();
    }
}

bool LinkLoop::open() {
    return makeLoop() && watchOutbox() && openBus() && watchBus();
}

bool LinkLoop::makeLoop() {
    return sd_event_new(OutHandle(m_loop)) >= 0;
}

bool LinkLoop::watchOutbox() {
    return sd_event_add_io(m_loop.get(), OutHandle(m_wakeUp), m_outbox.wakeUp(), EPOLLIN,
                           &eventCallback<&LinkLoop::awake, LinkLoop>, this) >= 0 &&
           sd_event_add_post(m_loop.get(), OutHandle(m_afterEvent),
                             &eventCallback<&LinkLoop::afterEvent, LinkLoop>, this) >= 0;
}

bool LinkLoop::openBus() {
    return openSystemBus(OutHandle(m_bus)) >= 0;
}

bool LinkLoop::watchBus() {
    if (sd_bus_attach_event(m_bus.get(), m_loop.get(), SD_EVENT_PRIORITY_NORMAL) < 0) {
        return false;
    }
    // The library posts this one itself, so nobody on the bus can forge it.
    sd_bus_match_signal_async(m_bus.get(), OutHandle(m_disconnected), nullptr, "/org/freedesktop/DBus/Local",
                              "org.freedesktop.DBus.Local", "Disconnected",
                              &busCallback<&LinkLoop::disconnected, LinkLoop>, nullptr, this);
    m_gate.emplace(m_bus.get(), m_ends.serviceName, m_ends.exported,
                   Gate::Callbacks{[this] { daemonLost(); }, m_ends.receiver,
                                   [this] { m_loss.callDelivered(Loss::Clock::now()); }});
    return true;
}

void LinkLoop::awake() {
    m_outbox.clearWakeUp();
    if (!m_outbox.isOpen()) {
        sd_event_exit(m_loop.get(), 0);
    } else if (m_gate->way() == Gate::Way::Unknown) {
        // The question may not have gone out at all; what waits in the outbox would wait for ever.
        m_gate->doubt();
    }
}

/// Whatever happened may have made room on the bus, or shown who the daemon is.
void LinkLoop::afterEvent() {
    if (!m_loss.isNoted()) {
        transfer();
    }
}

void LinkLoop::transfer() {
    if (m_outbox.used()) {
        m_gate->listen();
    }
    for (int count = 0; count < callsAtOnce; ++count) {
        const Gate::Way way = m_gate->way();
        if (way == Gate::Way::Unknown || hasUnwritten()) {
            return;
        }
        std::optional<OutgoingCall> call = m_outbox.take();
        if (!call) {
            return;
        }
        if (way == Gate::Way::Clear) {
            send(std::move(*call));
        } else {
            drop(*call);
        }
        m_gate->doubt();
    }
    m_outbox.wake();
}

void LinkLoop::send(OutgoingCall call) {
    const MessageHandle message = encodeCall(m_bus.get(), m_gate->daemon(), call);
    if (!message) {
        drop(call);
    } else if (!call.wantsReply()) {
        sd_bus_send(m_bus.get(), message.get(), nullptr);
    } else {
        m_pending.push_back({this, std::move(call.reply), nullptr});
        PendingReply& pending = m_pending.back();
        // Without a time-out of its own: the bus has none either.
        if (sd_bus_call_async(m_bus.get(), OutHandle(pending.slot), message.get(),
                              &busCallback<&PendingReply::answered, PendingReply>, &pending, 0) < 0) {
            m_pending.pop_back();
            m_outbox.replySettled();
        }
    }
}

void LinkLoop::drop(const OutgoingCall& call) {
    if (call.wantsReply()) {
        m_outbox.replySettled();
    }
}

void LinkLoop::PendingReply::answered(sd_bus_message* message) {
    LinkLoop& owner = *loop;
    // Out of the list first: the block may do what it likes.
    std::list<PendingReply> answered;
    for (auto entry = owner.m_pending.begin(); entry != owner.m_pending.end(); ++entry) {
        if (&*entry == this) {
            answered.splice(answered.begin(), owner.m_pending, entry);
            break;
        }
    }
    owner.m_outbox.replySettled();
    if (owner.m_outbox.isOpen() && deliverReply(block, message)) {
        owner.m_loss.callDelivered(Loss::Clock::now());
    }
}

void LinkLoop::daemonLost() {
    // Before anything was sent there was no link to it, only the chance of one.
    if (m_outbox.used()) {
        lose(Loss::Kind::Interruption);
    }
}

void LinkLoop::lose(Loss::Kind kind) {
    m_loss.note(kind);
    sd_event_exit(m_loop.get(), 0);
}

void LinkLoop::disconnected(sd_bus_message* /*message*/) {
    lose(Loss::Kind::Invalidation);
}

bool LinkLoop::hasUnwritten() const {
    std::uint64_t count = 0;
    return sd_bus_get_n_queued_write(m_bus.get(), &count) >= 0 && count > 0;
}

}  // namespace platform
