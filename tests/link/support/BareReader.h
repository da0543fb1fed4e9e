#pragma once

#include <memory>
#include <string>

#include "link/support/ForkedProcess.h"

namespace link_tests {

/// A process that does nothing but take what a bus sends it, as fast as it comes, by the library alone. It
/// answers org.freedesktop.DBus.Peer, so a call tells how long anything takes to reach such a program.
class BareReader {
public:
    /// Returns once it is on the bus. Ends with this object.
    explicit BareReader(const std::string& busAddress);

    const std::string& uniqueName() const { return m_uniqueName; }

private:
    std::unique_ptr<ForkedProcess> m_process;
    std::string m_uniqueName;
};

}  // namespace link_tests
