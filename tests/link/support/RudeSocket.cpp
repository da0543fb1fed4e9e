#include "link/support/RudeSocket.h"

#include <unistd.h>

namespace link_tests {

void RudeSocket::pump() {
    for (int caller = 0; (caller = m_socket.accept()) >= 0; ++m_attempts) {
        ::close(caller);
    }
}

}  // namespace link_tests
