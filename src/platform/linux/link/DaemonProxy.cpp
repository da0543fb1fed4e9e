#include "platform/linux/link/DaemonProxy.h"

#include <cstdint>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/linux/link/BusLink.h"

namespace platform {
namespace {

class DaemonProxy : public XpcDaemonProtocol {
public:
    explicit DaemonProxy(std::shared_ptr<BusLink> link) : m_link(std::move(link)) {}

    void connect() override { send("connect"); }
    void pingWithReply(XpcBoolReply reply) override { ask("pingWithReply:", std::move(reply)); }
    void putMessage(const XpcData& data) override {
        // What the bus would not carry need not be copied first.
        if (data.length <= Outbox::largestPayload) {
            send("putMessage:", std::vector<char>(data.bytes, data.bytes + data.length));
        }
    }
    void onScreenLocked(bool locked) override { send("onScreenLocked:", locked); }
    void onTimeZoneChanged() override { send("onTimeZoneChanged"); }
    void requestForNetworkReachability() override { send("requestForNetworkReachability"); }
    void requestForInitRmm() override { send("requestForInitRmm"); }
    void requestForLogLevel(std::int32_t level) override { send("requestForLogLevel:", level); }
    void lastCommunicationTime(XpcNumberReply reply) override {
        ask("lastCommunicationTime:", std::move(reply));
    }
    void loggedUser(XpcStringReply reply) override { ask("loggedUser:", std::move(reply)); }
    void upTime(XpcNumberReply reply) override { ask("upTime:", std::move(reply)); }
    void requestForRmmMonitors() override { send("requestForRmmMonitors"); }

private:
    template <typename... Argument>
    void send(std::string_view selector, Argument... argument) {
        m_link->send({xpcDaemonProtocol.find(selector), {std::move(argument)...}, {}});
    }
    template <typename Block>
    void ask(std::string_view selector, Block block) {
        m_link->send({xpcDaemonProtocol.find(selector), {}, ReplyBlock(std::move(block))});
    }

    std::shared_ptr<BusLink> m_link;
};

}  // namespace

std::shared_ptr<XpcDaemonProtocol> createDaemonProxy(std::shared_ptr<BusLink> link) {
    return std::make_shared<DaemonProxy>(std::move(link));
}

}  // namespace platform
