#include "platform/linux/link/DaemonProxy.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "platform/linux/link/BusLink.h"

namespace platform {
namespace {

std::size_t sizeOf(const XpcData& data) {
    return data.length;
}
template <typename Scalar>
std::size_t sizeOf(Scalar /*value*/) {
    return sizeof(Scalar);
}

int append(sd_bus_message* /*call*/) {
    return 0;
}
int append(sd_bus_message* call, bool value) {
    return sd_bus_message_append(call, "b", value ? 1 : 0);
}
int append(sd_bus_message* call, std::int32_t value) {
    return sd_bus_message_append(call, "i", value);
}
int append(sd_bus_message* call, const XpcData& data) {
    return sd_bus_message_append_array(call, 'y', data.bytes, data.length);
}

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

std::optional<bool> readBool(sd_bus_message* answer) {
    int value = 0;
    return sd_bus_message_read(answer, "b", &value) < 0 ? std::nullopt : std::optional<bool>(value != 0);
}

std::optional<std::string> readString(sd_bus_message* answer) {
    const char* value = nullptr;
    return sd_bus_message_read(answer, "s", &value) < 0 ? std::nullopt : std::optional<std::string>(value);
}

/// Reads the one value of an answer with `read` and has it handed to `reply`; an answer of another type is
/// dropped.
template <typename Reply, typename Value>
BusLink::ReadReply readWith(std::optional<Value> (*read)(sd_bus_message*), Reply reply) {
    return [read, reply = std::move(reply)](sd_bus_message* answer) -> std::function<void()> {
        const std::optional<Value> value = read(answer);
        if (!value || !reply) {
            return nullptr;
        }
        return [reply, value = *value] { reply(value); };
    };
}

class DaemonProxy : public XpcDaemonProtocol {
public:
    explicit DaemonProxy(std::shared_ptr<BusLink> link) : m_link(std::move(link)) {}

    void connect() override { send("connect"); }
    void pingWithReply(XpcBoolReply reply) override {
        ask("pingWithReply:", readWith(readBool, std::move(reply)));
    }
    void putMessage(const XpcData& data) override { send("putMessage:", data); }
    void onScreenLocked(bool locked) override { send("onScreenLocked:", locked); }
    void onTimeZoneChanged() override { send("onTimeZoneChanged"); }
    void requestForNetworkReachability() override { send("requestForNetworkReachability"); }
    void requestForInitRmm() override { send("requestForInitRmm"); }
    void requestForLogLevel(std::int32_t level) override { send("requestForLogLevel:", level); }
    void lastCommunicationTime(XpcNumberReply reply) override {
        ask("lastCommunicationTime:", readWith(readNumber, std::move(reply)));
    }
    void loggedUser(XpcStringReply reply) override {
        ask("loggedUser:", readWith(readString, std::move(reply)));
    }
    void upTime(XpcNumberReply reply) override { ask("upTime:", readWith(readNumber, std::move(reply))); }
    void requestForRmmMonitors() override { send("requestForRmmMonitors"); }

private:
    template <typename... Arguments>
    void send(std::string_view selector, const Arguments&... arguments) {
        m_link->send(*xpcDaemonProtocol.find(selector), (std::size_t{0} + ... + sizeOf(arguments)),
                     [&](sd_bus_message* call) { return append(call, arguments...); });
    }
    void ask(std::string_view selector, BusLink::ReadReply readReply) {
        m_link->send(
            *xpcDaemonProtocol.find(selector), 0, [](sd_bus_message*) { return 0; }, std::move(readReply));
    }

    std::shared_ptr<BusLink> m_link;
};

}  // namespace

std::shared_ptr<XpcDaemonProtocol> createDaemonProxy(std::shared_ptr<BusLink> link) {
    return std::make_shared<DaemonProxy>(std::move(link));
}

}  // namespace platform
