#include "link/support/SilentBus.h"

#include <sys/socket.h>
#include <unistd.h>

#include <utility>

namespace link_tests {

SilentBus::SilentBus(const std::string& path, std::string piece)
    : m_socket(path), m_piece(std::move(piece)) {}

SilentBus::~SilentBus() {
    for (const int caller : m_callers) {
        ::close(caller);
    }
}

void SilentBus::pump() {
    for (int caller = 0; (caller = m_socket.accept()) >= 0;) {
        m_callers.push_back(caller);
        // Whoever has hung up already does not hear it.
        static_cast<void>(::send(caller, m_piece.data(), m_piece.size(), MSG_NOSIGNAL));
    }
}

}  // namespace link_tests
