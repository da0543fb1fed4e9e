#include "linux/StandardStreams.h"

#include <poll.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <utility>

#include "linux/Failure.h"

namespace sim {

OutputStream::OutputStream(sd_event* event) : m_event(event) {
    // Watches for no event of its own: that the other end was closed is told unasked. Files cannot be
    // watched, and need not be.
    sd_event_source* source = nullptr;
    if (sd_event_add_io(event, &source, STDOUT_FILENO, 0, &OutputStream::onClosed, this) >= 0) {
        m_source.reset(source);
    }
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

int OutputStream::onClosed(sd_event_source* /*source*/, int /*fd*/, std::uint32_t /*events*/,
                           void* userdata) {
    static_cast<OutputStream*>(userdata)->end();
    return 0;
}

InputLines::InputLines(sd_event* event, LineSplitter splitter) : m_splitter(std::move(splitter)) {
    sd_event_source* source = nullptr;
    int result = sd_event_add_io(event, &source, STDIN_FILENO, EPOLLIN, &InputLines::onReadable, this);
    if (result == -EPERM) {
        // A file, which is always readable: read it turn by turn.
        result = sd_event_add_defer(event, &source, &InputLines::onTurn, this);
        if (result >= 0) {
            sd_event_source_set_enabled(source, SD_EVENT_ON);
        }
    }
    // Without a standard input there are no commands, that is all.
    if (result >= 0) {
        m_source.reset(source);
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

int InputLines::onReadable(sd_event_source* /*source*/, int /*fd*/, std::uint32_t /*events*/,
                           void* userdata) {
    static_cast<InputLines*>(userdata)->readSome();
    return 0;
}

int InputLines::onTurn(sd_event_source* /*source*/, void* userdata) {
    static_cast<InputLines*>(userdata)->readSome();
    return 0;
}

}  // namespace sim
