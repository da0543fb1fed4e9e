#pragma once

#include <string>

namespace link_tests {

/// Listens where a bus is expected, open to all users. By itself it accepts nobody: callers wait, as those of
/// a socket whose service is being restarted do.
class ListeningSocket {
public:
    explicit ListeningSocket(const std::string& path);
    /// Removes the socket's file too; connections that were accepted stay.
    ~ListeningSocket();
    ListeningSocket(const ListeningSocket&) = delete;
    ListeningSocket& operator=(const ListeningSocket&) = delete;

    int get() const { return m_socket; }
    /// A caller's end of the connection, which is the receiver's to close; -1 if nobody waits.
    int accept() const;

private:
    int m_socket;
    std::string m_path;
};

}  // namespace link_tests
