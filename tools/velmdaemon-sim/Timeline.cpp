#include "Timeline.h"

#include <array>
#include <cstdio>
#include <ctime>
#include <utility>

#include "Json.h"
#include "Text.h"

namespace sim {
namespace {

constexpr std::size_t whoWidth = 10;
// Fits every method that has details to show; longer names have none.
constexpr std::size_t whatWidth = 22;

struct Instant {
    std::time_t seconds;
    int milliseconds;
};

Instant instantOf(std::chrono::system_clock::time_point time) {
    const auto sinceEpoch = time.time_since_epoch();
    const auto wholeSeconds = std::chrono::floor<std::chrono::seconds>(sinceEpoch);
    const auto rest = std::chrono::floor<std::chrono::milliseconds>(sinceEpoch - wholeSeconds);
    return {static_cast<std::time_t>(wholeSeconds.count()), static_cast<int>(rest.count())};
}

std::string localTimeOfDay(const Instant& instant) {
    std::tm local{};
    localtime_r(&instant.seconds, &local);
    std::array<char, 64> text{};
    const int length = std::snprintf(text.data(), text.size(), "%02d:%02d:%02d.%03d", local.tm_hour,
                                     local.tm_min, local.tm_sec, instant.milliseconds);
    return {text.data(), static_cast<std::size_t>(length)};
}

std::string universalTime(const Instant& instant) {
    std::tm universal{};
    gmtime_r(&instant.seconds, &universal);
    std::array<char, 96> text{};
    const int length =
        std::snprintf(text.data(), text.size(), "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ",
                      universal.tm_year + 1900, universal.tm_mon + 1, universal.tm_mday, universal.tm_hour,
                      universal.tm_min, universal.tm_sec, instant.milliseconds);
    return {text.data(), static_cast<std::size_t>(length)};
}

std::string_view memberOf(std::string_view selector) {
    return selector.substr(0, selector.find(':'));
}

}  // namespace

Timeline::Timeline(Sink sink, Format format, Clock clock)
    : m_sink(std::move(sink)), m_format(format), m_clock(std::move(clock)) {}

void Timeline::received(const Party& from, std::string_view selector, const Values& arguments) {
    if (m_format == Format::Json) {
        object(from, "received", memberOf(selector), arguments);
    } else {
        column(from, "<- ", memberOf(selector), describe(selector, arguments));
    }
}

void Timeline::sent(const Party& to, std::string_view selector, const Values& arguments) {
    if (m_format == Format::Json) {
        object(to, "sent", memberOf(selector), arguments);
    } else {
        column(to, "-> ", memberOf(selector), describe(selector, arguments));
    }
}

void Timeline::replied(const Party& to, std::string_view selector, const Value& answer) {
    if (m_format == Format::Json) {
        object(to, "reply", memberOf(selector), {answer});
    } else {
        column(to, "-> ", "reply", std::string(memberOf(selector)) + " " + describe(answer));
    }
}

void Timeline::refused(const Party& by, std::string_view member, std::string_view why) {
    if (m_format == Format::Json) {
        object(by, "refused", member, {why});
    } else {
        column(by, "<- ", "refused", std::string(member).append(": ").append(why));
    }
}

void Timeline::note(const Party& about, std::string_view what, std::string_view details) {
    if (m_format == Format::Json) {
        object(about, "note", what, {details});
    } else {
        column(about, "   ", what, details);
    }
}

void Timeline::text(std::string_view what, std::string_view text) {
    if (m_format == Format::Json) {
        note({"daemon"}, what, text);
    } else {
        m_sink(text);
    }
}

void Timeline::column(const Party& party, std::string_view arrow, std::string_view what,
                      std::string_view details) {
    std::string line = localTimeOfDay(instantOf(m_clock())) + "  " + padded(party.name, whoWidth);
    line.append(arrow);
    line.append(details.empty() ? std::string(what) : padded(what, whatWidth));
    line.append(details).append("\n");
    m_sink(line);
}

void Timeline::object(const Party& party, std::string_view direction, std::string_view member,
                      const Values& arguments) {
    std::string line = R"({"time":)" + jsonText(universalTime(instantOf(m_clock())));
    line.append(R"(,"agent":)").append(party.agent != 0 ? std::to_string(party.agent) : jsonText(party.name));
    line.append(R"(,"user":)").append(party.user.empty() ? "null" : jsonText(party.user));
    line.append(R"(,"direction":)").append(jsonText(direction));
    line.append(R"(,"member":)").append(jsonText(member));
    line.append(R"(,"arguments":)").append(jsonArray(arguments)).append("}\n");
    m_sink(line);
}

}  // namespace sim
