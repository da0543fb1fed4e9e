#pragma once

#include <memory>
#include <string>

#include "link/support/ChildProcess.h"
#include "link/support/TempDirectory.h"

namespace link_tests {

/// A message bus of the test's own with the limits of a system bus. Its policy permits everything to everyone
/// on purpose: what the agent refuses, it must refuse by itself.
class PrivateBus {
public:
    /// Fixes the address; nothing listens there before `start`.
    PrivateBus();

    const std::string& address() const { return m_address; }
    const std::string& socketPath() const { return m_socketPath; }

    /// Returns once the bus listens. May follow a `stop`, at the same address.
    void start();
    /// Ends the bus at once; all its connections are lost.
    void stop();
    /// Lets the bus take nothing and give nothing until `thaw`, with all connections kept.
    void freeze();
    void thaw();

private:
    TempDirectory m_directory;
    std::string m_socketPath;
    std::string m_address;
    std::string m_configPath;
    std::unique_ptr<ChildProcess> m_process;
};

}  // namespace link_tests
