#pragma once

#include <chrono>
#include <functional>
#include <utility>

// The stand-in is single-threaded, and the main queue is its thread. An exception of what runs there ends the
// process.

namespace sim {

/// Runs `work` on the main queue after what was posted before. Any thread.
void postToMainQueue(const std::function<void()>& work) noexcept;
/// Runs `work` on the main queue after that time. Any thread.
void postToMainQueue(std::chrono::milliseconds delay, const std::function<void()>& work) noexcept;

/// Runs `work` on the main queue and waits for its end. Any thread but the main one.
void runOnMainQueue(const std::function<void()>& work) noexcept;

/// For callers that Objective-C called: nothing gets out of it, not even of the wrapping of `work`, whose
/// captures must move without throwing.
template <typename Work>
void post(Work work) noexcept {
    postToMainQueue(std::move(work));
}

}  // namespace sim
