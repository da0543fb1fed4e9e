#include "doubles/Wire.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>

#include "runtime/Runtime.h"

namespace doubles {
namespace {

bool writeAll(int socket, const char* data, std::size_t size) {
    while (size > 0) {
        const ssize_t count = send(socket, data, size, MSG_NOSIGNAL);
        if (count <= 0) {
            return false;
        }
        data += count;
        size -= static_cast<std::size_t>(count);
    }
    return true;
}

bool readAll(int socket, char* data, std::size_t size) {
    while (size > 0) {
        const ssize_t count = recv(socket, data, size, 0);
        if (count <= 0) {
            return false;
        }
        data += count;
        size -= static_cast<std::size_t>(count);
    }
    return true;
}

void put(std::string& to, std::uint64_t number) {
    to.append(reinterpret_cast<const char*>(&number), sizeof number);
}

void put(std::string& to, const std::string& text) {
    put(to, text.size());
    to += text;
}

class Reader {
public:
    explicit Reader(const std::string& bytes) : m_bytes(bytes) {}

    std::uint64_t number() {
        std::uint64_t result = 0;
        std::memcpy(&result, take(sizeof result).data(), sizeof result);
        return result;
    }
    std::string text() { return take(number()); }

private:
    std::string take(std::size_t size) {
        if (m_at + size > m_bytes.size()) {
            runtime::fail("a broken frame");
        }
        m_at += size;
        return m_bytes.substr(m_at - size, size);
    }

    const std::string& m_bytes;
    std::size_t m_at = 0;
};

sockaddr_un addressOf(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
        runtime::fail("a path too long for a socket: " + path);
    }
    std::memcpy(address.sun_path, path.c_str(), path.size());
    return address;
}

}  // namespace

bool writeFrame(int socket, const Frame& frame) {
    std::string body;
    put(body, static_cast<std::uint64_t>(frame.kind));
    put(body, frame.number);
    put(body, frame.selector);
    put(body, frame.types);
    put(body, frame.arguments.size());
    for (const std::optional<std::string>& argument : frame.arguments) {
        put(body, std::uint64_t{argument.has_value()});
        put(body, argument.value_or(std::string()));
    }
    std::string whole;
    put(whole, body);
    return writeAll(socket, whole.data(), whole.size());
}

std::optional<Frame> readFrame(int socket) {
    std::uint64_t size = 0;
    if (!readAll(socket, reinterpret_cast<char*>(&size), sizeof size)) {
        return std::nullopt;
    }
    std::string body(size, '\0');
    if (!readAll(socket, body.data(), body.size())) {
        return std::nullopt;
    }
    Reader reader(body);
    Frame frame;
    frame.kind = static_cast<Frame::Kind>(reader.number());
    frame.number = reader.number();
    frame.selector = reader.text();
    frame.types = reader.text();
    for (std::uint64_t left = reader.number(); left > 0; --left) {
        const bool present = reader.number() != 0;
        std::string text = reader.text();
        frame.arguments.push_back(present ? std::optional<std::string>(std::move(text)) : std::nullopt);
    }
    return frame;
}

int connectTo(const std::string& path) {
    const sockaddr_un address = addressOf(path);
    const int result = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (connect(result, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        close(result);
        return -1;
    }
    return result;
}

int listenAt(const std::string& path) {
    const sockaddr_un address = addressOf(path);
    unlink(path.c_str());
    const int result = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (bind(result, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        listen(result, 16) != 0) {
        runtime::fail("cannot listen at " + path + ": " + std::strerror(errno));
    }
    return result;
}

}  // namespace doubles
