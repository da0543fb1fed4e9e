#include "link/support/MateDesktop.h"

#include <cstdint>
#include <stdexcept>

namespace link_tests {
namespace {

constexpr const char* saverName = "org.mate.ScreenSaver";

const std::string& startedAddress(PrivateBus& bus) {
    bus.start();
    return bus.address();
}

}  // namespace

MateDesktop::MateDesktop(uid_t user) : m_saver(startedAddress(m_bus), user) {
    constexpr std::uint32_t owner = 1;
    if (m_saver.requestName(saverName) != owner) {
        throw std::runtime_error("the screen saver did not get its name");
    }
}

void MateDesktop::emit(bool active) {
    static const BusTarget toAll{"", "/org/mate/ScreenSaver", saverName};
    m_saver.emit(toAll, "ActiveChanged", "b", static_cast<int>(active));
}

void MateDesktop::unlockAndLock(std::size_t rounds) {
    for (std::size_t round = 0; round < rounds; ++round) {
        emit(false);
        emit(true);
    }
}

}  // namespace link_tests
