#include "platform/linux/link/BusLink.h"

#include <poll.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <ctime>
#include <limits>
#include <string_view>
#include <utility>

#include "platform/LossPacing.h"
#include "platform/linux/bus/OpenBus.h"
#include "platform/linux/link/WireNames.h"
#include "platform/linux/process/OutHandle.h"
#include "platform/linux/runloop/PrivateThreads.h"

namespace platform {
namespace {

// The system bus cuts a connection that sends more than this in one message (dbus-daemon(1), max_message_size
// in its system configuration); the margin is for the message's header.
constexpr std::size_t largestPayload = std::size_t{32} * 1024 * 1024 - 4096;

// What may wait here for a bus that does not read: room for two of the largest messages.
constexpr std::size_t unwrittenBytesLimit = 2 * largestPayload;
constexpr std::size_t unwrittenMessagesLimit = 16384;

// The bus answers more than 128 open calls of one connection with an error (dbus-daemon(1),
// max_replies_per_connection).
constexpr std::size_t pendingRepliesLimit = 100;

// A daemon has no reason to call before it was asked to connect, and by then the bus has said who runs it.
constexpr std::size_t heldCallsLimit = 128;

// A message costs its header too.
constexpr std::size_t headerBytes = 256;

constexpr std::uint64_t withoutTimeout = std::numeric_limits<std::uint64_t>::max();

int millisecondsUntil(std::uint64_t monotonicMicroseconds) {
    if (monotonicMicroseconds == withoutTimeout) {
        return -1;
    }
    const auto due = std::chrono::microseconds(monotonicMicroseconds);
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(due - now).count();
    return static_cast<int>(std::clamp<std::int64_t>(left, 0, std::numeric_limits<int>::max()));
}

bool isError(sd_bus_message* message) {
    return sd_bus_message_is_method_error(message, nullptr) != 0;
}

}  // namespace

BusLink::BusLink(std::string serviceName)
    : m_serviceName(std::move(serviceName)),
      m_wakeUp(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      m_owner({[this] {
                   // Before anything was sent there was no link to this owner, only the chance of one.
                   if (m_sent) {
                       m_loss = Loss::Interruption;
                   }
               },
               [this] { decideHeldCalls(); }}) {}

BusLink::~BusLink() = default;

void BusLink::setRemoteProtocol(const XpcProtocol& protocol) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_remoteProtocol = &protocol;
}

void BusLink::exportObject(const XpcProtocol& protocol) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_exportedProtocol = &protocol;
}

void BusLink::exportObject(std::shared_ptr<XpcAgentProtocol> object) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_exportedObject.swap(object);
}

void BusLink::setInterruptionHandler(IXpcConnection::Handler handler) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_interruptionHandler.swap(handler);
}

void BusLink::setInvalidationHandler(IXpcConnection::Handler handler) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_invalidationHandler.swap(handler);
}

void BusLink::resume() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_state != State::Set || m_released) {
        return;
    }
    m_state = State::Running;
    if (!openBus()) {
        closeBus();
        m_loss = Loss::Invalidation;
    }
    startThread();
}

void BusLink::startThread() {
    m_threadStarted = PrivateThreads::instance().start(
        "velm-link", [self = shared_from_this()] { self->run(); },
        [weak = weak_from_this()] {
            if (const auto self = weak.lock()) {
                self->release();
            }
        });
}

void BusLink::release() {
    std::shared_ptr<XpcAgentProtocol> object;
    IXpcConnection::Handler interruption;
    IXpcConnection::Handler invalidation;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_released = true;
        m_exportedObject.swap(object);
        m_interruptionHandler.swap(interruption);
        m_invalidationHandler.swap(invalidation);
    }
    wake();
}

void BusLink::send(const XpcMethod& method, std::size_t payload, const AppendArguments& append,
                   ReadReply readReply) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_state == State::Set || m_released || payload > largestPayload) {
        return;
    }
    m_sent = true;
    if (!m_threadStarted) {
        // The system was out of threads when the link was resumed; a link without one would never show its
        // loss.
        startThread();
    }
    if (m_state == State::Lost) {
        wake();
        return;
    }
    const std::size_t size = payload + headerBytes;
    if (m_unwrittenBytes + size > unwrittenBytesLimit || unwrittenMessages() >= unwrittenMessagesLimit ||
        (readReply && m_pendingReplies.size() >= pendingRepliesLimit)) {
        return;
    }
    if (MessageHandle call = newCall(method, append)) {
        enqueue(std::move(call), std::move(readReply));
    }
    if (unwrittenMessages() > 0) {
        m_unwrittenBytes += size;
        wake();
    } else {
        m_unwrittenBytes = 0;
    }
}

