#include "linux/DaemonCalls.h"

#include <cerrno>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "linux/Handles.h"
#include "platform/linux/link/ProtocolVTable.h"

namespace sim {
namespace {

// Replies are std::functions, which are copied: all copies share the one call.
using CallToAnswer = std::shared_ptr<sd_bus_message>;
using Decoder = int (*)(sd_bus_message*, XpcDaemonProtocol&);

CallToAnswer keep(sd_bus_message* call) {
    return {sd_bus_message_ref(call), [](sd_bus_message* kept) { sd_bus_message_unref(kept); }};
}

XpcNumberReply numberReply(sd_bus_message* call) {
    return [kept = keep(call)](const XpcNumber& number) {
        if (const bool* flag = std::get_if<bool>(&number)) {
            sd_bus_reply_method_return(kept.get(), "v", "b", static_cast<int>(*flag));
        } else if (const auto* integer = std::get_if<std::int64_t>(&number)) {
            sd_bus_reply_method_return(kept.get(), "v", "x", *integer);
        } else if (const auto* natural = std::get_if<std::uint64_t>(&number)) {
            sd_bus_reply_method_return(kept.get(), "v", "t", *natural);
        } else if (const auto* real = std::get_if<double>(&number)) {
            sd_bus_reply_method_return(kept.get(), "v", "d", *real);
        }
    };
}

int putMessage(sd_bus_message* call, XpcDaemonProtocol& daemon) {
    const void* bytes = nullptr;
    std::size_t length = 0;
    const int result = sd_bus_message_read_array(call, 'y', &bytes, &length);
    if (result >= 0) {
        daemon.putMessage({static_cast<const char*>(bytes), length});
    }
    return result;
}

int onScreenLocked(sd_bus_message* call, XpcDaemonProtocol& daemon) {
    int locked = 0;
    const int result = sd_bus_message_read(call, "b", &locked);
    if (result >= 0) {
        daemon.onScreenLocked(locked != 0);
    }
    return result;
}

int requestForLogLevel(sd_bus_message* call, XpcDaemonProtocol& daemon) {
    std::int32_t level = 0;
    const int result = sd_bus_message_read(call, "i", &level);
    if (result >= 0) {
        daemon.requestForLogLevel(level);
    }
    return result;
}

int pingWithReply(sd_bus_message* call, XpcDaemonProtocol& daemon) {
    daemon.pingWithReply([kept = keep(call)](bool flag) {
        sd_bus_reply_method_return(kept.get(), "b", static_cast<int>(flag));
    });
    return 0;
}

int loggedUser(sd_bus_message* call, XpcDaemonProtocol& daemon) {
    daemon.loggedUser([kept = keep(call)](const std::string& user) {
        sd_bus_reply_method_return(kept.get(), "s", user.c_str());
    });
    return 0;
}

int lastCommunicationTime(sd_bus_message* call, XpcDaemonProtocol& daemon) {
    daemon.lastCommunicationTime(numberReply(call));
    return 0;
}

int upTime(sd_bus_message* call, XpcDaemonProtocol& daemon) {
    daemon.upTime(numberReply(call));
    return 0;
}

template <void (XpcDaemonProtocol::*method)()>
int withoutArguments(sd_bus_message* /*call*/, XpcDaemonProtocol& daemon) {
    (daemon.*method)();
    return 0;
}

const std::map<std::string_view, Decoder>& decoders() {
    static const std::map<std::string_view, Decoder> all{
        {"connect", withoutArguments<&XpcDaemonProtocol::connect>},
        {"pingWithReply:", pingWithReply},
        {"putMessage:", putMessage},
        {"onScreenLocked:", onScreenLocked},
        {"onTimeZoneChanged", withoutArguments<&XpcDaemonProtocol::onTimeZoneChanged>},
        {"requestForNetworkReachability",
         withoutArguments<&XpcDaemonProtocol::requestForNetworkReachability>},
        {"requestForInitRmm", withoutArguments<&XpcDaemonProtocol::requestForInitRmm>},
        {"requestForLogLevel:", requestForLogLevel},
        {"lastCommunicationTime:", lastCommunicationTime},
        {"loggedUser:", loggedUser},
        {"upTime:", upTime},
        {"requestForRmmMonitors", withoutArguments<&XpcDaemonProtocol::requestForRmmMonitors>},
    };
    return all;
}

}  // namespace

int dispatchCall(sd_bus_message* call, XpcDaemonProtocol& daemon) {
    const XpcMethod* method = platform::dbus::findMember(xpcDaemonProtocol, sd_bus_message_get_member(call));
    if (method == nullptr) {
        return -ENOSYS;
    }
    const auto decoder = decoders().find(method->selector);
    if (decoder == decoders().end()) {
        return -ENOSYS;
    }
    const int result = decoder->second(call, daemon);
    if (result < 0 || method->reply != XpcReply::None) {
        return result < 0 ? result : 1;
    }
    return sd_bus_reply_method_return(call, nullptr);
}

}  // namespace sim
