#include "platform/linux/screenlock/ScreenLockSource.h"

#include <utility>

namespace platform {
namespace {

using std::chrono::seconds;

// Every machine has a system bus, and its absence passes. A user without a desktop never has a session bus,
// and an idle agent should not wake for it.
constexpr Backoff systemBusRetry{seconds(1), seconds(1)};
constexpr Backoff sessionBusRetry{seconds(1), seconds(60)};

}  // namespace

ScreenLockSource::ScreenLockSource(sd_event* loop, std::function<void(bool locked)> report)
    : m_state(std::move(report), [this] { dropSavers(); }),
      m_sessions(m_state),
      m_savers(m_state),
      m_systemBus(loop, &sd_bus_open_system, systemBusRetry,
                  {[this](sd_bus* bus) { m_sessions.open(bus); }, [this] { m_sessions.close(); }}),
      m_sessionBus(
          std::make_unique<BusConnection>(loop, &sd_bus_open_user, sessionBusRetry,
                                          BusConnection::Handlers{[this](sd_bus* bus) { m_savers.open(bus); },
                                                                  [this] { m_savers.close(); }})) {
    m_systemBus.start();
    m_sessionBus->start();
}

// Reached only from what logind said, so no callback of the session bus is under way.
void ScreenLockSource::dropSavers() {
    m_savers.close();
    m_sessionBus.reset();
}

}  // namespace platform