bool BusLink::openBus() {
    if (openSystemBus(OutHandle(m_bus)) < 0) {
        return false;
    }
    sd_bus* const bus = m_bus.get();
    if (m_exportedProtocol != nullptr) {
        m_vtable.emplace(*m_exportedProtocol, onCall);
        if (sd_bus_add_object_vtable(bus, OutHandle(m_exportedSlot), dbus::agentObjectPath,
                                     dbus::interfaceName(*m_exportedProtocol).c_str(), m_vtable->data(),
                                     this) < 0) {
            return false;
        }
    }
    m_owner.start(bus, m_serviceName);
    return true;
}

void BusLink::closeBus() {
    for (PendingReply& pending : m_pendingReplies) {
        m_droppedReplies.push_back(std::move(pending.read));
    }
    m_pendingReplies.clear();
    m_heldCalls.clear();
    m_owner.stop();
    m_exportedSlot.reset();
    m_bus.reset();
    m_vtable.reset();
    m_state = State::Lost;
}

void BusLink::run() {
    while (const std::optional<Wait> wait = turn()) {
        waitFor(*wait);
    }
}

/// Takes at most one message off the bus and runs what came of it. Nothing once the link is over.
std::optional<BusLink::Wait> BusLink::turn() {
    Deliveries deliveries;
    std::vector<ReadReply> dropped;
    std::optional<Wait> wait;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (m_released || m_lossReported) {
            closeBus();
        } else {
            const bool progress = process();
            wait = nextWait();
            if (progress) {
                wait->milliseconds = 0;
            }
            if (lossShows()) {
                const auto tooSoon = LossPacing::instance().acquire(LossPacing::Clock::now());
                m_lossReported = tooSoon == LossPacing::Clock::duration::zero();
                wait->milliseconds =
                    static_cast<int>(std::chrono::ceil<std::chrono::milliseconds>(tooSoon).count());
            }
            if (m_lossReported) {
                m_deliveries.emplace_back([this] { reportLoss(); });
            }
        }
        deliveries.swap(m_deliveries);
        dropped.swap(m_droppedReplies);
    }
    deliver(deliveries);
    return wait;
}

bool BusLink::process() {
    if (m_state != State::Running) {
        return false;
    }
    const int result = sd_bus_process(m_bus.get(), nullptr);
    if (m_loss == Loss::None && (result < 0 || sd_bus_is_open(m_bus.get()) <= 0)) {
        m_loss = Loss::Invalidation;
    }
    if (m_loss != Loss::None) {
        closeBus();
        return true;
    }
    if (unwrittenMessages() == 0) {
        m_unwrittenBytes = 0;
    }
    return result > 0;
}

BusLink::Wait BusLink::nextWait() const {
    if (m_state != State::Running) {
        return {-1, 0, -1};
    }
    const int events = sd_bus_get_events(m_bus.get());
    std::uint64_t due = withoutTimeout;
    if (events < 0 || sd_bus_get_timeout(m_bus.get(), &due) < 0) {
        return {-1, 0, 0};
    }
    return {sd_bus_get_fd(m_bus.get()), static_cast<short>(events), millisecondsUntil(due)};
}

void BusLink::waitFor(const Wait& wait) const {
    std::array<pollfd, 2> fds{{{m_wakeUp.get(), POLLIN, 0}, {wait.busFd, wait.busEvents, 0}}};
    // Without an eventfd, for want of descriptors, nothing can wake the wait: it looks for itself once a
    // second.
    const bool unwakeable = !m_wakeUp && (wait.milliseconds < 0 || wait.milliseconds > 1000);
    poll(fds.data(), fds.size(), unwakeable ? 1000 : wait.milliseconds);
    if (fds[0].revents != 0) {
        eventfd_t count = 0;
        eventfd_read(m_wakeUp.get(), &count);
    }
}

void BusLink::deliver(const Deliveries& deliveries) const {
    for (const auto& delivery : deliveries) {
        if (released()) {
            return;
        }
        delivery();
    }
}

void BusLink::reportLoss() {
    IXpcConnection::Handler interruption;
    IXpcConnection::Handler invalidation;
    Loss loss = Loss::None;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_interruptionHandler.swap(interruption);
        m_invalidationHandler.swap(invalidation);
        loss = m_loss;
    }
    const IXpcConnection::Handler& handler = loss == Loss::Interruption ? interruption : invalidation;
    if (handler) {
        handler();
    }
}

