#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <string_view>

namespace sim {

/// Writes what happens as one line each: local time, who, what, details, in columns.
///
/// Not thread-safe. Each line goes to the sink in one piece, with its line feed.
class Timeline {
public:
    using Clock = std::function<std::chrono::system_clock::time_point()>;
    using Sink = std::function<void(std::string_view)>;

    /// `clock` tells the time of each line.
    explicit Timeline(Sink sink, Clock clock = std::chrono::system_clock::now);

    /// `who` called this program.
    void received(std::string_view who, std::string_view what, std::string_view details);
    /// This program called or answered `who`.
    void sent(std::string_view who, std::string_view what, std::string_view details);
    /// Something else that concerns `who`.
    void note(std::string_view who, std::string_view what, std::string_view details);
    /// Text as it is, without time and columns.
    void text(std::string_view text);

private:
    void line(std::string_view who, std::string_view arrow, std::string_view what, std::string_view details);

    Sink m_sink;
    Clock m_clock;
};

}  // namespace sim
