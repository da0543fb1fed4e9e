#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <variant>

// The wire contract between the agent and the management daemon: two protocols, each as an abstract class
// (how this program calls and is called) and as a table (what the wire is made from). Both say the same thing
// in the same order; adding a method means adding it to both.

/// Raw bytes in a message, without framing. Refers to memory of the sender or the receiver of a call and is
/// valid only while that call runs. `bytes` may be null when `length` is 0.
struct XpcData {
    const char* bytes = nullptr;  ///< the first of them
    std::size_t length = 0;       ///< in bytes
};

/// A number in an answer, of whatever kind its sender chose.
using XpcNumber = std::variant<bool, std::int64_t, std::uint64_t, double>;

/// Answers to a call, called at most once, on the private thread of the connection that the call went out on;
/// never called if no answer or an error comes back. Whatever they capture is released when the answer was
/// delivered or the connection is gone.
using XpcBoolReply = std::function<void(bool)>;
using XpcNumberReply = std::function<void(XpcNumber)>;
using XpcStringReply = std::function<void(const std::string&)>;

/// What the daemon exports and the agent calls through a connection's remote object proxy. Every operation is
/// safe on any thread, returns without waiting for the daemon, and never throws; a message that cannot be
/// sent, or that there is no memory for, is lost.
class XpcDaemonProtocol {
public:
    virtual ~XpcDaemonProtocol() = default;

    /// Asks the daemon to confirm the link; it answers with XpcAgentProtocol::connected.
    virtual void connect() noexcept = 0;
    /// Asks whether the daemon is ready.
    virtual void pingWithReply(XpcBoolReply reply) noexcept = 0;
    /// Carries data, whose meaning is its sender's and its receiver's affair.
    virtual void putMessage(const XpcData& data) noexcept = 0;
    /// The user's screen was locked or, if not, unlocked.
    virtual void onScreenLocked(bool locked) noexcept = 0;
    /// The system's time zone changed.
    virtual void onTimeZoneChanged() noexcept = 0;
    /// Asks for XpcAgentProtocol::networkReachability. Not sent by this agent.
    virtual void requestForNetworkReachability() noexcept = 0;
    /// Asks for XpcAgentProtocol::initRmmMessage. Not sent by this agent.
    virtual void requestForInitRmm() noexcept = 0;
    /// Asks for XpcAgentProtocol::logLevel; how `level` is read is the daemon's affair.
    virtual void requestForLogLevel(std::int32_t level) noexcept = 0;
    /// Asks when the agent was heard last, in the daemon's own unit. Not sent by this agent.
    virtual void lastCommunicationTime(XpcNumberReply reply) noexcept = 0;
    /// Asks for the name of the agent's user. Not sent by this agent.
    virtual void loggedUser(XpcStringReply reply) noexcept = 0;
    /// Asks how long the daemon runs, in the daemon's own unit. Not sent by this agent.
    virtual void upTime(XpcNumberReply reply) noexcept = 0;
    /// Asks for the daemon's monitors. Not sent by this agent.
    virtual void requestForRmmMonitors() noexcept = 0;
};

/// What the agent exports and the daemon calls. The operations of one connection arrive one at a time, in the
/// order in which the daemon sent them, on the connection's private thread.
class XpcAgentProtocol {
public:
    virtual ~XpcAgentProtocol() = default;

    /// Answers XpcDaemonProtocol::connect; with either flag the link is up.
    virtual void connected(bool flag) = 0;
    /// Carries data, whose meaning is its sender's and its receiver's affair.
    virtual void putMessage(const XpcData& data) = 0;
    /// A management call that this agent accepts and ignores.
    virtual void initRmmMessage(const std::string& message, const std::string& token,
                                const std::string& subdomain, const std::string& rmmUrl,
                                const std::string& appVer) = 0;
    /// A management call that this agent accepts and ignores.
    virtual void networkReachability(bool reachable) = 0;
    /// The log level that the daemon wishes for.
    virtual void logLevel(std::int64_t level) = 0;
    /// Optional, and so without a need to be overridden; see respondsToSelector.
    virtual void rmmMessage(const XpcData& /*data*/) {}

