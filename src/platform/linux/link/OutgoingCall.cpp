#include "platform/linux/link/OutgoingCall.h"

#include <optional>

#include "platform/linux/link/WireNames.h"
#include "platform/linux/process/OutHandle.h"

namespace platform {
namespace {

/// Appends an argument of whatever type it has; a negative errno if that fails.
struct AppendTo {
    sd_bus_message* message;

    int operator()(std::monostate /*none*/) const { return 0; }
    int operator()(bool flag) const { return sd_bus_message_append(message, "b", flag ? 1 : 0); }
    int operator()(std::int32_t value) const { return sd_bus_message_append(message, "i", value); }
    int operator()(const std::vector<char>& bytes) const {
        return sd_bus_message_append_array(message, 'y', bytes.data(), bytes.size());
    }
};

template <typename Wire, typename Kind>
std::optional<XpcNumber> readAs(sd_bus_message* variant, char type) {
    Wire value{};
    if (sd_bus_message_read_basic(variant, type, &value) < 0) {
        return std::nullopt;
    }
    return XpcNumber(static_cast<Kind>(value));
}

/// A number of any of the bus's types, as the widest of its kind.
std::optional<XpcNumber> readNumber(sd_bus_message* answer) {
    char type = 0;
    const char* contents = nullptr;
    if (sd_bus_message_peek_type(answer, &type, &contents) <= 0 || type != 'v' || contents == nullptr ||
        sd_bus_message_enter_container(answer, 'v', contents) < 0) {
        return std::nullopt;
    }
    switch (*contents) {
        case 'b':
            return readAs<int, bool>(answer, 'b');
        case 'y':
            return readAs<std::uint8_t, std::uint64_t>(answer, 'y');
        case 'n':
            return readAs<std::int16_t, std::int64_t>(answer, 'n');
        case 'q':
            return readAs<std::uint16_t, std::uint64_t>(answer, 'q');
        case 'i':
            return readAs<std::int32_t, std::int64_t>(answer, 'i');
        case 'u':
            return readAs<std::uint32_t, std::uint64_t>(answer, 'u');
        case 'x':
            return readAs<std::int64_t, std::int64_t>(answer, 'x');
        case 't':
            return readAs<std::uint64_t, std::uint64_t>(answer, 't');
        case 'd':
            return readAs<double, double>(answer, 'd');
        default:
            return std::nullopt;
    }
}

/// Reads the one value of an answer as the kind of block that waits for it takes it.
struct DeliverFrom {
    sd_bus_message* answer;

    bool operator()(std::monostate /*none*/) const { return false; }
    bool operator()(const XpcBoolReply& block) const {
        int value = 0;
        if (!block || sd_bus_message_read(answer, "b", &value) < 0) {
            return false;
        }
        block(value != 0);
        return true;
    }
    bool operator()(const XpcStringReply& block) const {
        const char* value = nullptr;
        if (!block || sd_bus_message_read(answer, "s", &value) < 0) {
            return false;
        }
        block(value);
        return true;
    }
    bool operator()(const XpcNumberReply& block) const {
        const std::optional<XpcNumber> value = readNumber(answer);
        if (!block || !value) {
            return false;
        }
        block(*value);
        return true;
    }
};

}  // namespace

std::size_t OutgoingCall::payload() const {
    const auto* const bytes = std::get_if<std::vector<char>>(&argument);
    return bytes == nullptr ? sizeof(std::int32_t) : bytes->size();
}

MessageHandle encodeCall(sd_bus* bus, const std::string& destination, const OutgoingCall& call) {
    MessageHandle message;
    const int result = sd_bus_message_new_method_call(
        bus, OutHandle(message), destination.c_str(), dbus::daemonObjectPath,
        dbus::interfaceName(xpcDaemonProtocol).c_str(), std::string(call.method->member()).c_str());
    return result >= 0 && std::visit(AppendTo{message.get()}, call.argument) >= 0 ? std::move(message)
                                                                                  : nullptr;
}

bool deliverReply(const ReplyBlock& block, sd_bus_message* answer) {
    return sd_bus_message_is_method_error(answer, nullptr) == 0 && std::visit(DeliverFrom{answer}, block);
}

}  // namespace platform
