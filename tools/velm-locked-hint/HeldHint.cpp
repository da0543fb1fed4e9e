#include "HeldHint.h"

#include <chrono>
#include <iostream>
#include <stdexcept>
#include <thread>

namespace {

void complain(const std::exception& problem) {
    std::cerr << "velm-locked-hint: " << problem.what() << "\n";
}

}  // namespace

HeldHint::HeldHint() {
    try {
        take();
    } catch (const std::runtime_error& problem) {
        complain(problem);
    }
}

void HeldHint::take() {
    m_hint.emplace();
    m_claim.emplace(m_hint->session());
    if (!m_claim->held() || (m_hint->isSet() && !m_claim->isInherited())) {
        return;
    }
    // In this order: killed between the two, a successor clears a hint that was never set.
    m_claim->markSet();
    m_isOurs = true;
    m_hint->set(true);
}

HeldHint::~HeldHint() {
    constexpr int attempts = 10;
    for (int attempt = 1; m_isOurs; ++attempt) {
        try {
            m_hint->set(false);
            m_claim->markCleared();
            return;
        } catch (const std::runtime_error& problem) {
            if (attempt == attempts) {
                complain(problem);
                return;
            }
        }
        std::this_thread::sleep_for(std::chrono::seconds(1));
    }
}
