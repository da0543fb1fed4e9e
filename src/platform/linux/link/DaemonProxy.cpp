#include "platform/linux/link/DaemonProxy.h"

#include <cstdint>
#include <new>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/linux/link/BusLink.h"

namespace platform {
namespace {

class DaemonProxy : public XpcDaemonProtocol {
public:
    explicit DaemonProxy(std::shared_ptr<BusLink> link) : m_link(std::move(link)) {}

    void connect() noexcept override { send("connect"); }
    void pingWithReply(XpcBoolReply reply) noexcept override { ask("pingWithReply:", reply); }
    void putMessage(const XpcData& data) noexcept override {
        // What the bus would not carry need not be copied first.
        if (data.length <= Outbox::largestPayload) {
            post([&] {
                return callOf("putMessage:", std::vector<char>(data.bytes, data.bytes + data.length));
            });
        }
    }
    void onScreenLocked(bool locked) noexcept override { send("onScreenLocked:", locked); }
    void onTimeZoneChanged() noexcept override { send("onTimeZoneChanged"); }
    void requestForNetworkReachability() noexcept override { send("requestForNetworkReachability"); }
    void requestForInitRmm() noexcept override { send("requestForInitRmm"); }
    void requestForLogLevel(std::int32_t level) noexcept override { send("requestForLogLevel:", level); }
    void lastCommunicationTime(XpcNumberReply reply) noexcept override {
        ask("lastCommunicationTime:", reply);
    }
    void loggedUser(XpcStringReply reply) noexcept override { ask("loggedUser:", reply); }
    void upTime(XpcNumberReply reply) noexcept override { ask("upTime:", reply); }
    void requestForRmmMonitors() noexcept override { send("requestForRmmMonitors"); }

private:
    template <typename... Argument>
    static OutgoingCall callOf(std::string_view selector, Argument... argument) {
        return {xpcDaemonProtocol.find(selector), {std::move(argument)...}, {}};
    }

    template <typename... Argument>
    void send(std::string_view selector, Argument... argument) const noexcept {
        post([&] { return callOf(selector, argument...); });
    }
    template <typename Block>
    void ask(std::string_view selector, Block& block) const noexcept {
        post([&] {
            return OutgoingCall{xpcDaemonProtocol.find(selector), {}, ReplyBlock(std::move(block))};
        });
    }

    // The way of every message. All that can fail on it is to find memory for the message, for its place in
    // the outbox or for the link's thread.
    template <typename MakeCall>
    void post(const MakeCall& makeCall) const noexcept {
        try {
            m_link->send(makeCall());
        } catch (const std::bad_alloc&) {
            return;  // the message is lost, like any other that cannot be sent
        }
    }

    std::shared_ptr<BusLink> m_link;
};

}  // namespace

std::shared_ptr<XpcDaemonProtocol> createDaemonProxy(std::shared_ptr<BusLink> link) {
    return std::make_shared<DaemonProxy>(std::move(link));
}

}  // namespace platform
