#pragma once

#include <sys/types.h>

#include <cstddef>
#include <memory>
#include <string>

#include "link/support/ChildProcess.h"
#include "link/support/SystemLogSocket.h"
#include "link/support/TempDirectory.h"

namespace link_tests {

/// A message bus of the test's own with the limits of a system bus. Its policy permits everything to everyone
/// on purpose: what the agent refuses, it must refuse by itself.
///
/// It is a dbus-daemon or, where the environment has VELM_TEST_BUS=dbus-broker, a dbus-broker, started as
/// systemd starts it: with a listening socket and a journal to write to.
class PrivateBus {
public:
    /// Fixes the address; nothing listens there before `start`.
    PrivateBus();
    /// Ends the bus, frozen or not.
    ~PrivateBus();
    PrivateBus(const PrivateBus&) = delete;
    PrivateBus& operator=(const PrivateBus&) = delete;

    const std::string& address() const { return m_address; }
    const std::string& socketPath() const { return m_socketPath; }

    /// From the next `start` on, the bus has this limit (dbus-daemon(1), `limit`) rather than the system
    /// bus's.
    void limit(const std::string& name, std::size_t value);
    /// From the next `start` on, the bus keeps so much of what a connection does not take, and so much of
    /// what one has sent and nobody has taken, rather than 127 MiB each.
    void boundQueues(std::size_t bytes);
    /// From the next `start` on, the bus lets nobody own a name.
    void forbidNames() { m_namesAre = "deny"; }
    /// From the next `start` on, nobody is told who gets or loses a name, as if every queue were full just
    /// then. dbus-daemon only.
    void hideNewOwners() { m_signalsOfNamesAre = "deny"; }

    /// Returns once the bus listens. May follow a `stop`, at the same address.
    void start();
    static bool isBroker();

    /// Ends the bus at once; all its connections are lost.
    void stop();
    /// Lets the bus take nothing and give nothing until `thaw`, with all connections kept.
    void freeze();
    void thaw();
    /// Whether the bus has the file that is `descriptor` here.
    bool holds(int descriptor) const;

private:
    void writeConfig() const;
    void startDaemon();
    void startBroker();
    /// The process that carries the messages.
    pid_t carrier() const;

    TempDirectory m_directory;
    std::string m_socketPath;
    std::string m_address;
    std::string m_configPath;
    std::string m_limits;
    std::string m_namesAre = "allow";
    std::string m_signalsOfNamesAre = "allow";
    std::unique_ptr<SystemLogSocket> m_journal;
    std::unique_ptr<ChildProcess> m_process;
};

}  // namespace link_tests
