#include <fuzzer/FuzzedDataProvider.h>

#include <optional>
#include <string>
#include <tuple>

#include "Must.h"
#include "RawMessage.h"
#include "platform/linux/screenlock/SessionProperties.h"

// What logind says of a session is read twice: from bytes that nobody put in order, where the reader must
// come to an end in one piece, and from a dictionary that was made in order, where it must find what was put
// in.

namespace {

using platform::SessionProperties;

auto everythingOf(const SessionProperties& properties) {
    return std::tie(properties.user, properties.kind, properties.state, properties.type, properties.remote,
                    properties.lockedHint);
}

void readRawBytes(FuzzedDataProvider& input) {
    const std::string signature = input.PickValueInArray({"a{sv}", "as", "sa{sv}as", "a{ss}", "v", ""});
    RawMessage::call("PropertiesChanged", signature, input.ConsumeRemainingBytesAsString())
        .deliver([](sd_bus_message* message) {
            platform::readSessionProperties(message);
            platform::listsWhatMatters(message);
            sd_bus_message_rewind(message, 1);
            sd_bus_message_skip(message, "s");
            platform::readSessionProperties(message);
            platform::listsWhatMatters(message);
        });
}

class Dictionary {
public:
    explicit Dictionary(sd_bus_message* message) : m_message(message) {
        must(sd_bus_message_open_container(message, 'a', "{sv}") >= 0, "a dictionary opens");
    }

    // One more property, of those that matter and of those that do not; of the right type as a rule.
    void add(FuzzedDataProvider& input) {
        switch (input.ConsumeIntegralInRange(0, 8)) {
            case 0:
                expected.user = input.ConsumeIntegral<std::uint32_t>();
                append("User", "(uo)", *expected.user, "/org/freedesktop/login1/user/_1000");
                break;
            case 1:
                addText("Class", expected.kind, input);
                break;
            case 2:
                addText("State", expected.state, input);
                break;
            case 3:
                addText("Type", expected.type, input);
                break;
            case 4:
                expected.remote = input.ConsumeBool();
                append("Remote", "b", static_cast<int>(*expected.remote));
                break;
            case 5:
                expected.lockedHint = input.ConsumeBool();
                append("LockedHint", "b", static_cast<int>(*expected.lockedHint));
                break;
            case 6:
                append(text(input).c_str(), "as", 2, "one", "two");
                break;
            case 7:
                append("Display", "s", text(input).c_str());
                break;
            default:
                append(input.PickValueInArray({"User", "Class", "State", "Type", "Remote", "LockedHint"}),
                       "t", std::uint64_t{1});
                broken = true;
        }
    }

    void close() {
        must(sd_bus_message_close_container(m_message) >= 0, "a dictionary closes");
        must(sd_bus_message_seal(m_message, 1, 0) >= 0 && sd_bus_message_rewind(m_message, 1) >= 0,
             "a message can be read");
    }

    SessionProperties expected;
    bool broken = false;

private:
    static std::string text(FuzzedDataProvider& input) {
        std::string text = "x";
        for (const char byte : input.ConsumeRandomLengthString(8)) {
            text.push_back(static_cast<char>('a' + static_cast<unsigned char>(byte) % 26));
        }
        return text;
    }

    void addText(const char* name, std::optional<std::string>& value, FuzzedDataProvider& input) {
        value = text(input);
        append(name, "s", value->c_str());
    }

    template <typename... Values>
    void append(const char* name, const char* type, Values... values) {
        must(sd_bus_message_append(m_message, "{sv}", name, type, values...) >= 0, "a property is appended");
    }

    sd_bus_message* m_message;
};

void readWhatWasMade(FuzzedDataProvider& input) {
    bool delivered = false;
    RawMessage::call("PropertiesChanged", "", "").deliver([&](sd_bus_message* carrier) {
        delivered = true;
        sd_bus_message* raw = nullptr;
        must(sd_bus_message_new_signal(sd_bus_message_get_bus(carrier), &raw, "/a", "a.b", "C") >= 0,
             "there is a message");
        const platform::MessageHandle message(raw);
        Dictionary dictionary(raw);
        while (input.remaining_bytes() > 0) {
            dictionary.add(input);
        }
        dictionary.close();
        const std::optional<SessionProperties> found = platform::readSessionProperties(raw);
        must(found.has_value() == !dictionary.broken,
             "a dictionary is refused for a wrong type, and only then");
        if (found) {
            must(everythingOf(*found) == everythingOf(dictionary.expected), "what was put in is found");
        }
    });
    must(delivered, "a message that is in order arrives");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzedDataProvider input(data, size);
    if (input.ConsumeBool()) {
        readRawBytes(input);
    } else {
        readWhatWasMade(input);
    }
    return 0;
}
