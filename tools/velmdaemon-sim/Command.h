#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "Behaviour.h"
#include "velmmonitord/XpcProtocols.h"

namespace sim {

/// The largest message that `put-size` makes: 32 MiB, the most that the system bus carries, less room for a
/// header.
inline constexpr std::size_t largestMessage = (std::size_t{32} << 20) - 4096;

/// One line of standard input, understood.
struct Command {
    enum class Kind {
        Nothing,  ///< an empty line or a comment
        Error,    ///< not understood; see `error`
        Send,     ///< call an agent, by `send`
        ListAgents,
        SetAnswer,
        SetPing,
        WaitAgent,  ///< for the agent `target`
        Expect,     ///< a call of `member`, with `arguments` if there are any
        Sleep,      ///< for `delay`
        Help,
        Quit
    };

    Kind kind = Kind::Nothing;
    std::string error;  ///< one line
    /// The number of the agent to call; nothing for all of them.
    std::optional<std::int64_t> target;
    /// Makes the call; may be called for several agents.
    std::function<void(XpcAgentProtocol&)> send;
    Answer answer = Answer::Yes;
    std::optional<std::chrono::milliseconds> delay;  ///< nothing keeps the present one
    Ping ping = Ping::Yes;
    std::string member;
    std::string arguments;  ///< as the columns show them
};

/// Understands one line, without its line feed. Never throws for what the line holds. Pure; any thread.
Command parseCommand(std::string_view line);

/// One line for each command, each ending in a line feed.
std::string commandHelp();

}  // namespace sim
