#pragma once

namespace link_tests {

/// A TCP socket whose last close() blocks: it is full, its receiver does not read, and it lingers
/// (socket(7)). Whoever drops the last reference to it stands still until the receiver is gone.
class LingeringSocket {
public:
    LingeringSocket();
    /// Lets go of the receiver first, which frees whoever still blocks.
    ~LingeringSocket();
    LingeringSocket(const LingeringSocket&) = delete;
    LingeringSocket& operator=(const LingeringSocket&) = delete;

    int get() const { return m_socket; }
    /// Drops this process's own reference. Blocks if it was the last.
    void drop();
    /// Frees whoever blocks in a close().
    void release();

private:
    int m_receiver = -1;
    int m_socket = -1;
};

}  // namespace link_tests
