#pragma once

#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <string>

#include "platform/linux/bus/BusHandles.h"
#include "platform/linux/link/Gate.h"
#include "platform/linux/link/Loss.h"
#include "platform/linux/link/Outbox.h"
#include "platform/linux/runloop/EventHandles.h"
#include "velmmonitord/XpcProtocols.h"

namespace platform {

/// What a link does on its private thread while it has a bus: an event loop that sends what is in the outbox,
/// and delivers calls and replies as they come off the bus. Nothing outside this thread touches the bus, its
/// messages or its slots, for none of their reference counts is atomic and one look at the bus may take its
/// time.
class LinkLoop {
public:
    struct Ends {
        std::string serviceName;
        const XpcProtocol* exported;  ///< null: there is nothing to call
        /// The object that the daemon calls; null once there is none.
        std::function<std::shared_ptr<XpcAgentProtocol>()> receiver;
    };

    /// Everything that is passed must outlive the loop.
    LinkLoop(Ends ends, Outbox& outbox, Loss& loss);
    /// Destroys the reply blocks that were never called.
    ~LinkLoop() = default;
    LinkLoop(const LinkLoop&) = delete;
    LinkLoop& operator=(const LinkLoop&) = delete;

    /// Opens the bus and serves it until the loss is noted or the outbox is closed. In the latter case, what
    /// the bus takes without waiting still goes out.
    void run();

private:
    /// A call whose answer is awaited.
    struct PendingReply {
        LinkLoop* loop;
        ReplyBlock block;
        SlotHandle slot;

        void answered(sd_bus_message* message);
    };

    bool open();
    bool makeLoop();
    bool watchOutbox();
    bool openBus();
    bool watchBus();
    void awake();
    void afterEvent();
    void transfer();
    void send(OutgoingCall call);
    void drop(const OutgoingCall& call);
    void daemonLost();
    void lose(Loss::Kind kind);
    void disconnected(sd_bus_message* message);
    bool hasUnwritten() const;

    const Ends m_ends;
    Outbox& m_outbox;
    Loss& m_loss;
    LoopHandle m_loop;
    SourceHandle m_wakeUp;
    SourceHandle m_afterEvent;
    BusHandle m_bus;
    SlotHandle m_disconnected;
    std::optional<Gate> m_gate;
    std::list<PendingReply> m_pending;
};

}  // namespace platform
