#pragma once

#include <cstddef>
#include <string>

#include "link/support/Await.h"
#include "link/support/ListeningSocket.h"

namespace link_tests {

/// Stands where a bus is expected, hangs up on everyone who calls, and counts them.
class RudeSocket : public Pumped {
public:
    explicit RudeSocket(const std::string& path) : m_socket(path) {}

    std::size_t attempts() const { return m_attempts; }
    void pump() override;

private:
    ListeningSocket m_socket;
    std::size_t m_attempts = 0;
};

}  // namespace link_tests