    /// Whether this object implements the optional method `selector`. A call of a method that it does not
    /// implement is refused by the connection and never reaches it. Safe on any thread.
    virtual bool respondsToSelector(std::string_view selector) const = 0;
};

/// The types that arguments have on the wire.
enum class XpcType { Bool, Int, Integer, Data, String };

/// The type of the one value that a reply block takes; None for a method without a reply block.
enum class XpcReply { None, Bool, Number, String };

/// One method of a protocol. All tables are constants with static storage.
struct XpcMethod {
    static constexpr std::size_t maxArguments = 5;  ///< that a method of these protocols has

    std::string_view selector;  ///< in full, with its colons; points to a null-terminated literal
    std::array<XpcType, maxArguments>
        arguments;              ///< the first `argumentCount` count; the reply block does not
    std::size_t argumentCount;  ///< of the arguments; the reply block does not count
    XpcReply reply;             ///< what its reply block takes, if it has one
    bool required;              ///< rather than optional

    /// The selector up to its first colon.
    constexpr std::string_view member() const { return selector.substr(0, selector.find(':')); }
};

/// One protocol: its name and its methods in their declared order.
struct XpcProtocol {
    std::string_view name;     ///< points to a null-terminated literal
    const XpcMethod* methods;  ///< the first of them
    std::size_t methodCount;   ///< of the methods

    /// To walk the methods in their declared order.
    constexpr const XpcMethod* begin() const { return methods; }
    /// See `begin`.
    constexpr const XpcMethod* end() const { return methods + methodCount; }
    /// The method with that selector or, if there is none, null.
    constexpr const XpcMethod* find(std::string_view selector) const {
        for (const XpcMethod& method : *this) {
            if (method.selector == selector) {
                return &method;
            }
        }
        return nullptr;
    }
};

namespace xpc_tables {

template <typename... Types>
constexpr XpcMethod method(bool required, std::string_view selector, XpcReply reply, Types... types) {
    static_assert(sizeof...(types) <= XpcMethod::maxArguments,
                  "a method has more arguments than the table holds");
    return XpcMethod{selector, {types...}, sizeof...(types), reply, required};
}

inline constexpr bool required = true;
inline constexpr bool optional = false;

inline constexpr std::array<XpcMethod, 12> daemonMethods{
    method(required, "connect", XpcReply::None),
    method(optional, "pingWithReply:", XpcReply::Bool),
    method(optional, "putMessage:", XpcReply::None, XpcType::Data),
    method(optional, "onScreenLocked:", XpcReply::None, XpcType::Bool),
    method(optional, "onTimeZoneChanged", XpcReply::None),
    method(optional, "requestForNetworkReachability", XpcReply::None),
    method(optional, "requestForInitRmm", XpcReply::None),
    method(optional, "requestForLogLevel:", XpcReply::None, XpcType::Int),
    method(optional, "lastCommunicationTime:", XpcReply::Number),
    method(optional, "loggedUser:", XpcReply::String),
    method(optional, "upTime:", XpcReply::Number),
    method(optional, "requestForRmmMonitors", XpcReply::None),
};

inline constexpr std::array<XpcMethod, 6> agentMethods{
    method(required, "connected:", XpcReply::None, XpcType::Bool),
    method(required, "putMessage:", XpcReply::None, XpcType::Data),
    method(optional, "initRmmMessage:token:subdomain:rmmUrl:appVer:", XpcReply::None, XpcType::String,
           XpcType::String, XpcType::String, XpcType::String, XpcType::String),
    method(optional, "networkReachability:", XpcReply::None, XpcType::Bool),
    method(optional, "logLevel:", XpcReply::None, XpcType::Integer),
    method(optional, "rmmMessage:", XpcReply::None, XpcType::Data),
};

}  // namespace xpc_tables

inline constexpr XpcProtocol xpcDaemonProtocol{"XpcDaemonProtocol", xpc_tables::daemonMethods.data(),
                                               xpc_tables::daemonMethods.size()};
inline constexpr XpcProtocol xpcAgentProtocol{"XpcAgentProtocol", xpc_tables::agentMethods.data(),
                                              xpc_tables::agentMethods.size()};
