#pragma once

#include <functional>
#include <string>
#include <string_view>

namespace sim {

/// Cuts a stream of bytes into lines. Not thread-safe.
class LineSplitter {
public:
    /// `onLine` gets each line without its line feed, valid during the call; it returns false to hear no
    /// more.
    explicit LineSplitter(std::function<bool(std::string_view)> onLine) : m_onLine(std::move(onLine)) {}

    /// Takes the next bytes.
    void feed(std::string_view bytes) {
        m_rest.append(bytes);
        std::size_t begin = 0;
        for (std::size_t end = 0; (end = m_rest.find('\n', begin)) != std::string::npos; begin = end + 1) {
            deliver(std::string_view(m_rest).substr(begin, end - begin));
        }
        m_rest.erase(0, begin);
    }

    /// Tells that the stream ended; a last line without a line feed is a line too.
    void finish() {
        if (!m_rest.empty()) {
            deliver(m_rest);
            m_rest.clear();
        }
    }

private:
    void deliver(std::string_view line) { m_open = m_open && m_onLine(line); }

    std::function<bool(std::string_view)> m_onLine;
    std::string m_rest;
    bool m_open = true;
};

}  // namespace sim
