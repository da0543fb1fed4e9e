#pragma once

#include <atomic>

namespace link_tests {

/// How often a connection's handlers were called.
struct Losses {
    std::atomic<int> interruptions{0};
    std::atomic<int> invalidations{0};
    int all() const { return interruptions + invalidations; }
};

}  // namespace link_tests
