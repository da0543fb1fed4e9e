#include "link/faults/RawPeer.h"

#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <stdexcept>
#include <system_error>

#include "link/support/UnixAddress.h"

namespace link_tests {
namespace {

std::string hexOf(const std::string& text) {
    static constexpr const char* digits = "0123456789abcdef";
    std::string hex;
    for (const char one : text) {
        const auto value = static_cast<unsigned char>(one);
        hex += digits[value / 16];
        hex += digits[value % 16];
    }
    return hex;
}

void pad(std::string& bytes, std::size_t alignment) {
    bytes.resize((bytes.size() + alignment - 1) / alignment * alignment);
}

void addNumber(std::string& bytes, unsigned number) {
    pad(bytes, 4);
    for (int byte = 0; byte < 4; ++byte) {
        bytes += static_cast<char>(number >> (8 * byte) & 0xff);
    }
}

/// One header field whose value is a text, of type 's' or 'o' (D-Bus specification, "Message Format").
void addField(std::string& fields, char code, char type, const std::string& value) {
    pad(fields, 8);
    fields += {code, 1, type, 0};
    addNumber(fields, static_cast<unsigned>(value.size()));
    fields += value + '\0';
}

}  // namespace

RawPeer::RawPeer(const std::string& socketPath, uid_t uid)
    : m_socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    const sockaddr_un address = unixAddress(socketPath);
    // The bus takes a connection's user from the thread that made it.
    const bool became = ::seteuid(uid) == 0;
    const bool connected =
        became && ::connect(m_socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    const int error = errno;
    if (::seteuid(0) != 0 || !connected) {
        ::close(m_socket);
        throw std::system_error(error, std::generic_category(), socketPath);
    }
    say(std::string(1, '\0') + "AUTH EXTERNAL " + hexOf(std::to_string(uid)) + "\r\n");
    std::array<char, 256> answer{};
    const ssize_t length = ::recv(m_socket, answer.data(), answer.size(), 0);
    if (length < 2 || std::string(answer.data(), 2) != "OK") {
        ::close(m_socket);
        throw std::runtime_error("the bus refuses a raw connection");
    }
    say("BEGIN\r\n");
}

RawPeer::~RawPeer() {
    ::close(m_socket);
}

bool RawPeer::say(const std::string& bytes) const {
    return ::send(m_socket, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
}

std::string startOfCall(const std::string& destination, unsigned bodySize) {
    std::string fields;
    addField(fields, 1, 'o', "/com/brovik/velmmonitord");
    addField(fields, 2, 's', "com.brovik.XpcAgentProtocol");
    addField(fields, 3, 's', "putMessage");
    addField(fields, 6, 's', destination);
    pad(fields, 8);
    fields += {8, 1, 'g', 0, 2, 'a', 'y', 0};
    // Little-endian, a method call, no flags, version 1, the body's size, a serial number.
    std::string message{'l', 1, 0, 1};
    addNumber(message, bodySize);
    addNumber(message, 1);
    addNumber(message, static_cast<unsigned>(fields.size()));
    message += fields;
    pad(message, 8);
    return message;
}

}  // namespace link_tests
