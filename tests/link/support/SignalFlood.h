#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "link/support/ForkedProcess.h"

namespace link_tests {

/// A process of another user that sends signals of a mebibyte each from four connections, as fast as the bus
/// takes them: named as those that agents follow, in turn to each victim and to everybody.
class SignalFlood {
public:
    static constexpr std::size_t connections = 4;
    static constexpr std::size_t bytes = std::size_t{1024} * 1024;

    /// Starts at once; ends with this object. `victims` are unique names.
    SignalFlood(const std::string& busAddress, uid_t user, const std::vector<std::string>& victims);
    ~SignalFlood();
    SignalFlood(const SignalFlood&) = delete;
    SignalFlood& operator=(const SignalFlood&) = delete;

    /// How many signals the bus has taken, or is about to.
    std::uint64_t sent() const { return *m_sent; }

private:
    std::atomic<std::uint64_t>* m_sent;  ///< shared with the process
    ForkedProcess m_process;
};

}  // namespace link_tests
