#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "unit/platform/screenlock/ScreenLockModel.h"

namespace {

// Each byte is one event: which, of which of two sessions or savers, and with which value. The histories are
// kept short, as the model looks at all of each for every event.
std::vector<ScreenLockEvent> historyOf(const std::uint8_t* data, std::size_t size) {
    constexpr std::size_t longestHistory = 64;
    std::vector<ScreenLockEvent> history;
    for (std::size_t index = 0; index < size && index < longestHistory; ++index) {
        const unsigned byte = data[index];
        const auto kind = static_cast<ScreenLockEvent::Kind>(byte / 4 % ScreenLockEvent::kinds);
        history.push_back({kind, (byte & 2U) != 0 ? "b" : "a", (byte & 1U) != 0});
    }
    return history;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::vector<ScreenLockEvent> history = historyOf(data, size);
    std::vector<bool> reports;
    platform::ScreenLockState state([&reports](bool locked) { reports.push_back(locked); },
                                    [](const std::string&) {});
    for (const ScreenLockEvent& event : history) {
        apply(state, event);
    }
    if (reports != ScreenLockModel::reports(history)) {
        std::abort();
    }
    return 0;
}
