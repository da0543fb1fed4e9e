#pragma once

#include <chrono>
#include <csignal>
#include <optional>

/// The signals that would end this process, or that say that a child has ended, taken one at a time instead
/// of being delivered. One in a process, made before its first child; one thread.
class Signals {
public:
    /// Blocks them.
    Signals();
    ~Signals() = default;
    Signals(const Signals&) = delete;
    Signals& operator=(const Signals&) = delete;

    /// Waits for the next one; nothing if there is none before `time` has passed. Without a time it waits as
    /// long as it takes.
    int next() const;
    std::optional<int> next(std::chrono::nanoseconds time) const;
    /// In a child that is to run another program: has them delivered as before.
    void restore() const;

private:
    sigset_t m_handled{};
    sigset_t m_before{};
};
