#include "link/support/ListeningSocket.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "link/support/UnixAddress.h"

namespace link_tests {

ListeningSocket::ListeningSocket(const std::string& path)
    : m_socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)), m_path(path) {
    const sockaddr_un address = unixAddress(path);
    if (::bind(m_socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        ::chmod(path.c_str(), 0666) != 0 || ::listen(m_socket, 64) != 0) {
        const int error = errno;
        ::close(m_socket);
        throw std::system_error(error, std::generic_category(), path);
    }
}

ListeningSocket::~ListeningSocket() {
    ::close(m_socket);
    ::unlink(m_path.c_str());
}

int ListeningSocket::accept() const {
    return ::accept4(m_socket, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
}

}  // namespace link_tests
