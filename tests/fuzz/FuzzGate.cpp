#include <fuzzer/FuzzedDataProvider.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "GateModel.h"
#include "Must.h"
#include "platform/linux/bus/BusCallback.h"
#include "platform/linux/link/Gate.h"
#include "platform/linux/process/OutHandle.h"

// Who may call the agent, whatever a bus says and in whatever order: owners that come and go, answers that
// are late, wrong or missing, forged signals, and calls of everybody in between; against a model in plain
// words.

namespace {

using platform::BusHandle;
using platform::Gate;
using platform::MessageHandle;
using platform::OutHandle;
using platform::SlotHandle;

constexpr const char* service = "com.brovik.velmdaemon";
constexpr const char* busName = "org.freedesktop.DBus";
constexpr const char* agentPath = "/com/brovik/velmmonitord";
constexpr const char* agentProtocol = "com.brovik.XpcAgentProtocol";

// The people on the bus; the first stands for nobody.
constexpr std::array<const char*, 5> people{"", ":1.2", ":1.3", ":1.4", ":1.5"};

class CountingAgent final : public XpcAgentProtocol {
public:
    // Each call carries its number.
    std::vector<std::size_t> calls;
    void connected(bool /*flag*/) override { must(false, "only what was called is called"); }
    void putMessage(const XpcData& /*data*/) override { must(false, "only what was called is called"); }
    void initRmmMessage(const std::string& /*message*/, const std::string& /*token*/,
                        const std::string& /*subdomain*/, const std::string& /*rmmUrl*/,
                        const std::string& /*appVer*/) override {
        must(false, "only what was called is called");
    }
    void networkReachability(bool /*reachable*/) override { must(false, "only what was called is called"); }
    void logLevel(std::int64_t number) override { calls.push_back(static_cast<std::size_t>(number)); }
    void rmmMessage(const XpcData& /*data*/) override { must(false, "only what was called is called"); }
    bool respondsToSelector(std::string_view /*selector*/) const override { return true; }
};

// Both ends of a connection, and no bus between them: this end says what a bus would say.
class Stage {
public:
    Stage() {
        std::array<int, 2> ends{};
        must(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends.data()) == 0,
             "there is a socket");
        open(m_bus, ends[0]);
        sd_id128_t id{};
        id.bytes[0] = 1;
        open(m_peer, ends[1], &id);
        sd_bus_add_filter(m_peer.get(), OutHandle(m_filter), &platform::busCallback<&Stage::received, Stage>,
                          this);
        while (sd_bus_is_ready(m_bus.get()) == 0) {
            pump();
        }
        m_gate = std::make_unique<Gate>(
            m_bus.get(), service, &xpcAgentProtocol,
            Gate::Callbacks{[this] { ++m_losses; }, [this] { return m_agent; }, [this] { ++m_deliveries; }});
        settle();
    }

    void step(FuzzedDataProvider& input) {
        switch (input.ConsumeIntegralInRange(0, 8)) {
            case 0:
                ownerChanged(busName, service, person(input));
                break;
            case 1:
                forge(input);
                break;
            case 2:
            case 3:
                answerName(input);
                break;
            case 4:
            case 5:
                answerUser(input);
                break;
            case 6:
                m_gate->listen();
                m_model.listen();
                break;
            case 7:
                m_gate->doubt();
                m_model.doubt();
                break;
            default:
                call(person(input), input);
        }
        settle();
        compare();
    }

private:
    using Clock = std::chrono::steady_clock;
    struct Question {
        MessageHandle message;
        std::string argument;
        Clock::time_point asked;
    };

    static void open(BusHandle& handle, int socket, const sd_id128_t* server = nullptr) {
        sd_bus* bus = nullptr;
        must(sd_bus_new(&bus) >= 0, "there is a connection");
        handle = BusHandle(bus);
        must(sd_bus_set_fd(bus, socket, socket) >= 0 && sd_bus_negotiate_fds(bus, 0) >= 0, "it has a socket");
        must(server == nullptr || sd_bus_set_server(bus, 1, *server) >= 0, "it is a server");
        must(sd_bus_start(bus) >= 0, "the connection starts");
    }

    static const char* person(FuzzedDataProvider& input) {
        return people.at(input.ConsumeIntegralInRange<std::size_t>(0, people.size() - 1));
    }

    bool pump() {
        const int here = sd_bus_process(m_bus.get(), nullptr);
        const int there = sd_bus_process(m_peer.get(), nullptr);
        must(here >= 0 && there >= 0, "both ends stay connected");
        return here > 0 || there > 0;
    }
    void settle() {
        while (pump()) {
        }
    }

