#pragma once

#include <unistd.h>

#include <utility>

namespace platform {

/// Owns one file descriptor and closes it. Not thread-safe; the descriptor itself may be used on any thread.
class FileDescriptor {
public:
    FileDescriptor() = default;
    explicit FileDescriptor(int fd) noexcept : m_fd(fd) {}
    ~FileDescriptor() { reset(); }
    FileDescriptor(FileDescriptor&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}
    FileDescriptor& operator=(FileDescriptor&& other) noexcept {
        std::swap(m_fd, other.m_fd);
        return *this;
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;

    explicit operator bool() const { return m_fd >= 0; }
    /// The descriptor, still owned here; -1 if there is none.
    int get() const { return m_fd; }
    /// Gives the descriptor away.
    int release() noexcept { return std::exchange(m_fd, -1); }
    void reset() noexcept {
        if (m_fd >= 0) {
            close(std::exchange(m_fd, -1));
        }
    }

private:
    int m_fd = -1;
};

}  // namespace platform
