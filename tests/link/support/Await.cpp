#include "link/support/Await.h"

#include <algorithm>
#include <thread>
#include <vector>

namespace link_tests {
namespace {

constexpr std::chrono::milliseconds turnLength{3};

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
    for (;;) {
        pumpAll();
        if (condition()) {
            return true;
        }
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(turnLength);
    }
}

void pumpFor(std::chrono::milliseconds span) {
    await([] { return false; }, span);
}

}  // namespace link_tests