    int received(sd_bus_message* message, sd_bus_error* /*error*/) {
        std::uint8_t type = 0;
        sd_bus_message_get_type(message, &type);
        if (type == SD_BUS_MESSAGE_METHOD_CALL) {
            questioned(message);
        } else {
            replied(message);
        }
        return 1;
    }
    void questioned(sd_bus_message* message) {
        const char* argument = nullptr;
        must(sd_bus_message_read(message, "s", &argument) > 0, "a question has one argument");
        Question question{MessageHandle(sd_bus_message_ref(message)), argument, Clock::now()};
        if (sd_bus_message_is_method_call(message, busName, "GetNameOwner") > 0) {
            // The one before has come to an end by itself if it stayed open for seconds.
            must(!m_nameQuestion.message || Clock::now() - m_nameQuestion.asked > std::chrono::seconds(2),
                 "one question about the owner is under way at a time");
            m_nameQuestion = std::move(question);
        } else {
            must(sd_bus_message_is_method_call(message, busName, "GetConnectionUnixUser") > 0,
                 "nothing else is asked");
            m_userQuestions.push_back(std::move(question));
        }
    }
    void replied(sd_bus_message* message) {
        std::uint64_t cookie = 0;
        must(sd_bus_message_get_reply_cookie(message, &cookie) >= 0 && m_calls.count(cookie) > 0,
             "what comes is an answer to a call");
        const std::size_t number = m_calls.at(cookie);
        must(m_answers[number].empty(), "a call is answered once");
        const sd_bus_error* const error = sd_bus_message_get_error(message);
        m_answers[number] = error == nullptr ? "done" : error->name;
    }

    void send(const char* sender, const MessageHandle& message) {
        must(sd_bus_message_set_sender(message.get(), sender) >= 0, "a message has a sender");
        must(sd_bus_send(m_peer.get(), message.get(), nullptr) >= 0, "a message is sent");
    }
    void ownerChanged(const char* sender, const char* name, const char* owner) {
        MessageHandle signal;
        must(sd_bus_message_new_signal(m_peer.get(), OutHandle(signal), "/org/freedesktop/DBus", busName,
                                       "NameOwnerChanged") >= 0,
             "there is a signal");
        must(sd_bus_message_append(signal.get(), "sss", name, m_model.owner().c_str(), owner) >= 0,
             "the signal has its arguments");
        send(sender, signal);
        settle();
        if (std::string(sender) == busName && std::string(name) == service) {
            m_model.told(owner);
        }
    }
    void forge(FuzzedDataProvider& input) {
        const bool forged = input.ConsumeBool();
        ownerChanged(forged ? ":1.9" : busName, forged ? service : "com.brovik.velmdaemon.another",
                     person(input));
    }

    void answerName(FuzzedDataProvider& input) {
        const Question question = std::exchange(m_nameQuestion, {});
        if (!question.message) {
            return;
        }
        const int kind = input.ConsumeIntegralInRange(0, 5);
        const std::string owner = person(input);
        if (kind == 0) {
            answerWithError(question, SD_BUS_ERROR_NO_REPLY);
        } else if (kind == 1) {
            answerWithError(question, SD_BUS_ERROR_LIMITS_EXCEEDED);
        } else if (owner.empty()) {
            answerWithError(question, SD_BUS_ERROR_NAME_HAS_NO_OWNER);
        } else {
            answer(question, 's', owner.c_str());
        }
        settle();
        if (kind > 1) {
            m_model.told(owner);
        }
    }
    void answerUser(FuzzedDataProvider& input) {
        if (m_userQuestions.empty()) {
            return;
        }
        const auto place = input.ConsumeIntegralInRange<std::size_t>(0, m_userQuestions.size() - 1);
        // An older question was about an owner that has been replaced, or was left unanswered.
        const bool current = place + 1 == m_userQuestions.size() && m_model.trust == GateModel::Trust::Asking;
        const Question question = std::move(m_userQuestions[place]);
        must(!current || question.argument == m_model.owner(), "it is the owner whose user is asked for");
        m_userQuestions.erase(m_userQuestions.begin() + static_cast<std::ptrdiff_t>(place));
        const std::uint32_t own = getuid();
        const std::array<std::uint32_t, 3> users{0, own, own + 1};
        const auto kind = input.ConsumeIntegralInRange<std::size_t>(0, users.size() + 1);
        if (kind < users.size()) {
            answer(question, 'u', &users.at(kind));
        } else {
            answerWithError(question, kind == users.size() ? SD_BUS_ERROR_NO_REPLY : SD_BUS_ERROR_FAILED);
        }
        settle();
        if (current && kind < users.size()) {
            m_model.toldUser(users.at(kind));
        } else if (current && kind > users.size()) {
            m_model.userIsUnknown();
        }
    }
    void answer(const Question& question, char type, const void* value) {
        MessageHandle reply;
        must(sd_bus_message_new_method_return(question.message.get(), OutHandle(reply)) >= 0,
             "there is an answer");
        must(sd_bus_message_append_basic(reply.get(), type, value) >= 0, "the answer has its argument");
        send(busName, reply);
    }
    void answerWithError(const Question& question, const char* name) {
        MessageHandle reply;
        must(sd_bus_message_new_method_errorf(question.message.get(), OutHandle(reply), name, "no") >= 0,
             "there is an error");
        send(busName, reply);
    }

