#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "link/support/Await.h"
#include "link/support/ListeningSocket.h"
#include "link/support/SdBus.h"

namespace link_tests {

/// Stands where a bus is expected and says what a test wants, when and in which order it wants it; towards
/// one connection, the last that came. It authenticates everyone and answers Hello and AddMatch by itself,
/// and leaves every other call for the test.
class ScriptedBus : public Pumped {
public:
    explicit ScriptedBus(const std::string& socketPath) : m_socket(socketPath) {}

    /// A call that came, as "GetNameOwner "com.brovik.velmdaemon"".
    struct Question {
        std::string text;
        MessageHandle message;
        bool answered = false;
    };
    /// How many calls came whose text begins like this.
    std::size_t count(const std::string& text) const;
    /// Waits until such a call has come for the `times`th time, and gives its place among all calls. Throws
    /// if it does not come.
    std::size_t awaitQuestion(const std::string& text, std::size_t times = 1);

    /// Answers the call at `place`.
    template <typename... Arguments>
    void answer(std::size_t place, const char* types, Arguments... arguments) {
        sd_bus_message* reply = nullptr;
        Question& question = m_questions.at(place);
        check(sd_bus_message_new_method_return(question.message.get(), &reply), "new reply");
        sendFrom(busName, MessageHandle(reply), types, arguments...);
        question.answered = true;
    }
    void answerWithError(std::size_t place, const char* error);
    /// Answers all calls with this text that have no answer yet; false if there are none.
    template <typename... Arguments>
    bool answerAll(const std::string& text, const char* types, Arguments... arguments) {
        const std::vector<std::size_t> places = unanswered(text);
        for (const std::size_t place : places) {
            answer(place, types, arguments...);
        }
        return !places.empty();
    }
    /// The same with an error.
    void answerAllWithError(const std::string& text, const char* error);
    /// Does not answer Hello either, from here on.
    void leaveHelloUnanswered() { m_answersHello = false; }

    /// The bus says that a name went from one owner to another; empty for none.
    void nameOwnerChanged(const char* name, const char* before, const char* after);
    /// `sender` calls the agent.
    template <typename... Arguments>
    void call(const char* sender, const char* member, const char* types, Arguments... arguments) {
        sd_bus_message* call = nullptr;
        check(sd_bus_message_new_method_call(m_connection.get(), &call, clientName, agentObject,
                                             agentProtocol, member),
              "new call");
        sendFrom(sender, MessageHandle(call), types, arguments...);
    }
    /// `sender` calls a method without arguments that is none of the agent's protocol.
    void callOther(const char* sender, const char* path, const char* interface, const char* member) {
        sd_bus_message* call = nullptr;
        check(sd_bus_message_new_method_call(m_connection.get(), &call, clientName, path, interface, member),
              "new call");
        sendFrom(sender, MessageHandle(call), "");
    }
    /// Waits until everything that was said has been taken, and reads nothing meanwhile.
    void flush() { check(sd_bus_flush(m_connection.get()), "flush"); }
    /// The errors that came back, by name, and "" for each answer that is none.
    const std::vector<std::string>& replies() const { return m_replies; }

    void pump() override;

private:
    static constexpr const char* busName = "org.freedesktop.DBus";
    static constexpr const char* clientName = ":1.1";
    static constexpr const char* agentObject = "/com/brovik/velmmonitord";
    static constexpr const char* agentProtocol = "com.brovik.XpcAgentProtocol";

    template <typename... Arguments>
    void sendFrom(const char* sender, const MessageHandle& message, const char* types,
                  Arguments... arguments) {
        check(sd_bus_message_set_sender(message.get(), sender), "set sender");
        if (types[0] != '\0') {
            check(sd_bus_message_append(message.get(), types, arguments...), "append");
        }
        std::uint64_t cookie = 0;  // asked for, so that an answer is expected
        // Who has hung up misses it.
        sd_bus_send(m_connection.get(), message.get(), &cookie);
    }
    std::vector<std::size_t> unanswered(const std::string& text) const;
    void serve(int socket);
    int received(sd_bus_message* message, sd_bus_error* error);
    void answerByItself(std::size_t place, const char* member);

    ListeningSocket m_socket;
    BusHandle m_connection;
    std::vector<BusHandle> m_former;  ///< held open, and heard no more
    std::vector<Question> m_questions;
    bool m_answersHello = true;
    std::vector<std::string> m_replies;
};

}  // namespace link_tests
