#include "link/support/Await.h"

#include <algorithm>
#include <thread>
#include <vector>

namespace link_tests {
namespace {

constexpr std::chrono::milliseconds turnLength{3};

/// So many turns follow the cap: it may have passed while all were held up, not only who is waited for.
int turnsPast(std::chrono::milliseconds cap) {
    return static_cast<int>(std::min<std::chrono::milliseconds::rep>(100, cap.count() / 10));
}

std::vector<Pumped*>& everyPumped() {
    static std::vector<Pumped*> pumped;
    return pumped;
}

void pumpAll() {
    for (Pumped* pumped : everyPumped()) {
        pumped->pump();
    }
}

}  // namespace

Pumped::Pumped() {
    everyPumped().push_back(this);
}

Pumped::~Pumped() {
    std::vector<Pumped*>& all = everyPumped();
    all.erase(std::remove(all.begin(), all.end(), this), all.end());
}

bool await(const std::function<bool()>& condition, std::chrono::milliseconds cap) {
    const auto deadline = std::chrono::steady_clock::now() + cap;
    for (int turnsLeft = turnsPast(cap);;) {
        pumpAll();
        if (condition()) {
            return true;
        }
        if (std::chrono::steady_clock::now() > deadline && turnsLeft-- == 0) {
            return false;
        }
        std::this_thread::sleep_for(turnLength);
    }
}

void pumpFor(std::chrono::milliseconds span) {
    const auto end = std::chrono::steady_clock::now() + span;
    for (pumpAll(); std::chrono::steady_clock::now() <= end; pumpAll()) {
        std::this_thread::sleep_for(turnLength);
    }
}

}  // namespace link_tests
