#pragma once

#include <string_view>

#include "LineSplitter.h"
#include "linux/Handles.h"

namespace sim {

/// Standard output, one write for each text, unbuffered, so that a reader sees a line as soon as it is there.
/// Once nobody reads any more, ends the event loop with status 0, also when there is nothing to write.
/// SIGPIPE must be ignored. Single-threaded; `event` must outlive it.
class OutputStream {
public:
    explicit OutputStream(sd_event* event);

    void write(std::string_view text);

private:
    void end();

    sd_event* m_event;
    SourceHandle m_source;
    bool m_open = true;
};

/// The lines of standard input. Its end ends nothing: a service has none from the start. Single-threaded;
/// `event` must outlive it.
class InputLines {
public:
    InputLines(sd_event* event, LineSplitter splitter);
    InputLines(const InputLines&) = delete;
    InputLines& operator=(const InputLines&) = delete;
    InputLines(InputLines&&) = delete;
    InputLines& operator=(InputLines&&) = delete;
    ~InputLines() = default;

private:
    void readSome();

    LineSplitter m_splitter;
    SourceHandle m_source;
};

}  // namespace sim
