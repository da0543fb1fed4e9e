#pragma once

#include <chrono>
#include <thread>

/// Polls until `condition` holds; false after twenty seconds of waiting in vain.
template <typename Condition>
bool eventually(Condition condition) {
    const auto cap = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > cap) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}
