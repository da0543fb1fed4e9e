#include "link/support/ScriptedBus.h"

#include <algorithm>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "platform/linux/bus/BusCallback.h"

namespace link_tests {

std::size_t ScriptedBus::count(const std::string& text) const {
    return static_cast<std::size_t>(
        std::count_if(m_questions.begin(), m_questions.end(),
                      [&](const Question& asked) { return asked.text.compare(0, text.size(), text) == 0; }));
}

std::size_t ScriptedBus::awaitQuestion(const std::string& text, std::size_t times) {
    if (!await([&] { return count(text) >= times; })) {
        throw std::runtime_error("nobody asks " + text);
    }
    std::size_t place = 0;
    for (std::size_t found = 0;; ++place) {
        found += m_questions[place].text.compare(0, text.size(), text) == 0 ? 1U : 0U;
        if (found == times) {
            return place;
        }
    }
}

void ScriptedBus::answerWithError(std::size_t place, const char* error) {
    const sd_bus_error content{error, "as the test wants it", 0};
    sd_bus_message* reply = nullptr;
    Question& question = m_questions.at(place);
    check(sd_bus_message_new_method_error(question.message.get(), &reply, &content), "new error");
    sendFrom(busName, MessageHandle(reply), "");
    question.answered = true;
}

void ScriptedBus::answerAllWithError(const std::string& text, const char* error) {
    for (const std::size_t place : unanswered(text)) {
        answerWithError(place, error);
    }
}

void ScriptedBus::nameOwnerChanged(const char* name, const char* before, const char* after) {
    sd_bus_message* signal = nullptr;
    check(sd_bus_message_new_signal(m_connection.get(), &signal, "/org/freedesktop/DBus", busName,
                                    "NameOwnerChanged"),
          "new signal");
    sendFrom(busName, MessageHandle(signal), "sss", name, before, after);
}

std::vector<std::size_t> ScriptedBus::unanswered(const std::string& text) const {
    std::vector<std::size_t> places;
    for (std::size_t place = 0; place < m_questions.size(); ++place) {
        if (!m_questions[place].answered && m_questions[place].text == text) {
            places.push_back(place);
        }
    }
    return places;
}

void ScriptedBus::pump() {
    const int caller = m_socket.accept();
    if (caller >= 0) {
        serve(caller);
    }
    while (m_connection && sd_bus_process(m_connection.get(), nullptr) > 0) {
    }
}

void ScriptedBus::serve(int socket) {
    m_questions.clear();
    m_former.push_back(std::move(m_connection));
    sd_bus* bus = nullptr;
    check(sd_bus_new(&bus), "sd_bus_new");
    m_connection.reset(bus);
    check(sd_bus_set_fd(bus, socket, socket), "sd_bus_set_fd");
    check(sd_bus_set_server(bus, 1, {}), "sd_bus_set_server");
    check(sd_bus_add_filter(bus, nullptr, platform::busCallback<&ScriptedBus::received, ScriptedBus>, this),
          "sd_bus_add_filter");
    check(sd_bus_start(bus), "sd_bus_start");
}

int ScriptedBus::received(sd_bus_message* message, sd_bus_error* /*error*/) {
    if (sd_bus_message_is_method_call(message, nullptr, nullptr) > 0) {
        const std::string member = textOf(sd_bus_message_get_member(message));
        const std::string arguments = describeArguments(message);
        m_questions.push_back({member + (arguments.empty() ? "" : " " + arguments),
                               MessageHandle(sd_bus_message_ref(message))});
        answerByItself(m_questions.size() - 1, member.c_str());
    } else if (const sd_bus_error* const error = sd_bus_message_get_error(message)) {
        m_replies.push_back(textOf(error->name));
    } else {
        m_replies.emplace_back();
    }
    return 1;
}

void ScriptedBus::answerByItself(std::size_t place, const char* member) {
    const std::string_view asked = member;
    if (asked == "Hello" && m_answersHello) {
        answer(place, "s", clientName);
    } else if (asked == "AddMatch" || asked == "RemoveMatch") {
        answer(place, "");
    }
}

}  // namespace link_tests
