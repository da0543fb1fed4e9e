#include "support/CallTrace.h"

#include <algorithm>
#include <utility>

namespace fake {

CallTrace& CallTrace::instance() {
    // Never destroyed: what is torn down after main still reports here.
    static auto* const trace = new CallTrace();
    return *trace;
}

void CallTrace::add(const std::string& entry) {
    append({entry, std::this_thread::get_id(), false, std::chrono::steady_clock::now()});
    std::function<void()> action;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (m_action && m_awaited == entry) {
            action.swap(m_action);
        }
    }
    if (action) {
        action();
    }
}

void CallTrace::addLogLine(const std::string& line) {
    append({line, {}, true, std::chrono::steady_clock::now()});
}

void CallTrace::append(Entry entry) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_entries.push_back(std::move(entry));
    m_changed.notify_all();
}

std::vector<std::string> CallTrace::select(const std::function<bool(const Entry&)>& wanted) const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<std::string> texts;
    for (const Entry& entry : m_entries) {
        if (wanted(entry)) {
            texts.push_back(entry.text);
        }
    }
    return texts;
}

std::vector<std::string> CallTrace::entries() const {
    return select([](const Entry&) { return true; });
}

std::vector<std::string> CallTrace::entriesOfThisThread() const {
    return select(
        [](const Entry& entry) { return entry.logged || entry.thread == std::this_thread::get_id(); });
}

std::vector<std::string> CallTrace::entriesOfOtherThreads() const {
    return select(
        [](const Entry& entry) { return !entry.logged && entry.thread != std::this_thread::get_id(); });
}

std::vector<std::string> CallTrace::logLines() const {
    return select([](const Entry& entry) { return entry.logged; });
}

std::vector<std::chrono::steady_clock::time_point> CallTrace::timesOf(const std::string& entry) const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<std::chrono::steady_clock::time_point> times;
    for (const Entry& candidate : m_entries) {
        if (candidate.text == entry) {
            times.push_back(candidate.time);
        }
    }
    return times;
}

void CallTrace::clear() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_entries.clear();
    m_action = nullptr;
}

void CallTrace::onNext(const std::string& entry, std::function<void()> action) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_awaited = entry;
    m_action = std::move(action);
}

bool CallTrace::waitFor(const std::string& entry, std::chrono::milliseconds cap, std::ptrdiff_t count) const {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_changed.wait_for(lock, cap, [&] {
        return std::count_if(m_entries.begin(), m_entries.end(),
                             [&](const Entry& candidate) { return candidate.text == entry; }) >= count;
    });
}

}  // namespace fake
