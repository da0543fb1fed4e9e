#include "Options.h"

#include <algorithm>
#include <functional>

#include "Command.h"
#include "Text.h"

namespace sim {
namespace {

struct OptionKind {
    const char* name;
    bool takesValue;
    bool ofBus;
    // Stores the value; false if it makes no sense.
    std::function<bool(Options&, const std::string&)> store;
};

template <typename Value, typename Target>
bool storeIf(const std::optional<Value>& value, Target& target) {
    if (value) {
        target = *value;
    }
    return value.has_value();
}

bool storeTrue(bool& flag) {
    return flag = true;
}

const std::vector<OptionKind>& optionKinds() {
    using Text = const std::string&;
    static const std::vector<OptionKind> kinds{
        {"--answer", true, false,
         [](Options& o, Text value) { return storeIf(answerFromWord(value), o.behaviour.answer); }},
        {"--delay", true, false,
         [](Options& o, Text value) { return storeIf(delayFromWord(value), o.behaviour.delay); }},
        {"--ping", true, false,
         [](Options& o, Text value) { return storeIf(pingFromWord(value), o.behaviour.ping); }},
        {"--log-level", true, false,
         [](Options& o, Text value) { return storeIf(numberFromWord(value), o.behaviour.logLevel); }},
        {"--patience", true, false,
         [](Options& o, Text value) { return storeIf(delayFromWord(value), o.behaviour.patience); }},
        {"--json", false, false,
         [](Options& o, Text) {
             o.format = Format::Json;
             return true;
         }},
        {"--session", false, true, [](Options& o, Text) { return storeTrue(o.bus.session); }},
        {"--address", true, true,
         [](Options& o, Text value) {
             o.bus.address = value;
             return !value.empty();
         }},
        {"--replace", false, true, [](Options& o, Text) { return storeTrue(o.bus.replace); }},
        {"--queue", false, true, [](Options& o, Text) { return storeTrue(o.bus.queue); }},
        {"--help", false, false, [](Options& o, Text) { return storeTrue(o.help); }},
        {"--version", false, false, [](Options& o, Text) { return storeTrue(o.version); }},
    };
    return kinds;
}

const OptionKind* findKind(const std::string& name, BusChoice choice) {
    const auto& kinds = optionKinds();
    const auto found = std::find_if(kinds.begin(), kinds.end(), [&](const OptionKind& kind) {
        return name == kind.name && (choice == BusChoice::Offered || !kind.ofBus);
    });
    return found == kinds.end() ? nullptr : &*found;
}

// Reads one option at `next` and moves it on; returns what is wrong, if anything.
std::string readOption(const std::vector<std::string>& arguments, std::size_t& next, BusChoice choice,
                       Options& options) {
    const std::string& argument = arguments[next++];
    const std::size_t equals = argument.find('=');
    const std::string name = argument.substr(0, equals);
    const OptionKind* kind = findKind(name, choice);
    if (kind == nullptr) {
        return "unknown option " + inQuotes(argument);
    }
    std::string value;
    if (!kind->takesValue) {
        if (equals != std::string::npos) {
            return "option " + name + " takes no value";
        }
    } else if (equals != std::string::npos) {
        value = argument.substr(equals + 1);
    } else if (next < arguments.size()) {
        value = arguments[next++];
    } else {
        return "option " + name + " needs a value";
    }
    return kind->store(options, value) ? "" : "option " + name + " cannot be " + inQuotes(value);
}

}  // namespace

Options parseOptions(const std::vector<std::string>& arguments, BusChoice choice) {
    Options options;
    for (std::size_t next = 0; next < arguments.size() && options.error.empty();) {
        options.error = readOption(arguments, next, choice, options);
    }
    if (options.error.empty() && options.bus.session && !options.bus.address.empty()) {
        options.error = "options --session and --address exclude each other";
    }
    return options;
}

std::string usageText(BusChoice choice) {
    std::string text =
        "usage: velmdaemon-sim [OPTION]...\n"
        "\n"
        "Stands in for the management daemon that velmmonitord talks to: vends its service, answers the\n"
        "agents, prints every call as one line, and calls the agents on request.\n"
        "\n"
        "Answers to the agents:\n"
        "  --answer yes|no|never|late  what \"connect\" is answered with (yes)\n"
        "  --delay MS                  how late a late answer is, in milliseconds (1500)\n"
        "  --ping yes|no|never         what \"pingWithReply:\" is answered with (yes)\n"
        "  --log-level N               the level that \"requestForLogLevel:\" is answered with (6)\n"
        "\n";
    if (choice == BusChoice::Offered) {
        text +=
            "Bus:\n"
            "  --session                   serve on the session bus, not on the system bus\n"
            "  --address ADDRESS           serve on the bus at this D-Bus address\n"
            "  --replace                   take the service name from another stand-in\n"
            "  --queue                     wait for the service name while another owns it\n"
            "\n";
    }
    text +=
        "Other:\n"
        "  --json                      print each line as a JSON object\n"
        "  --patience MS               how long wait-agent and expect wait, in milliseconds (10000)\n"
        "  --help                      print this text and end\n"
        "  --version                   print the version and end\n"
        "\n"
        "Commands on standard input, one a line:\n";
    return text + commandHelp();
}

}  // namespace sim
