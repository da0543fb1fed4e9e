#include "Command.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <utility>
#include <vector>

#include "Text.h"

namespace sim {
namespace {

constexpr std::string_view blanks = " \t\r";

std::string_view trimmed(std::string_view text) {
    const std::size_t begin = text.find_first_not_of(blanks);
    if (begin == std::string_view::npos) {
        return {};
    }
    return text.substr(begin, text.find_last_not_of(blanks) - begin + 1);
}

// Cuts the first word off `rest`, and the blanks behind it.
std::string_view takeWord(std::string_view& rest) {
    const std::size_t end = std::min(rest.find_first_of(blanks), rest.size());
    const std::string_view word = rest.substr(0, end);
    rest = trimmed(rest.substr(end));
    return word;
}

// Words as a shell has them in the simplest case: double quotes keep blanks together. Nothing if a quote is
// open.
std::optional<std::vector<std::string>> splitQuoted(std::string_view rest) {
    std::vector<std::string> words;
    while (!(rest = trimmed(rest)).empty()) {
        if (rest.front() != '"') {
            words.emplace_back(takeWord(rest));
            continue;
        }
        const std::size_t end = rest.find('"', 1);
        if (end == std::string_view::npos) {
            return std::nullopt;
        }
        words.emplace_back(rest.substr(1, end - 1));
        rest.remove_prefix(end + 1);
    }
    return words;
}

std::optional<unsigned> hexDigit(char digit) {
    if (digit >= '0' && digit <= '9') {
        return static_cast<unsigned>(digit - '0');
    }
    const char lower = static_cast<char>(digit | 0x20);
    if (lower >= 'a' && lower <= 'f') {
        return static_cast<unsigned>(lower - 'a' + 10);
    }
    return std::nullopt;
}

std::optional<std::string> bytesFromHex(std::string_view text) {
    std::vector<unsigned> digits;
    for (const char c : text) {
        if (blanks.find(c) != std::string_view::npos) {
            continue;
        }
        const std::optional<unsigned> digit = hexDigit(c);
        if (!digit) {
            return std::nullopt;
        }
        digits.push_back(*digit);
    }
    if (digits.size() % 2 != 0) {
        return std::nullopt;
    }
    std::string bytes;
    for (std::size_t i = 0; i < digits.size(); i += 2) {
        bytes.push_back(static_cast<char>(digits[i] << 4U | digits[i + 1]));
    }
    return bytes;
}

std::string alphabet(std::size_t size) {
    std::string bytes(size, '\0');
    for (std::size_t i = 0; i < size; ++i) {
        bytes[i] = static_cast<char>('a' + i % 26);
    }
    return bytes;
}

Command failure(std::string why) {
    Command command;
    command.kind = Command::Kind::Error;
    command.error = std::move(why);
    return command;
}

Command plain(Command::Kind kind) {
    Command command;
    command.kind = kind;
    return command;
}

Command sending(std::function<void(XpcAgentProtocol&)> send) {
    Command command = plain(Command::Kind::Send);
    command.send = std::move(send);
    return command;
}

Command puttingBytes(std::string bytes) {
    return sending([bytes = std::move(bytes)](XpcAgentProtocol& agent) {
        agent.putMessage({bytes.data(), bytes.size()});
    });
}

Command parsePut(std::string_view rest) {
    return puttingBytes(std::string(rest));
}

Command parsePutHex(std::string_view rest) {
    std::optional<std::string> bytes = bytesFromHex(rest);
    return bytes ? puttingBytes(std::move(*bytes)) : failure("put-hex needs pairs of hexadecimal digits");
}

Command parsePutSize(std::string_view rest) {
    const std::optional<std::int64_t> size = numberFromWord(rest);
    if (!size || *size < 0 || static_cast<std::uint64_t>(*size) > largestMessage) {
        return failure("put-size needs a number of bytes from 0 to " + std::to_string(largestMessage));
    }
    return puttingBytes(alphabet(static_cast<std::size_t>(*size)));
}

Command parseLogLevel(std::string_view rest) {
    const std::optional<std::int64_t> level = numberFromWord(rest);
    return level ? sending([level = *level](XpcAgentProtocol& agent) { agent.logLevel(level); })
                 : failure("log-level needs a number");
}

Command parseConnected(std::string_view rest) {
    const std::optional<bool> flag = flagFromWord(rest);
    return flag ? sending([flag = *flag](XpcAgentProtocol& agent) { agent.connected(flag); })
                : failure("connected needs yes or no");
}

Command parseReachability(std::string_view rest) {
    const std::optional<bool> flag = flagFromWord(rest);
    return flag ? sending([flag = *flag](XpcAgentProtocol& agent) { agent.networkReachability(flag); })
                : failure("reachability needs yes or no");
}

Command parseInitRmm(std::string_view rest) {
    const std::optional<std::vector<std::string>> words = splitQuoted(rest);
    if (!words || words->size() != 5) {
        return failure("init-rmm needs five texts: MESSAGE TOKEN SUBDOMAIN URL VERSION");
    }
    return sending([texts = *words](XpcAgentProtocol& agent) {
        agent.initRmmMessage(texts[0], texts[1], texts[2], texts[3], texts[4]);
    });
}

Command parseRmm(std::string_view rest) {
    return sending([bytes = std::string(rest)](XpcAgentProtocol& agent) {
        agent.rmmMessage({bytes.data(), bytes.size()});
    });
}

Command parseAgents(std::string_view rest) {
    return rest.empty() ? plain(Command::Kind::ListAgents) : failure("agents takes nothing behind it");
}

Command parseAnswer(std::string_view rest) {
    Command command = plain(Command::Kind::SetAnswer);
    const std::optional<Answer> answer = answerFromWord(takeWord(rest));
    const bool wantsDelay = answer == Answer::Late && !rest.empty();
    if (wantsDelay) {
        command.delay = delayFromWord(rest);
    }
    if (!answer || (!rest.empty() && !command.delay)) {
        return failure("answer needs yes, no, never, or late with a delay in milliseconds if wanted");
    }
    command.answer = *answer;
    return command;
}

Command parsePing(std::string_view rest) {
    const std::optional<Ping> ping = pingFromWord(rest);
    if (!ping) {
        return failure("ping needs yes, no or never");
    }
    Command command = plain(Command::Kind::SetPing);
    command.ping = *ping;
    return command;
}

Command parseWaitAgent(std::string_view rest) {
    const std::optional<std::int64_t> number = numberFromWord(rest);
    if (!number || *number < 1) {
        return failure("wait-agent needs the number of an agent");
    }
    Command command = plain(Command::Kind::WaitAgent);
    command.target = number;
    return command;
}

Command parseExpect(std::string_view rest) {
    const std::string_view member = takeWord(rest);
    const bool known = std::any_of(xpcDaemonProtocol.begin(), xpcDaemonProtocol.end(),
                                   [&](const XpcMethod& method) { return method.member() == member; });
    if (!known) {
        return failure("expect needs a method that agents call, such as onScreenLocked");
    }
    Command command = plain(Command::Kind::Expect);
    command.member = member;
    command.arguments = rest;
    return command;
}

Command parseSleep(std::string_view rest) {
    Command command = plain(Command::Kind::Sleep);
    command.delay = delayFromWord(rest);
    return command.delay ? command : failure("sleep needs a number of milliseconds");
}

Command parseHelp(std::string_view /*rest*/) {
    return plain(Command::Kind::Help);
}

Command parseQuit(std::string_view rest) {
    return rest.empty() ? plain(Command::Kind::Quit) : failure("quit takes nothing behind it");
}

Command parseTo(std::string_view rest) {
    const std::string_view whom = takeWord(rest);
    const std::optional<std::int64_t> number = numberFromWord(whom);
    if (whom != "all" && (!number || *number < 1)) {
        return failure("to needs the number of an agent, or all, and then a command");
    }
    const bool again = rest.substr(0, rest.find_first_of(blanks)) == "to";
    Command command = again ? Command() : parseCommand(rest);
    if (command.kind == Command::Kind::Error) {
        return command;
    }
    if (command.kind != Command::Kind::Send) {
        return failure("to needs a command that calls an agent");
    }
    command.target = number;
    return command;
}

struct Verb {
    std::string_view name;
    std::string_view arguments;
    std::string_view what;
    Command (*parse)(std::string_view rest);
};

// Commands are carried out one after the other; while one waits, the next ones wait too.
constexpr std::array<Verb, 17> verbs{{
    {"put", "TEXT", "putMessage: with the bytes of TEXT", parsePut},
    {"put-hex", "HEX", "putMessage: with the bytes in hexadecimal, blanks allowed", parsePutHex},
    {"put-size", "BYTES", "putMessage: with that many bytes", parsePutSize},
    {"log-level", "N", "logLevel: with N", parseLogLevel},
    {"connected", "yes|no", "connected:, unasked", parseConnected},
    {"reachability", "yes|no", "networkReachability:", parseReachability},
    {"init-rmm", "A B C D E", "initRmmMessage: with five texts; \"in quotes\" if with blanks", parseInitRmm},
    {"rmm", "TEXT", "rmmMessage:, which velmmonitord refuses", parseRmm},
    {"to", "N|all COMMAND", "one of the commands above for agent N alone", parseTo},
    {"agents", "", "list the agents", parseAgents},
    {"answer", "yes|no|never|late [MS]", "answer connect so from now on", parseAnswer},
    {"ping", "yes|no|never", "answer pingWithReply: so from now on", parsePing},
    {"wait-agent", "N", "go on when agent N is here", parseWaitAgent},
    {"expect", "MEMBER [ARGUMENTS]", "go on when an agent calls so, or has since the last expect",
     parseExpect},
    {"sleep", "MS", "go on after that time", parseSleep},
    {"help", "", "print these lines", parseHelp},
    {"quit", "", "end; the end of the input does not", parseQuit},
}};

}  // namespace

Command parseCommand(std::string_view line) {
    std::string_view rest = trimmed(line);
    if (rest.empty() || rest.front() == '#') {
        return {};
    }
    const std::string_view name = takeWord(rest);
    const auto* const verb =
        std::find_if(verbs.begin(), verbs.end(), [&](const Verb& each) { return each.name == name; });
    if (verb == verbs.end()) {
        return failure("unknown command " + inQuotes(name) + "; try help");
    }
    return verb->parse(rest);
}

std::string commandHelp() {
    std::string help;
    for (const Verb& verb : verbs) {
        std::string usage(verb.name);
        usage.append(" ").append(verb.arguments);
        help.append("  ").append(padded(usage, 32)).append(verb.what).append("\n");
    }
    return help;
}

}  // namespace sim
