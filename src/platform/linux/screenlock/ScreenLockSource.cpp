#include "platform/linux/screenlock/ScreenLockSource.h"

#include <utility>

#include "platform/linux/bus/OpenBus.h"

namespace platform {
namespace {

using std::chrono::seconds;

// Every machine has a system bus, and its absence passes. A user without a desktop never has a session bus,
// and an idle agent should not wake for it.
constexpr Backoff systemBusRetry{seconds(1), seconds(1)};
constexpr Backoff sessionBusRetry{seconds(1), seconds(60)};

// A socket is there a little before anybody listens on it.
constexpr int attemptsAfterAppearance = 4;

}  // namespace

ScreenLockSource::ScreenLockSource(sd_event* loop, std::function<void(bool locked)> report)
    : m_state(std::move(report), [this](const std::string& session) { m_sessions.lookAgain(session); }),
      m_sessions(m_state),
      m_savers(m_state),
      m_sessionBusSocket(loop, [this] { sessionBusAppeared(); }),
      m_systemBus(loop, &openSystemBus, systemBusRetry,
                  {[this](sd_bus* bus) { m_sessions.open(bus); }, [this] { m_sessions.close(); }}),
      m_sessionBus(loop, &openUserBus, sessionBusRetry,
                   {[this](sd_bus* bus) { sessionBusOpened(bus); }, [this] { sessionBusLost(); },
                    [this] { return awaitSessionBus(); }}),
      m_attemptsLeft(attemptsAfterAppearance) {
    m_systemBus.start();
    // Before the attempt, so that no socket appears between.
    m_sessionBusSocket.await();
    m_sessionBus.start();
}

void ScreenLockSource::sessionBusOpened(sd_bus* bus) {
    m_sessionBusSocket.stop();
    m_savers.open(bus);
}

void ScreenLockSource::sessionBusLost() {
    m_savers.close();
    m_attemptsLeft = attemptsAfterAppearance;
    m_sessionBusSocket.await();
}

void ScreenLockSource::sessionBusAppeared() {
    m_attemptsLeft = attemptsAfterAppearance;
    m_sessionBus.start();
}

bool ScreenLockSource::awaitSessionBus() {
    m_sessionBusSocket.await();
    return m_sessionBusSocket.awaited() && m_attemptsLeft-- <= 0;
}

}  // namespace platform
