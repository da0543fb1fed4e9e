#pragma once

#include <chrono>
#include <thread>

/// What no test outlives, as an interval or a delay.
constexpr std::chrono::hours never{1};
constexpr std::chrono::milliseconds a_while{50};

/// Polls until `condition` holds; false after twenty seconds of waiting in vain, and some turns more: they
/// may have passed while the whole process was held up.
template <typename Condition>
bool eventually(Condition condition) {
    const auto cap = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    for (int turnsLeft = 100; !condition();) {
        if (std::chrono::steady_clock::now() > cap && turnsLeft-- == 0) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}
