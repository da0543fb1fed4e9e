#include "Behaviour.h"

#include <charconv>

namespace sim {

std::optional<Answer> answerFromWord(std::string_view word) {
    if (word == "yes") {
        return Answer::Yes;
    }
    if (word == "no") {
        return Answer::No;
    }
    if (word == "never") {
        return Answer::Never;
    }
    if (word == "late") {
        return Answer::Late;
    }
    return std::nullopt;
}

std::optional<Ping> pingFromWord(std::string_view word) {
    if (word == "yes") {
        return Ping::Yes;
    }
    if (word == "no") {
        return Ping::No;
    }
    if (word == "never") {
        return Ping::Never;
    }
    return std::nullopt;
}

std::optional<bool> flagFromWord(std::string_view word) {
    if (word == "yes") {
        return true;
    }
    if (word == "no") {
        return false;
    }
    return std::nullopt;
}

std::optional<std::int64_t> numberFromWord(std::string_view word) {
    std::int64_t number = 0;
    const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), number);
    if (error != std::errc() || end != word.data() + word.size()) {
        return std::nullopt;
    }
    return number;
}

std::optional<std::chrono::milliseconds> delayFromWord(std::string_view word) {
    const std::optional<std::int64_t> number = numberFromWord(word);
    const std::chrono::milliseconds longest = std::chrono::hours(1);
    if (!number || *number < 0 || *number > longest.count()) {
        return std::nullopt;
    }
    return std::chrono::milliseconds(*number);
}

}  // namespace sim
