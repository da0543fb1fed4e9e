#include "linux/Delays.h"

#include <cstdint>
#include <ctime>
#include <utility>

#include "linux/Failure.h"

namespace sim {

void Delays::after(std::chrono::milliseconds delay, std::function<void()> work) {
    constexpr std::uint64_t accuracy = 1000;  // in microseconds; the default would round up to 250 ms
    Entry& entry = m_entries.emplace_back(Entry{this, std::move(work), nullptr});
    const auto microseconds = static_cast<std::uint64_t>(std::chrono::microseconds(delay).count());
    sd_event_source* source = nullptr;
    checked(sd_event_add_time_relative(m_event, &source, CLOCK_MONOTONIC, microseconds, accuracy,
                                       &Delays::onTime, &entry),
            "set a timer");
    entry.source.reset(source);
}

int Delays::onTime(sd_event_source* source, std::uint64_t /*time*/, void* userdata) {
    auto* entry = static_cast<Entry*>(userdata);
    const std::function<void()> work = std::move(entry->work);
    entry->owner->m_entries.remove_if([source](const Entry& each) { return each.source.get() == source; });
    work();
    return 0;
}

}  // namespace sim
