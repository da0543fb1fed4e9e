#pragma once

#include <memory>

/// Owns the link to the daemon, both monitors and the timer that asks for a connection once a second while
/// the link is down, and wires them together. That retry, without limit or back-off, is the agent's whole way
/// of recovery.
///
/// Its handlers stay subscribed to the client's process-wide signals, so nothing may raise those once the
/// launcher is destroyed.
class MonitorLauncher {
public:
    /// Creates the client and asks it to set up its connection; sends nothing yet.
    MonitorLauncher();
    /// Waits for the timer's task, which may take up to one interval (1 s), then destroys the monitors and
    /// lets go of the client. The screen lock monitor stays registered, so delivery of the distributed
    /// notifications must have ended.
    ~MonitorLauncher();
    MonitorLauncher(const MonitorLauncher&) = delete;
    MonitorLauncher& operator=(const MonitorLauncher&) = delete;

    /// Subscribes to the link's events, starts the timer, then starts and wires the monitors. Once, on the
    /// main thread. What a monitor sees before its handler is connected reaches no handler.
    void launch();

private:
    struct Impl;

    void init();

    std::unique_ptr<Impl> m_impl;
};
