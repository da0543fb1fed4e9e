#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <string_view>
#include <utility>

#include "Value.h"

namespace sim {

/// Whom a line is about.
struct Party {
    Party(std::string itsName, int itsNumber = 0, std::string itsUser = {})
        : name(std::move(itsName)), agent(itsNumber), user(std::move(itsUser)) {}

    std::string name;  ///< "agent 1", the address of a caller that is none, or "daemon" for this program
    int agent;         ///< an agent's number; 0 for anybody else
    std::string user;  ///< that it runs as; empty if unknown
};

/// How lines are written: in columns, for people, or each as a JSON object, for programs.
enum class Format { Columns, Json };

/// Writes what happens as one line each.
///
/// In columns: local time, who, what, details. As JSON: `time` (UTC, RFC 3339, with milliseconds), `agent` (a
/// number, or a name), `user` (or null), `direction` (received, sent, reply, refused, note), `member` and
/// `arguments`.
///
/// Not thread-safe. Each line goes to the sink in one piece, with its line feed.
class Timeline {
public:
    using Clock = std::function<std::chrono::system_clock::time_point()>;
    using Sink = std::function<void(std::string_view)>;

    /// `clock` tells the time of each line.
    explicit Timeline(Sink sink, Format format = Format::Columns,
                      Clock clock = std::chrono::system_clock::now);

    /// `from` called this program.
    void received(const Party& from, std::string_view selector, const Values& arguments);
    /// This program called `to`.
    void sent(const Party& to, std::string_view selector, const Values& arguments);
    /// This program answered a call of `to`.
    void replied(const Party& to, std::string_view selector, const Value& answer);
    /// `by` refused a call of this program.
    void refused(const Party& by, std::string_view member, std::string_view why);
    /// Something else that concerns `about`.
    void note(const Party& about, std::string_view what, std::string_view details);
    /// Text of several lines: as it is in columns, otherwise as a note.
    void text(std::string_view what, std::string_view text);

private:
    void column(const Party& party, std::string_view arrow, std::string_view what, std::string_view details);
    void object(const Party& party, std::string_view direction, std::string_view member,
                const Values& arguments);

    Sink m_sink;
    Format m_format;
    Clock m_clock;
};

}  // namespace sim
