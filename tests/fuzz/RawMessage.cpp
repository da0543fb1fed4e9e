#include "RawMessage.h"

#include <sys/socket.h>
#include <unistd.h>

#include <array>

#include "Must.h"

namespace {

// The server's half of the handshake (D-Bus Specification, "Authentication Protocol"), which the client has
// no need to wait for: it accepts the client's empty identity.
constexpr const char* handshake = "DATA\r\nOK 0123456789abcdef0123456789abcdef\r\n";

// What a socket takes without anybody reading, with room to spare below the kernel's default of 208 KiB.
constexpr std::size_t mostBytes = 64 * 1024;

class Marshaller {
public:
    const std::string& bytes() const { return m_bytes; }

    void pad(std::size_t alignment) {
        m_bytes.resize((m_bytes.size() + alignment - 1) / alignment * alignment);
    }
    void byte(unsigned value) { m_bytes.push_back(static_cast<char>(value)); }
    void number(std::size_t value) {
        for (unsigned shift = 0; shift < 32; shift += 8) {
            byte(static_cast<unsigned>(value >> shift) & 0xffU);
        }
    }
    void field(unsigned code, char type, const std::string& text) {
        pad(8);
        byte(code);
        byte(1);
        byte(static_cast<unsigned char>(type));
        byte(0);
        type == 'g' ? byte(static_cast<unsigned>(text.size())) : number(text.size());
        m_bytes += text;
        byte(0);
    }

private:
    std::string m_bytes;
};

platform::BusHandle connectTo(int socket) {
    sd_bus* bus = nullptr;
    must(sd_bus_new(&bus) >= 0, "there is a bus connection");
    platform::BusHandle handle(bus);
    must(sd_bus_set_fd(bus, socket, socket) >= 0 && sd_bus_negotiate_fds(bus, 0) >= 0 &&
             sd_bus_start(bus) >= 0,
         "the connection starts");
    return handle;
}

void writeAll(int socket, const std::string& bytes) {
    must(write(socket, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()),
         "the socket takes it all");
}

}  // namespace

RawMessage RawMessage::call(const std::string& member, const std::string& signature,
                            const std::string& body) {
    Marshaller fields;
    fields.field(1, 'o', "/com/brovik/velmmonitord");
    fields.field(2, 's', "com.brovik.XpcAgentProtocol");
    fields.field(3, 's', member);
    fields.field(7, 's', ":1.1");
    fields.field(8, 'g', signature);
    Marshaller message;
    message.byte('l');  // little-endian
    message.byte(1);    // a method call
    message.byte(0);
    message.byte(1);
    message.number(body.size());
    message.number(1);
    message.number(fields.bytes().size());
    return RawMessage(message.bytes() + fields.bytes() +
                      std::string((8 - fields.bytes().size() % 8) % 8, '\0') + body);
}

void RawMessage::deliver(const std::function<void(sd_bus_message*)>& received) const {
    std::array<int, 2> ends{};
    must(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends.data()) == 0,
         "there is a socket");
    writeAll(ends[1], handshake);
    {
        const platform::BusHandle bus = connectTo(ends[0]);
        // No bus sends anything behind its handshake unasked; the library ends the process if one does.
        while (sd_bus_is_ready(bus.get()) == 0) {
            must(sd_bus_process(bus.get(), nullptr) >= 0, "the handshake goes through");
        }
        writeAll(ends[1], m_bytes.substr(0, mostBytes));
        shutdown(ends[1], SHUT_WR);
        int progress = 1;
        while (progress > 0) {
            sd_bus_message* message = nullptr;
            progress = sd_bus_process(bus.get(), &message);
            const platform::MessageHandle handle(message);
            if (message != nullptr) {
                received(message);
            }
        }
    }
    close(ends[1]);
}
