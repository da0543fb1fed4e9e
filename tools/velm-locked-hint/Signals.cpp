#include "Signals.h"

#include <algorithm>
#include <ctime>

Signals::Signals() {
    sigemptyset(&m_handled);
    // Of these some mean something to lockers: swaylock unlocks at SIGUSR1.
    for (const int signal : {SIGCHLD, SIGTERM, SIGINT, SIGHUP, SIGQUIT, SIGUSR1, SIGUSR2}) {
        sigaddset(&m_handled, signal);
    }
    // A parent that ignored it would have the kernel reap for us.
    static_cast<void>(std::signal(SIGCHLD, SIG_DFL));
    sigprocmask(SIG_BLOCK, &m_handled, &m_before);
}

int Signals::next() const {
    int signal = 0;
    sigwait(&m_handled, &signal);
    return signal;
}

std::optional<int> Signals::next(std::chrono::nanoseconds time) const {
    using namespace std::chrono;
    const auto left = std::max(time, nanoseconds(0));
    const auto whole = duration_cast<seconds>(left);
    const timespec longest{whole.count(), (left - whole).count()};
    const int signal = sigtimedwait(&m_handled, nullptr, &longest);
    return signal < 0 ? std::nullopt : std::optional<int>(signal);
}

void Signals::restore() const {
    sigprocmask(SIG_SETMASK, &m_before, nullptr);
}
