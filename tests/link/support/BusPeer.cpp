#include "link/support/BusPeer.h"

#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "platform/linux/bus/BusCallback.h"

namespace link_tests {
namespace {

constexpr std::uint64_t replyCap = std::chrono::microseconds(waitCap).count();

/// The bus takes a connection's user from the thread that made it.
class ActAsUser {
public:
    explicit ActAsUser(uid_t uid) {
        if (::seteuid(uid) != 0) {
            throw std::system_error(errno, std::generic_category(), "seteuid");
        }
    }
    ~ActAsUser() {
        if (::seteuid(0) != 0) {
            ::_exit(1);
        }
    }
    ActAsUser(const ActAsUser&) = delete;
    ActAsUser& operator=(const ActAsUser&) = delete;
};

}  // namespace

BusPeer::BusPeer(const std::string& address, uid_t uid) : m_bus(newClient(address)) {
    sd_bus* const bus = m_bus.get();
    check(sd_bus_add_filter(bus, nullptr, platform::busCallback<&BusPeer::received, BusPeer>, this),
          "sd_bus_add_filter");
    {
        const ActAsUser user(uid);
        check(sd_bus_start(bus), "sd_bus_start");
    }
    m_uniqueName = uniqueNameOf(bus);
}

std::uint32_t BusPeer::requestName(const std::string& name, std::uint32_t flags) {
    const Reply reply = call(busDriver, "RequestName", "su", name.c_str(), flags);
    return reply.ok() ? static_cast<std::uint32_t>(std::stoul(reply.text)) : 0;
}

MessageHandle BusPeer::newCall(const BusTarget& target, const char* member) {
    sd_bus_message* message = nullptr;
    const char* interface = target.interface.empty() ? nullptr : target.interface.c_str();
    check(sd_bus_message_new_method_call(m_bus.get(), &message, target.destination.c_str(),
                                         target.path.c_str(), interface, member),
          "new call");
    return MessageHandle(message);
}

MessageHandle BusPeer::newSignal(const BusTarget& target, const char* member) {
    sd_bus_message* message = nullptr;
    check(sd_bus_message_new_signal(m_bus.get(), &message, target.path.c_str(), target.interface.c_str(),
                                    member),
          "new signal");
    MessageHandle handle(message);
    if (!target.destination.empty()) {
        check(sd_bus_message_set_destination(message, target.destination.c_str()), "set destination");
    }
    return handle;
}

Reply BusPeer::call(const MessageHandle& message, std::chrono::microseconds cap) {
    sd_bus_error error{nullptr, nullptr, 0};
    sd_bus_message* answer = nullptr;
    const int result =
        sd_bus_call(m_bus.get(), message.get(), static_cast<std::uint64_t>(cap.count()), &error, &answer);
    const MessageHandle handle(answer);
    Reply reply;
    if (result < 0) {
        reply.error = error.name != nullptr ? error.name : std::generic_category().message(-result);
    } else {
        reply.text = describeArguments(answer);
    }
    sd_bus_error_free(&error);
    // What came before the answer waits inside the library.
    pump();
    return reply;
}

void BusPeer::send(const MessageHandle& message) {
    check(sd_bus_send(m_bus.get(), message.get(), nullptr), "sd_bus_send");
}

std::vector<std::string> BusPeer::namesOf(pid_t pid) {
    const MessageHandle question = newCall(busDriver, "ListNames");
    sd_bus_message* answer = nullptr;
    check(sd_bus_call(m_bus.get(), question.get(), replyCap, nullptr, &answer), "ListNames");
    const MessageHandle handle(answer);
    std::vector<std::string> names;
    check(sd_bus_message_enter_container(answer, 'a', "s"), "enter");
    const char* name = nullptr;
    while (sd_bus_message_read(answer, "s", &name) > 0) {
        if (name[0] == ':' &&
            call(busDriver, "GetConnectionUnixProcessID", "s", name).text == std::to_string(pid)) {
            names.emplace_back(name);
        }
    }
    return names;
}

bool BusPeer::nameHasOwner(const std::string& name) {
    return call(busDriver, "NameHasOwner", "s", name.c_str()).text == "true";
}

void BusPeer::pump() {
    while (m_bus) {
        const int result = sd_bus_process(m_bus.get(), nullptr);
        if (result < 0) {
            m_bus.reset();
        }
        if (result <= 0) {
            return;
        }
    }
}

int BusPeer::received(sd_bus_message* message, sd_bus_error* /*error*/) {
    if (sd_bus_message_is_method_call(message, nullptr, nullptr) <= 0) {
        return 0;
    }
    ReceivedCall call;
    call.sender = textOf(sd_bus_message_get_sender(message));
    call.path = textOf(sd_bus_message_get_path(message));
    call.interface = textOf(sd_bus_message_get_interface(message));
    call.member = textOf(sd_bus_message_get_member(message));
    call.signature = textOf(sd_bus_message_get_signature(message, 1));
    call.expectsReply = sd_bus_message_get_expect_reply(message) > 0;
    const std::string arguments = describeArguments(message);
    call.text = call.member + (arguments.empty() ? "" : " " + arguments);
    call.arrival = std::chrono::steady_clock::now();
    const auto answer = m_answers.find(call.member);
    if (call.expectsReply && answer != m_answers.end()) {
        check(sd_bus_reply_method_return(message, "b", static_cast<int>(answer->second)), "reply");
    }
    m_calls.push_back(call);
    return 1;
}

}  // namespace link_tests
