#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace doubles {

/// What two ends of a connection say to each other over their socket.
struct Frame {
    /// `Dying` is no message: what follows it may be overtaken by the end of the connection.
    enum class Kind : std::uint8_t { Call, Reply, Dying };

    Kind kind = Kind::Call;
    /// Of a call that wants a reply, and of that reply; else 0.
    std::uint64_t number = 0;
    std::string selector;
    /// Of a call: the method's extended encoding in the sender's protocol. Of a reply: that of the reply
    /// block.
    std::string types;
    /// A scalar in decimal, an object as in Objects.h, nothing for nil.
    std::vector<std::optional<std::string>> arguments;
};

/// Writes the whole frame; false if the other end is gone. One caller at a time.
bool writeFrame(int socket, const Frame& frame);
/// The next frame, or nothing once the other end is gone.
std::optional<Frame> readFrame(int socket);

/// A socket that is connected to the one who listens there, or -1.
int connectTo(const std::string& path);
/// A socket that listens there, in the place of whatever was there; fails if that can't be.
int listenAt(const std::string& path);

}  // namespace doubles
