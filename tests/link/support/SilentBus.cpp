#include "link/support/SilentBus.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <utility>

#include "link/support/UnixAddress.h"

namespace link_tests {

SilentBus::SilentBus(const std::string& path, std::string piece)
    : m_socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)),
      m_path(path),
      m_piece(std::move(piece)) {
    const sockaddr_un address = unixAddress(path);
    if (::bind(m_socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        ::chmod(path.c_str(), 0666) != 0 || ::listen(m_socket, 64) != 0) {
        const int error = errno;
        ::close(m_socket);
        throw std::system_error(error, std::generic_category(), path);
    }
}

SilentBus::~SilentBus() {
    for (const int caller : m_callers) {
        ::close(caller);
    }
    ::close(m_socket);
    ::unlink(m_path.c_str());
}

void SilentBus::pump() {
    for (;;) {
        const int caller = ::accept4(m_socket, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (caller < 0) {
            return;
        }
        m_callers.push_back(caller);
        // Whoever has hung up already does not hear it.
        static_cast<void>(::send(caller, m_piece.data(), m_piece.size(), MSG_NOSIGNAL));
    }
}

}  // namespace link_tests
