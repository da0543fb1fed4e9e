#include "link/support/DrippingBus.h"

#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <utility>

#include "link/support/UnixAddress.h"

namespace link_tests {
namespace {

std::string readAll(int socket) {
    std::string text;
    std::array<char, 4096> piece{};
    for (ssize_t got = 0; (got = ::recv(socket, piece.data(), piece.size(), MSG_DONTWAIT)) > 0;) {
        text.append(piece.data(), static_cast<std::size_t>(got));
    }
    return text;
}

}  // namespace

DrippingBus::DrippingBus(const std::string& path, std::string busPath, uid_t user)
    : m_socket(path), m_busPath(std::move(busPath)), m_user(user), m_thread([this] { drip(); }) {}

DrippingBus::~DrippingBus() {
    m_ends = true;
    m_thread.join();
    for (const Line& line : m_lines) {
        ::close(line.caller);
        ::close(line.bus);
    }
}

void DrippingBus::drip() {
    // The bus takes a connection's user from the thread that made it. The system call changes that of this
    // thread alone, unlike the C library's function.
    if (::syscall(SYS_setresuid, -1, m_user, -1) != 0) {
        return;
    }
    auto turn = std::chrono::steady_clock::now();
    while (!m_ends) {
        for (int caller = 0; (caller = m_socket.accept()) >= 0;) {
            m_lines.push_back({caller, connectToBus(), ""});
        }
        const auto elapsed =
            std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - turn);
        turn += elapsed;
        ++m_quietTurns;
        for (Line& line : m_lines) {
            passOn(line, elapsed);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

/// A socket that nobody reads or writes where there is no bus.
int DrippingBus::connectToBus() const {
    const int bus = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_un address = unixAddress(m_busPath);
    static_cast<void>(::connect(bus, reinterpret_cast<const sockaddr*>(&address), sizeof address));
    return bus;
}

void DrippingBus::passOn(Line& line, std::chrono::milliseconds elapsed) {
    const std::string said = readAll(line.caller);
    static_cast<void>(::send(line.bus, said.data(), said.size(), MSG_NOSIGNAL));
    line.waiting += readAll(line.bus);
    if (!line.waiting.empty()) {
        m_quietTurns = 0;
    }
    for (auto left = elapsed.count(); left > 0 && !line.waiting.empty(); --left) {
        if (::send(line.caller, line.waiting.data(), 1, MSG_NOSIGNAL | MSG_DONTWAIT) != 1) {
            return;
        }
        line.waiting.erase(0, 1);
        ++m_given;
    }
}

}  // namespace link_tests
