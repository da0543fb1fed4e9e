#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "platform/linux/bus/BusHandles.h"

/// The other end of a bus connection: sends bytes, and no program of the bus looks at them before. What comes
/// is what a program sees that a broken or hostile bus talks to.
class RawMessage {
public:
    /// The bytes of a whole message, or of several.
    explicit RawMessage(std::string bytes) : m_bytes(std::move(bytes)) {}

    /// A method call to the agent's object with a header that is in order and `body` as its arguments.
    /// `member` and `signature` are shorter than 256 bytes.
    static RawMessage call(const std::string& member, const std::string& signature, const std::string& body);

    /// Has a connection of its own read the bytes, and calls `received` with each message that the library
    /// takes for one, until it takes offence or the bytes are over.
    void deliver(const std::function<void(sd_bus_message*)>& received) const;

private:
    std::string m_bytes;
};
