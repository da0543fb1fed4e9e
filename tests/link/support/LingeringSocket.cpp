#include "link/support/LingeringSocket.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <system_error>
#include <utility>

namespace link_tests {
namespace {

void mustNotFail(int result, const char* what) {
    if (result < 0) {
        throw std::system_error(errno, std::generic_category(), what);
    }
}

void dropDescriptor(int& descriptor) {
    if (descriptor >= 0) {
        ::close(std::exchange(descriptor, -1));
    }
}

}  // namespace

LingeringSocket::LingeringSocket() : m_socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    auto* const place = reinterpret_cast<sockaddr*>(&address);
    const int listening = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    mustNotFail(::bind(listening, place, length), "bind");
    mustNotFail(::listen(listening, 1), "listen");
    mustNotFail(::getsockname(listening, place, &length), "getsockname");
    mustNotFail(::connect(m_socket, place, length), "connect");
    m_receiver = ::accept4(listening, nullptr, nullptr, SOCK_CLOEXEC);
    mustNotFail(m_receiver, "accept");
    ::close(listening);

    const linger forAnHour{1, 3600};
    mustNotFail(::setsockopt(m_socket, SOL_SOCKET, SO_LINGER, &forAnHour, sizeof forAnHour), "SO_LINGER");
    const std::array<char, 65536> bytes{};
    while (::send(m_socket, bytes.data(), bytes.size(), MSG_DONTWAIT) > 0) {
    }
}

LingeringSocket::~LingeringSocket() {
    release();
    drop();
}

void LingeringSocket::drop() {
    dropDescriptor(m_socket);
}

void LingeringSocket::release() {
    dropDescriptor(m_receiver);
}

}  // namespace link_tests
