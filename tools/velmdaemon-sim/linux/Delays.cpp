#include "linux/Delays.h"

#include <cstdint>
#include <ctime>
#include <utility>

#include "linux/Callbacks.h"
#include "linux/Failure.h"

namespace sim {

void Delays::after(std::chrono::milliseconds delay, std::function<void()> work) {
    constexpr std::uint64_t accuracy = 1000;  // in microseconds; the default would round up to 250 ms
    Entry& entry = m_entries.emplace_back(Entry{this, std::move(work), nullptr});
    const auto microseconds = static_cast<std::uint64_t>(std::chrono::microseconds(delay).count());
    checked(sd_event_add_time_relative(m_event, OutHandle(entry.source), CLOCK_MONOTONIC, microseconds,
                                       accuracy, eventCallback<&Entry::due, Entry>, &entry),
            "set a timer");
}

void Delays::Entry::due() {
    const std::function<void()> now = std::move(work);
    owner->m_entries.remove_if([this](const Entry& each) { return &each == this; });
    // This entry is gone.
    now();
}

}  // namespace sim
