#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <string>
#include <vector>

#include "Command.h"
#include "LineSplitter.h"
#include "Must.h"
#include "Options.h"
#include "Text.h"
#include "support/RecordingAgent.h"

// What an operator types and pipes into the stand-in, and its command line.

namespace {

bool isOneLine(const std::string& text) {
    return std::none_of(text.begin(), text.end(),
                        [](char byte) { return static_cast<unsigned char>(byte) < ' '; });
}

// The lines of `text` as they come when it arrives in pieces.
std::vector<std::string> linesInPieces(const std::string& text, FuzzedDataProvider& pieces) {
    std::vector<std::string> lines;
    sim::LineSplitter splitter([&lines](std::string_view line) {
        lines.emplace_back(line);
        return true;
    });
    std::size_t begin = 0;
    while (begin < text.size()) {
        const auto length =
            pieces.remaining_bytes() > 0 ? pieces.ConsumeIntegralInRange<std::size_t>(0, 9) : text.size();
        splitter.feed(std::string_view(text).substr(begin, length));
        begin += length;
    }
    splitter.finish();
    return lines;
}

// As in the shell's own reading of lines: each ends at its line feed, the last one at the end.
std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines(1);
    for (const char byte : text) {
        if (byte == '\n') {
            lines.emplace_back();
        } else {
            lines.back().push_back(byte);
        }
    }
    if (lines.back().empty()) {
        lines.pop_back();
    }
    return lines;
}

std::vector<std::string> callsOf(const sim::Command& command) {
    RecordingAgent agent;
    command.send(agent);
    must(agent.calls().size() == 1, "a command that sends makes one call");
    return agent.calls();
}

void check(const std::string& line) {
    const sim::Command command = sim::parseCommand(line);
    const bool wrong = command.kind == sim::Command::Kind::Error;
    must(wrong == !command.error.empty(), "what is not understood is said, and only that");
    must(isOneLine(command.error), "an error is one line");
    must((command.kind == sim::Command::Kind::Send) == static_cast<bool>(command.send), "a call can be made");
    must(command.kind != sim::Command::Kind::Expect || isOneLine(sim::inQuotes(command.arguments)),
         "what is expected can be shown");
    const sim::Command again = sim::parseCommand("  " + line + " \r");
    must(again.kind == command.kind && again.error == command.error && again.target == command.target,
         "blanks around a line mean nothing");
    if (command.send) {
        must(callsOf(command) == callsOf(again) && callsOf(command) == callsOf(command),
             "each call is the same");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzedDataProvider input(data, size);
    const std::string pieces = input.ConsumeBytesAsString(input.ConsumeIntegralInRange<std::size_t>(0, 8));
    const std::string text = input.ConsumeRemainingBytesAsString();
    FuzzedDataProvider lengths(reinterpret_cast<const std::uint8_t*>(pieces.data()), pieces.size());
    const std::vector<std::string> lines = linesOf(text);
    must(linesInPieces(text, lengths) == lines, "lines do not depend on how they arrive");
    for (const std::string& line : lines) {
        // Millions of bytes show nothing that thousands do not, and take their time.
        if (line.find("put-size") == std::string::npos || line.size() < 15) {
            check(line);
        }
    }
    for (const auto choice : {sim::BusChoice::Offered, sim::BusChoice::None}) {
        must(isOneLine(sim::parseOptions(lines, choice).error),
             "what is wrong with the command line is one line");
    }
    return 0;
}
