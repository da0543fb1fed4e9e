#include "Peer.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>

namespace {

constexpr int patienceMilliseconds = 20000;

void load(const std::string& service) {
    close(open((service + ".job").c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
}

bool readable(int descriptor) {
    pollfd waited{descriptor, POLLIN, 0};
    return poll(&waited, 1, patienceMilliseconds) == 1;
}

}  // namespace

Peer::Peer(const std::string& directory) : m_service(directory + "/system/com.brovik.velmdaemon") {
    const std::string users = directory + "/user/com.brovik.velmdaemon";
    m_listening = doubles::listenAt(m_service + ".socket");
    m_usersListening = doubles::listenAt(users + ".socket");
    load(m_service);
    load(users);
}

Peer::~Peer() {
    die();
    close(m_listening);
    close(m_usersListening);
}

void Peer::accept() {
    die();
    pollfd both[]{{m_listening, POLLIN, 0}, {m_usersListening, POLLIN, 0}};
    if (poll(both, 2, patienceMilliseconds) < 1) {
        throw std::runtime_error("no connection came");
    }
    if (both[1].revents != 0) {
        throw std::runtime_error("a connection came to the user's service, not to the system's");
    }
    m_socket = accept4(m_listening, nullptr, nullptr, SOCK_CLOEXEC);
}

doubles::Frame Peer::read() {
    if (readable(m_socket)) {
        if (std::optional<doubles::Frame> frame = doubles::readFrame(m_socket)) {
            return *frame;
        }
    }
    ADD_FAILURE() << "the agent sent nothing";
    return {};
}

void Peer::call(const std::string& selector, const std::string& types,
                const std::vector<std::string>& arguments) {
    doubles::Frame frame;
    frame.selector = selector;
    frame.types = types;
    frame.arguments.assign(arguments.begin(), arguments.end());
    doubles::writeFrame(m_socket, frame);
}

void Peer::confirm(bool flag) {
    call("connected:", "v20@0:8c16", {flag ? "1" : "0"});
}

void Peer::reply(const doubles::Frame& to, const std::string& types, std::optional<std::string> argument) {
    doubles::Frame frame;
    frame.kind = doubles::Frame::Kind::Reply;
    frame.number = to.number;
    frame.selector = to.selector;
    frame.types = types;
    frame.arguments.push_back(std::move(argument));
    doubles::writeFrame(m_socket, frame);
}

void Peer::announceDeath() {
    doubles::Frame frame;
    frame.kind = doubles::Frame::Kind::Dying;
    doubles::writeFrame(m_socket, frame);
}

void Peer::die() {
    if (m_socket >= 0) {
        close(m_socket);
        m_socket = -1;
    }
}

void Peer::unload() {
    unlink((m_service + ".job").c_str());
    die();
}
