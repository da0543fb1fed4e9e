#pragma once

#include <systemd/sd-bus.h>

#include <string>
#include <string_view>
#include <vector>

#include "velmmonitord/XpcProtocols.h"

/// The D-Bus shape of a protocol table. A method's member is its selector up to the first colon; its
/// arguments have the types b (BOOL), i (int), x (NSInteger), ay (NSData), s (NSString); a reply block is the
/// method's one returned value, b, v or s. All functions are pure; any thread.
namespace platform::dbus {

/// The signature of the arguments, empty if there are none; the reply block does not count.
std::string argumentSignature(const XpcMethod& method);

/// The signature of what the method returns: one type, or empty for a method without a reply block.
std::string replySignature(const XpcMethod& method);

/// One name an argument, in order. From the second argument on it is the selector's label; the first argument
/// has no label of its own (the first one names the method) and is called after its type.
std::vector<std::string> argumentNames(const XpcMethod& method);

/// What introspection calls the value that a method with a reply block returns.
inline constexpr const char* replyName = "reply";

/// The method whose calls carry `member`, or null. `member` may be null.
const XpcMethod* findMember(const XpcProtocol& protocol, const char* member);

/// The interface of `protocol` as a document of the D-Bus introspection format, ending in a line feed.
std::string interfaceXml(const XpcProtocol& protocol);

/// What introspection says of an object that has only the child `child`.
std::string parentXml(const std::string& child);

/// A table for sd_bus_add_object_vtable with every method of a protocol, all handled by one function, which
/// tells them apart with `findMember`. The methods are open to unprivileged callers: sd-bus's own test would
/// admit root only, and who may call is for the handler to decide.
///
/// sd-bus keeps pointers into the table, so this object must outlive the slot that it was registered for.
class ProtocolVTable {
public:
    /// `protocol` is not kept.
    ProtocolVTable(const XpcProtocol& protocol, sd_bus_message_handler_t handler);
    ProtocolVTable(const ProtocolVTable&) = delete;
    ProtocolVTable& operator=(const ProtocolVTable&) = delete;
    ProtocolVTable(ProtocolVTable&&) = delete;
    ProtocolVTable& operator=(ProtocolVTable&&) = delete;
    ~ProtocolVTable() = default;

    /// The table from its start entry to its end entry; valid as long as this object.
    const sd_bus_vtable* data() const noexcept { return m_entries.data(); }

private:
    // The texts that one entry points to.
    struct Texts {
        std::string member;
        std::string arguments;
        std::string reply;
        std::string names;
    };

    std::vector<Texts> m_texts;
    std::vector<sd_bus_vtable> m_entries;
};

}  // namespace platform::dbus