    void call(const std::string& sender, FuzzedDataProvider& input) {
        if (sender.empty()) {
            return;
        }
        struct Called {
            const char* path;
            const char* interface;
            const char* member;
            char type;
            GateModel::Kind kind;
        };
        using Kind = GateModel::Kind;
        static constexpr std::array<Called, 6> called{{
            {agentPath, agentProtocol, "logLevel", 'x', Kind::Good},
            {agentPath, nullptr, "logLevel", 'x', Kind::NoSuchMethod},
            {agentPath, agentProtocol, "logLevel", 't', Kind::WrongArguments},
            {agentPath, agentProtocol, "noSuchMethod", 'x', Kind::NoSuchMethod},
            {"/", agentProtocol, "logLevel", 'x', Kind::NoSuchMethod},
            {agentPath, "org.freedesktop.DBus.Another", "logLevel", 'x', Kind::NoSuchMethod},
        }};
        const Called& chosen = called.at(input.ConsumeIntegralInRange<std::size_t>(0, called.size() - 1));
        const std::size_t number = m_answers.size();
        const auto value = static_cast<std::int64_t>(number);
        MessageHandle message;
        must(sd_bus_message_new_method_call(m_peer.get(), OutHandle(message), nullptr, chosen.path,
                                            chosen.interface, chosen.member) >= 0,
             "there is a call");
        must(sd_bus_message_append_basic(message.get(), chosen.type, &value) >= 0,
             "the call has its argument");
        must(sd_bus_message_set_sender(message.get(), sender.c_str()) >= 0, "the call has a sender");
        std::uint64_t cookie = 0;
        must(sd_bus_send(m_peer.get(), message.get(), &cookie) >= 0, "a call is sent");
        m_calls[cookie] = number;
        m_answers.emplace_back();
        settle();
        m_model.call(sender, chosen.kind);
    }

    static bool fits(const std::string& answer, GateModel::Fate fate) {
        switch (fate) {
            case GateModel::Fate::Waits:
                return answer.empty();
            case GateModel::Fate::Delivered:
                return answer == "done";
            case GateModel::Fate::Denied:
                return answer == SD_BUS_ERROR_ACCESS_DENIED;
            case GateModel::Fate::TooMany:
                return answer == SD_BUS_ERROR_LIMITS_EXCEEDED;
            case GateModel::Fate::WrongArguments:
                return answer == SD_BUS_ERROR_INVALID_ARGS;
            case GateModel::Fate::NoSuchMethod:
                return answer == SD_BUS_ERROR_UNKNOWN_METHOD || answer == SD_BUS_ERROR_UNKNOWN_OBJECT ||
                       answer == SD_BUS_ERROR_UNKNOWN_INTERFACE;
        }
        return false;
    }
    Gate::Way wayOfTheModel() const {
        switch (m_model.trust) {
            case GateModel::Trust::Asking:
                return Gate::Way::Unknown;
            case GateModel::Trust::Trusted:
                return Gate::Way::Clear;
            default:
                return Gate::Way::Shut;
        }
    }
    void compare() const {
        must(m_gate->way() == wayOfTheModel(), "messages go where the model would have them go");
        must(m_gate->daemon() == m_model.owner(), "the daemon is who owns the name");
        must(m_losses == m_model.losses, "each owner is lost once");
        for (std::size_t call = 0; call < m_answers.size(); ++call) {
            must(fits(m_answers[call], m_model.fates[call]), "a call has the answer that it must have");
        }
        must(m_agent->calls == m_model.delivered, "the agent is called by whom it may be, in order");
        must(m_deliveries == m_agent->calls.size(), "each call is told");
    }

    BusHandle m_bus;
    BusHandle m_peer;
    SlotHandle m_filter;
    std::shared_ptr<CountingAgent> m_agent = std::make_shared<CountingAgent>();
    int m_losses = 0;
    std::size_t m_deliveries = 0;
    Question m_nameQuestion;
    std::vector<Question> m_userQuestions;
    std::map<std::uint64_t, std::size_t> m_calls;
    std::vector<std::string> m_answers;
    GateModel m_model{getuid()};
    std::unique_ptr<Gate> m_gate;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    constexpr int mostSteps = 400;
    FuzzedDataProvider input(data, size);
    Stage stage;
    for (int step = 0; step < mostSteps && input.remaining_bytes() > 0; ++step) {
        stage.step(input);
    }
    return 0;
}
