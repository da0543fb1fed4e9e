#include "link/support/SystemLogSocket.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <system_error>

#include "link/support/UnixAddress.h"

namespace link_tests {

SystemLogSocket::SystemLogSocket(const std::string& path)
    : m_socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
    const sockaddr_un address = unixAddress(path);
    if (::bind(m_socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        ::chmod(path.c_str(), 0666) != 0) {
        const int error = errno;
        ::close(m_socket);
        throw std::system_error(error, std::generic_category(), path);
    }
}

SystemLogSocket::~SystemLogSocket() {
    ::close(m_socket);
}

void SystemLogSocket::pump() {
    std::array<char, 8192> datagram{};
    for (;;) {
        const ssize_t length = ::recv(m_socket, datagram.data(), datagram.size(), 0);
        if (length < 0) {
            return;
        }
        m_lines.emplace_back(datagram.data(), static_cast<std::size_t>(length));
    }
}

}  // namespace link_tests
