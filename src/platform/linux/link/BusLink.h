#pragma once

#include <cstddef>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/XpcConnection.h"
#include "platform/linux/bus/BusHandles.h"
#include "platform/linux/link/AgentCalls.h"
#include "platform/linux/link/DaemonOwner.h"
#include "platform/linux/link/ProtocolVTable.h"
#include "platform/linux/process/FileDescriptor.h"

namespace platform {

/// What a connection, its proxies and its private thread share: one bus connection of its own, and all that
/// happens on it.
///
/// One mutex guards every touch of the bus, of a message and of a slot, because none of their reference
/// counts is atomic. What sd-bus calls back only decodes into plain values and appends to `m_deliveries`; the
/// private thread runs those after it released the mutex, and it polls without the mutex, so senders never
/// wait for the daemon or for a handler.
///
/// A link is over with its first loss, which it reports once: the owner of the service went away or was
/// replaced (interruption), or the bus was lost or could not be opened (invalidation). A link that has sent
/// nothing has nothing to lose and reports nothing.
///
/// All operations are safe on any thread.
class BusLink : public std::enable_shared_from_this<BusLink> {
public:
    using AppendArguments = std::function<int(sd_bus_message* call)>;
    /// Reads an answer under the mutex; what it returns, if anything, runs on the private thread.
    using ReadReply = std::function<std::function<void()>(sd_bus_message* answer)>;

    explicit BusLink(std::string serviceName);
    ~BusLink();
    BusLink(const BusLink&) = delete;
    BusLink& operator=(const BusLink&) = delete;

    void setRemoteProtocol(const XpcProtocol& protocol);
    void exportObject(const XpcProtocol& protocol);
    void exportObject(std::shared_ptr<XpcAgentProtocol> object);
    void setInterruptionHandler(IXpcConnection::Handler handler);
    void setInvalidationHandler(IXpcConnection::Handler handler);

    /// Opens the bus and starts the private thread. Once.
    void resume();

    /// Sends a call of `method` with the arguments that `append` adds, about `payload` bytes of them. With
    /// `readReply` an answer is waited for, without a time-out. Lost quietly before `resume`, after the link
    /// was lost or released, if the message is larger than the bus carries, and while the bus takes no more.
    void send(const XpcMethod& method, std::size_t payload, const AppendArguments& append,
              ReadReply readReply = nullptr);

    /// Ends the link: from now on no handler is called, the exported object is let go, and the thread ends.
    /// Never waits.
    void release();

private:
    enum class State {
        Set,      ///< not yet resumed
        Running,  ///< the bus is open, or opening
        Lost,     ///< the bus is gone; m_loss says how
    };
    enum class Loss { None, Interruption, Invalidation };
    using Deliveries = std::vector<std::function<void()>>;
    struct PendingReply {
        BusLink* link;
        ReadReply read;
        SlotHandle slot;
    };
    struct Wait {
        int busFd;  ///< -1: only a wake-up ends the wait
        short busEvents;
        int milliseconds;  ///< -1: without end
    };

    static int onCall(sd_bus_message* message, void* self, sd_bus_error* error);
    static int onReply(sd_bus_message* message, void* pending, sd_bus_error* error);

    // On the private thread, without the mutex.
    void run();
    std::optional<Wait> turn();
    void deliver(const Deliveries& deliveries) const;
    void reportLoss();
    void waitFor(const Wait& wait) const;

    // With the mutex held.
    void startThread();
    bool openBus();
    void closeBus();
    bool process();
    bool lossShows() const { return m_loss != Loss::None && m_sent && !m_lossReported; }
    Wait nextWait() const;
    MessageHandle newCall(const XpcMethod& method, const AppendArguments& append) const;
    void enqueue(MessageHandle call, ReadReply readReply);
    int answer(sd_bus_message* call, sd_bus_error* error);
    int hold(sd_bus_message* call, sd_bus_error* error);
    int accept(sd_bus_message* call, sd_bus_error* error);
    void decideHeldCalls();
    std::size_t unwrittenMessages() const;

    void wake() const;
    std::shared_ptr<XpcAgentProtocol> exportedObject() const;
    bool released() const;

    const std::string m_serviceName;
    FileDescriptor m_wakeUp;

    mutable std::mutex m_mutex;
    State m_state = State::Set;
    Loss m_loss = Loss::None;
    bool m_lossReported = false;
    bool m_sent = false;
    bool m_released = false;
    bool m_threadStarted = false;
    const XpcProtocol* m_remoteProtocol = nullptr;
    const XpcProtocol* m_exportedProtocol = nullptr;
    std::shared_ptr<XpcAgentProtocol> m_exportedObject;
    IXpcConnection::Handler m_interruptionHandler;
    IXpcConnection::Handler m_invalidationHandler;
    Deliveries m_deliveries;
    std::vector<ReadReply> m_droppedReplies;  // what they capture may be released only without the mutex
    std::size_t m_unwrittenBytes = 0;

    // What follows belongs to the bus.
    BusHandle m_bus;
    std::optional<dbus::ProtocolVTable> m_vtable;
    SlotHandle m_exportedSlot;
    DaemonOwner m_owner;
    std::vector<MessageHandle> m_heldCalls;
    std::list<PendingReply> m_pendingReplies;
};

}  // namespace platform
