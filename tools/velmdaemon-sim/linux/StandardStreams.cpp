#include "linux/StandardStreams.h"

#include <poll.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <utility>

#include "linux/Callbacks.h"
#include "linux/Failure.h"

namespace sim {

OutputStream::OutputStream(sd_event* event) : m_event(event) {
    // Watches for no event of its own: that the other end was closed is told unasked. Files cannot be
    // watched, and need not be.
    sd_event_add_io(event, OutHandle(m_source), STDOUT_FILENO, 0,
                    eventCallback<&OutputStream::end, OutputStream>, this);
}

void OutputStream::write(std::string_view text) {
    while (m_open && !text.empty()) {
        const ssize_t written = ::write(STDOUT_FILENO, text.data(), text.size());
        if (written >= 0) {
            text.remove_prefix(static_cast<std::size_t>(written));
        } else if (errno == EAGAIN) {
            // Another holder of the terminal may have switched blocking off.
            pollfd writable{STDOUT_FILENO, POLLOUT, 0};
            poll(&writable, 1, -1);
        } else if (errno != EINTR) {
            end();
        }
    }
}

void OutputStream::end() {
    m_open = false;
    m_source.reset();
    sd_event_exit(m_event, static_cast<int>(ExitStatus::AsAsked));
}

InputLines::InputLines(sd_event* event, LineSplitter splitter) : m_splitter(std::move(splitter)) {
    // Without a standard input there are no commands, that is all.
    const int result = sd_event_add_io(event, OutHandle(m_source), STDIN_FILENO, EPOLLIN,
                                       eventCallback<&InputLines::readSome, InputLines>, this);
    if (result == -EPERM && sd_event_add_defer(event, OutHandle(m_source),
                                               eventCallback<&InputLines::readSome, InputLines>, this) >= 0) {
        // A file, which is always readable: read it turn by turn.
        sd_event_source_set_enabled(m_source.get(), SD_EVENT_ON);
    }
}

void InputLines::readSome() {
    std::array<char, 65536> chunk{};
    const ssize_t length = ::read(STDIN_FILENO, chunk.data(), chunk.size());
    if (length > 0) {
        m_splitter.feed({chunk.data(), static_cast<std::size_t>(length)});
    } else if (length == 0 || (errno != EINTR && errno != EAGAIN)) {
        m_source.reset();
        m_splitter.finish();
    }
}

}  // namespace sim
