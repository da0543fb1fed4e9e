#pragma once

#include <string>

namespace link_tests {

/// Listens where a bus is expected, but accepts nobody: callers wait, as those of a socket whose service is
/// being restarted do.
class UnheardSocket {
public:
    explicit UnheardSocket(const std::string& path);
    ~UnheardSocket();
    UnheardSocket(const UnheardSocket&) = delete;
    UnheardSocket& operator=(const UnheardSocket&) = delete;

private:
    int m_socket;
    std::string m_path;
};

}  // namespace link_tests
