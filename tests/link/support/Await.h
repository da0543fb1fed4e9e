#pragma once

#include <chrono>
#include <functional>

namespace link_tests {

/// How long a test waits for what must happen. Far above what any machine needs: it is reached only in
/// failure.
inline constexpr std::chrono::seconds waitCap{40};

/// Something that only makes progress when the test gives it the processor. Each is pumped by every `await`,
/// so one thread plays all the parts of a test and nothing in a test needs a lock.
class Pumped {
public:
    Pumped();
    virtual ~Pumped();
    Pumped(const Pumped&) = delete;
    Pumped& operator=(const Pumped&) = delete;

    /// Does what can be done now without waiting.
    virtual void pump() = 0;
};

/// Pumps until `condition` holds; false if it does not before the cap.
bool await(const std::function<bool()>& condition, std::chrono::milliseconds cap = waitCap);

/// Pumps for that long. Only for tests that watch how little happens in a span of time.
void pumpFor(std::chrono::milliseconds span);

}  // namespace link_tests
