#pragma once

#include <list>

#include "platform/linux/bus/BusHandles.h"
#include "velmmonitord/XpcProtocols.h"

namespace platform {

/// Answers Introspect calls of root about the agent's object, and denies everyone else's: an administrator
/// may look at what is on his bus. On the bus's thread.
class RootIntrospection {
public:
    /// `bus` and `protocol`, the interface of the agent's object, must outlive this object.
    RootIntrospection(sd_bus* bus, const XpcProtocol& protocol) : m_bus(bus), m_protocol(protocol) {}
    ~RootIntrospection() = default;
    RootIntrospection(const RootIntrospection&) = delete;
    RootIntrospection& operator=(const RootIntrospection&) = delete;

    /// Whether `message` is a call that this class answers.
    static bool concerns(sd_bus_message* message);
    /// Answers `call` once the bus has said who it comes from; false, and nothing happens, while too many
    /// wait.
    bool answerIfRoot(sd_bus_message* call);

private:
    /// A call whose sender's user is being asked for.
    struct Waiting {
        RootIntrospection* self;
        MessageHandle call;
        SlotHandle question;

        void userTold(sd_bus_message* message);
    };

    void describe(sd_bus_message* call) const;

    sd_bus* m_bus;
    const XpcProtocol& m_protocol;
    std::list<Waiting> m_waiting;
};

}  // namespace platform
