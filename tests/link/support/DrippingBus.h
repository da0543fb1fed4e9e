#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <string>
#include <thread>
#include <vector>

#include "link/support/ListeningSocket.h"

namespace link_tests {

/// Stands between the agent and a bus: what the agent says goes through at once, and what the bus says comes
/// byte by byte, one a millisecond: after a while without the processor, as many as that has lasted. On a
/// thread of its own.
class DrippingBus {
public:
    /// Listens at `path`, and goes to the bus at `busPath` as `user`, whose callers alone it may have.
    DrippingBus(const std::string& path, std::string busPath, uid_t user);
    ~DrippingBus();
    DrippingBus(const DrippingBus&) = delete;
    DrippingBus& operator=(const DrippingBus&) = delete;

    /// How many bytes of the bus its callers have been given.
    std::size_t given() const { return m_given; }
    /// How many times in a row it has looked and had nothing to give.
    std::size_t quietTurns() const { return m_quietTurns; }

private:
    struct Line {
        int caller;
        int bus;
        std::string waiting;  ///< said by the bus and not yet given
    };

    void drip();
    int connectToBus() const;
    void passOn(Line& line, std::chrono::milliseconds elapsed);

    ListeningSocket m_socket;
    std::string m_busPath;
    uid_t m_user;
    std::vector<Line> m_lines;
    std::atomic<std::size_t> m_given{0};
    std::atomic<std::size_t> m_quietTurns{0};
    std::atomic<bool> m_ends{false};
    std::thread m_thread;
};

}  // namespace link_tests
