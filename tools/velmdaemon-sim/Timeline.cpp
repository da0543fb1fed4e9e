#include "Timeline.h"

#include <array>
#include <cstdio>
#include <ctime>
#include <utility>

#include "Text.h"

namespace sim {
namespace {

constexpr std::size_t whoWidth = 10;
// Fits every method that has details to show; longer names have none.
constexpr std::size_t whatWidth = 22;

std::string timeOfDay(std::chrono::system_clock::time_point time) {
    const auto sinceEpoch = time.time_since_epoch();
    const auto wholeSeconds = std::chrono::floor<std::chrono::seconds>(sinceEpoch);
    const auto rest = std::chrono::floor<std::chrono::milliseconds>(sinceEpoch - wholeSeconds);
    const std::time_t seconds = wholeSeconds.count();
    std::tm local{};
    localtime_r(&seconds, &local);
    std::array<char, 64> text{};
    const int length = std::snprintf(text.data(), text.size(), "%02d:%02d:%02d.%03d", local.tm_hour,
                                     local.tm_min, local.tm_sec, static_cast<int>(rest.count()));
    return {text.data(), static_cast<std::size_t>(length)};
}

}  // namespace

Timeline::Timeline(Sink sink, Clock clock) : m_sink(std::move(sink)), m_clock(std::move(clock)) {}

void Timeline::received(std::string_view who, std::string_view what, std::string_view details) {
    line(who, "<- ", what, details);
}

void Timeline::sent(std::string_view who, std::string_view what, std::string_view details) {
    line(who, "-> ", what, details);
}

void Timeline::note(std::string_view who, std::string_view what, std::string_view details) {
    line(who, "   ", what, details);
}

void Timeline::text(std::string_view text) {
    m_sink(text);
}

void Timeline::line(std::string_view who, std::string_view arrow, std::string_view what,
                    std::string_view details) {
    std::string line = timeOfDay(m_clock()) + "  " + padded(who, whoWidth);
    line.append(arrow);
    line.append(details.empty() ? std::string(what) : padded(what, whatWidth));
    line.append(details).append("\n");
    m_sink(line);
}

}  // namespace sim
