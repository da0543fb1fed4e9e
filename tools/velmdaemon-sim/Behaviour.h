#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string_view>

namespace sim {

/// How `connect` is answered: with `connected:` YES or NO at once, not at all, or with YES after a delay.
enum class Answer { Yes, No, Never, Late };

/// How `pingWithReply:` is answered.
enum class Ping { Yes, No, Never };

/// How the stand-in answers its agents; set by the options, and changed by commands while it runs.
struct Behaviour {
    Answer answer = Answer::Yes;
    std::chrono::milliseconds delay{1500};  ///< of a late answer
    Ping ping = Ping::Yes;
    std::int64_t logLevel = 6;                  ///< the answer to `requestForLogLevel:`
    std::chrono::milliseconds patience{10000};  ///< how long `wait-agent` and `expect` wait
};

/// The words of options and commands for these values; nothing for any other word. Pure; any thread.
std::optional<Answer> answerFromWord(std::string_view word);
std::optional<Ping> pingFromWord(std::string_view word);
std::optional<bool> flagFromWord(std::string_view word);

/// A decimal number, with a minus sign if negative and nothing else around it, that fits. Pure; any thread.
std::optional<std::int64_t> numberFromWord(std::string_view word);

/// A number of milliseconds from 0 to one hour. Pure; any thread.
std::optional<std::chrono::milliseconds> delayFromWord(std::string_view word);

}  // namespace sim