MessageHandle BusLink::newCall(const XpcMethod& method, const AppendArguments& append) const {
    if (m_remoteProtocol == nullptr) {
        return nullptr;
    }
    MessageHandle call;
    const int result = sd_bus_message_new_method_call(
        m_bus.get(), OutHandle(call), m_serviceName.c_str(), dbus::daemonObjectPath,
        dbus::interfaceName(*m_remoteProtocol).c_str(), std::string(method.member()).c_str());
    return result >= 0 && append(call.get()) >= 0 ? std::move(call) : nullptr;
}

void BusLink::enqueue(MessageHandle call, ReadReply readReply) {
    if (!readReply) {
        sd_bus_send(m_bus.get(), call.get(), nullptr);
        return;
    }
    m_pendingReplies.push_back({this, std::move(readReply), nullptr});
    PendingReply& pending = m_pendingReplies.back();
    if (sd_bus_call_async(m_bus.get(), OutHandle(pending.slot), call.get(), onReply, &pending,
                          withoutTimeout) < 0) {
        m_droppedReplies.push_back(std::move(pending.read));
        m_pendingReplies.pop_back();
    }
}

int BusLink::onReply(sd_bus_message* message, void* pending, sd_bus_error* /*error*/) {
    auto* reply = static_cast<PendingReply*>(pending);
    BusLink* link = reply->link;
    if (!isError(message)) {
        if (auto delivery = reply->read(message)) {
            link->m_deliveries.push_back(std::move(delivery));
        }
    }
    link->m_droppedReplies.push_back(std::move(reply->read));
    link->m_pendingReplies.remove_if([reply](const PendingReply& entry) { return &entry == reply; });
    return 0;
}

int BusLink::onCall(sd_bus_message* message, void* self, sd_bus_error* error) {
    return static_cast<BusLink*>(self)->answer(message, error);
}

int BusLink::answer(sd_bus_message* call, sd_bus_error* error) {
    if (!m_owner.sent(call) || m_owner.trust() == DaemonOwner::Trust::Untrusted) {
        return sd_bus_error_set(error, SD_BUS_ERROR_ACCESS_DENIED, "Only the daemon may call the agent");
    }
    return m_owner.trust() == DaemonOwner::Trust::Trusted ? accept(call, error) : hold(call, error);
}

int BusLink::hold(sd_bus_message* call, sd_bus_error* error) {
    if (m_heldCalls.size() >= heldCallsLimit) {
        return sd_bus_error_set(error, SD_BUS_ERROR_LIMITS_EXCEEDED,
                                "Too many calls before the caller is known");
    }
    m_heldCalls.emplace_back(sd_bus_message_ref(call));
    return 1;
}

int BusLink::accept(sd_bus_message* call, sd_bus_error* error) {
    const XpcMethod* method = dbus::findMember(*m_exportedProtocol, sd_bus_message_get_member(call));
    if (method == nullptr || !m_exportedObject || !m_exportedObject->respondsToSelector(method->selector)) {
        return sd_bus_error_set(error, SD_BUS_ERROR_UNKNOWN_METHOD,
                                "The agent does not implement this method");
    }
    AgentCall agentCall = decodeAgentCall(*method, call);
    if (!agentCall) {
        return sd_bus_error_set(error, SD_BUS_ERROR_INVALID_ARGS, "The arguments cannot be read");
    }
    m_deliveries.emplace_back([this, agentCall = std::move(agentCall)] {
        if (const auto object = exportedObject()) {
            agentCall(*object);
        }
    });
    return sd_bus_reply_method_return(call, "");
}

void BusLink::decideHeldCalls() {
    std::vector<MessageHandle> calls;
    calls.swap(m_heldCalls);
    for (const MessageHandle& call : calls) {
        sd_bus_error error{};
        if (answer(call.get(), &error) < 0) {
            sd_bus_reply_method_error(call.get(), &error);
        }
        sd_bus_error_free(&error);
    }
}

std::size_t BusLink::unwrittenMessages() const {
    std::uint64_t count = 0;
    sd_bus_get_n_queued_write(m_bus.get(), &count);
    return count;
}

void BusLink::wake() const {
    eventfd_write(m_wakeUp.get(), 1);
}

std::shared_ptr<XpcAgentProtocol> BusLink::exportedObject() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_exportedObject;
}

bool BusLink::released() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_released;
}

}  // namespace platform
