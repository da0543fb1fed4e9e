#pragma once

#include <string>
#include <vector>

#include "link/support/Await.h"
#include "link/support/ListeningSocket.h"

namespace link_tests {

/// Stands where a bus is expected, lets everyone in, says its piece to each, and then nothing for ever.
class SilentBus : public Pumped {
public:
    SilentBus(const std::string& path, std::string piece);
    ~SilentBus() override;
    SilentBus(const SilentBus&) = delete;
    SilentBus& operator=(const SilentBus&) = delete;

    std::size_t callers() const { return m_callers.size(); }
    void pump() override;

private:
    ListeningSocket m_socket;
    std::string m_piece;
    std::vector<int> m_callers;
};

}  // namespace link_tests
