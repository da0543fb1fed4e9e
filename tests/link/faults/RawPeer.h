#pragma once

#include <sys/types.h>

#include <string>

namespace link_tests {

/// A connection to a bus under a chosen user that says bytes rather than messages.
class RawPeer {
public:
    /// Authenticates. Throws std::system_error, or std::runtime_error if the bus refuses.
    RawPeer(const std::string& socketPath, uid_t uid);
    ~RawPeer();
    RawPeer(const RawPeer&) = delete;
    RawPeer& operator=(const RawPeer&) = delete;

    /// False once the bus has hung up.
    bool say(const std::string& bytes) const;

private:
    int m_socket;
};

/// The start of a method call to `destination`, whose header is whole and whose body is said to be `bodySize`
/// bytes.
std::string startOfCall(const std::string& destination, unsigned bodySize);

}  // namespace link_tests
