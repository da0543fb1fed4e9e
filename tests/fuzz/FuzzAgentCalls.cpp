#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "Must.h"
#include "RawMessage.h"
#include "platform/linux/link/AgentCalls.h"
#include "platform/linux/link/ProtocolVTable.h"
#include "support/RecordingAgent.h"

// What comes in as a call of the agent: from bytes that nobody put in order, where reading must come to an
// end in one piece, and from arguments that were put in order, where the agent must be called with just
// these.

namespace {

const XpcMethod& anyMethod(FuzzedDataProvider& input) {
    return xpcAgentProtocol
        .methods[input.ConsumeIntegralInRange<std::size_t>(0, xpcAgentProtocol.methodCount - 1)];
}

// Reads `message` as a call of each method in turn. At most one call comes of each, the same at a second
// look.
void readAsEachMethod(sd_bus_message* message) {
    for (const XpcMethod& method : xpcAgentProtocol) {
        RecordingAgent agent;
        for (int look = 0; look < 2; ++look) {
            sd_bus_message_rewind(message, 1);
            if (const platform::AgentCall call = platform::decodeAgentCall(method, message)) {
                call(agent);
            }
        }
        const std::vector<std::string> calls = agent.calls();
        must(calls.empty() || (calls.size() == 2 && calls[0] == calls[1]), "a message is one call, or none");
        must(calls.empty() || calls[0].rfind(std::string(method.member()) + ":", 0) == 0,
             "a message is a call of the method that it names");
    }
}

void readRawBody(FuzzedDataProvider& input) {
    const XpcMethod& method = anyMethod(input);
    const std::string signature =
        input.ConsumeBool() ? platform::dbus::argumentSignature(method)
                            : std::string(input.PickValueInArray({"", "s", "ay", "v", "as", "bb", "x", "h"}));
    RawMessage::call(std::string(method.member()), signature, input.ConsumeRemainingBytesAsString())
        .deliver(&readAsEachMethod);
}

// Arguments for a method, and how a recording agent writes down a call with them.
class Arguments {
public:
    explicit Arguments(sd_bus_message* message) : m_message(message) {}

    void add(const XpcMethod& method, FuzzedDataProvider& input) {
        expected = std::string(method.member()) + ":";
        const std::string signature = platform::dbus::argumentSignature(method);
        for (std::size_t index = 0; index < signature.size(); ++index) {
            if (signature.compare(index, 2, "ay") == 0) {
                const std::string bytes = input.ConsumeRandomLengthString(64);
                must(sd_bus_message_append_array(m_message, 'y', bytes.data(), bytes.size()) >= 0,
                     "bytes are appended");
                expected += bytes;
                ++index;
            } else {
                addOne(signature[index], index, input);
            }
        }
    }

    std::string expected;

private:
    void addOne(char type, std::size_t index, FuzzedDataProvider& input) {
        if (type == 's') {
            std::string text = input.ConsumeRandomLengthString(20);
            std::replace_if(
                text.begin(), text.end(), [](char byte) { return byte <= 0; }, '?');
            must(sd_bus_message_append_basic(m_message, type, text.c_str()) >= 0, "text is appended");
            expected += (index == 0 ? "" : "|") + text;
        } else if (type == 'b') {
            const int flag = static_cast<int>(input.ConsumeBool());
            must(sd_bus_message_append_basic(m_message, type, &flag) >= 0, "a flag is appended");
            expected += std::to_string(flag);
        } else {
            must(type == 'x', "the types are those that this fuzzer knows");
            const auto number = input.ConsumeIntegral<std::int64_t>();
            must(sd_bus_message_append_basic(m_message, type, &number) >= 0, "a number is appended");
            expected += std::to_string(number);
        }
    }

    sd_bus_message* m_message;
};

void readWhatWasMade(FuzzedDataProvider& input) {
    bool delivered = false;
    RawMessage::call("any", "", "").deliver([&](sd_bus_message* carrier) {
        delivered = true;
        const XpcMethod& method = anyMethod(input);
        sd_bus_message* raw = nullptr;
        must(sd_bus_message_new_method_call(sd_bus_message_get_bus(carrier), &raw, "a.b", "/a", "a.b", "C") >=
                 0,
             "there is a message");
        const platform::MessageHandle message(raw);
        Arguments arguments(raw);
        arguments.add(method, input);
        must(sd_bus_message_seal(raw, 1, 0) >= 0, "a message can be read");
        RecordingAgent agent;
        const platform::AgentCall call = platform::decodeAgentCall(method, raw);
        must(static_cast<bool>(call), "arguments that are in order are read");
        call(agent);
        must(agent.calls() == std::vector<std::string>{arguments.expected}, "the agent gets what was sent");
    });
    must(delivered, "a message that is in order arrives");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzedDataProvider input(data, size);
    switch (input.ConsumeIntegralInRange(0, 3)) {
        case 0:
            RawMessage(input.ConsumeRemainingBytesAsString()).deliver(&readAsEachMethod);
            break;
        case 1:
            readRawBody(input);
            break;
        default:
            readWhatWasMade(input);
    }
    return 0;
}
