#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace fake {

/// One ordered list of everything that the code under test did to its surroundings: calls to the faked
/// platform and lines logged. One for the process; safe on any thread.
class CallTrace {
public:
    static CallTrace& instance();

    /// Appends `entry`, made by the calling thread.
    void add(const std::string& entry);
    /// Appends a log line, which belongs to no thread: each is written on a thread of its own.
    void addLogLine(const std::string& line);

    std::vector<std::string> entries() const;
    /// The entries of the calling thread, and all log lines.
    std::vector<std::string> entriesOfThisThread() const;
    /// The entries of other threads, without log lines.
    std::vector<std::string> entriesOfOtherThreads() const;
    /// The log lines alone.
    std::vector<std::string> logLines() const;
    /// When each entry that equals `entry` was appended, in their order.
    std::vector<std::chrono::steady_clock::time_point> timesOf(const std::string& entry) const;
    /// Forgets all entries, and the action of `onNext`.
    void clear();

    /// Has `action` called once, by the thread that next adds an `entry` that is no log line, right after it
    /// was added.
    void onNext(const std::string& entry, std::function<void()> action);

    /// Waits until there are `count` entries that equal `entry`, at most for `cap`; returns whether there
    /// are.
    bool waitFor(const std::string& entry, std::chrono::milliseconds cap = std::chrono::seconds(20),
                 std::ptrdiff_t count = 1) const;

private:
    struct Entry {
        std::string text;
        std::thread::id thread;
        bool logged;
        std::chrono::steady_clock::time_point time;
    };

    std::vector<std::string> select(const std::function<bool(const Entry&)>& wanted) const;
    void append(Entry entry);

    mutable std::mutex m_mutex;
    mutable std::condition_variable m_changed;
    std::vector<Entry> m_entries;
    std::string m_awaited;
    std::function<void()> m_action;
};

}  // namespace fake
