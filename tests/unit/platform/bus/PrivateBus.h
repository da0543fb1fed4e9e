#pragma once

#include <sys/types.h>

#include <string>

/// A message bus of the test's own, which ends with it.
class PrivateBus {
public:
    /// Starts no bus yet; the address is fixed from here on.
    PrivateBus();
    ~PrivateBus();
    PrivateBus(const PrivateBus&) = delete;
    PrivateBus& operator=(const PrivateBus&) = delete;

    /// Starts the bus, and returns when it can be connected to.
    void start();
    /// Kills the bus, and returns when it is gone.
    void stop();
    std::string address() const;

private:
    std::string m_directory;
    pid_t m_daemon = 0;
};
