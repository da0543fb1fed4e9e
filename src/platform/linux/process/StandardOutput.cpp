#include "platform/linux/process/StandardOutput.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstddef>
#include <iostream>
#include <iterator>
#include <streambuf>

namespace platform {
namespace {

// Not O_NONBLOCK: that flag belongs to the open file, and so to everybody who has the same output.
bool takesSomethingNow() {
    pollfd output{STDOUT_FILENO, POLLOUT, 0};
    return poll(&output, 1, 0) > 0;
}

class StandardOutput final : public std::streambuf {
public:
    StandardOutput() { startWith(0); }

protected:
    int_type overflow(int_type next) override {
        writeOut(wholeLines());
        if (!traits_type::eq_int_type(next, traits_type::eof())) {
            sputc(traits_type::to_char_type(next));
        }
        return traits_type::not_eof(next);
    }

    int sync() override {
        writeOut(collected());
        return 0;
    }

private:
    std::size_t collected() const { return static_cast<std::size_t>(pptr() - pbase()); }

    // So that what is dropped is dropped with its end. All there is, where a line is longer.
    std::size_t wholeLines() const {
        const auto last =
            std::find(std::make_reverse_iterator(pptr()), std::make_reverse_iterator(pbase()), '\n');
        const auto size = static_cast<std::size_t>(last.base() - pbase());
        return size > 0 ? size : collected();
    }

    void writeOut(std::size_t size) {
        if (size > 0 && takesSomethingNow()) {
            // Whatever it does not take is lost.
            static_cast<void>(write(STDOUT_FILENO, pbase(), size) < 0);
        }
        std::copy(pbase() + size, pptr(), m_text.begin());
        startWith(collected() - size);
    }

    void startWith(std::size_t size) {
        setp(m_text.data(), m_text.data() + m_text.size());
        pbump(static_cast<int>(size));
    }

    // A pipe with room for anything takes this much without waiting, pipe(7).
    std::array<char, PIPE_BUF> m_text;
};

}  // namespace

void neverWaitForStandardOutput() {
    // Lives until the process ends, as the last thing that happens to std::cout is to be written out.
    static auto* const output = new StandardOutput;
    std::cout.rdbuf(output);
    if (isatty(STDOUT_FILENO) != 0) {
        std::cout << std::unitbuf;
    }
}

}  // namespace platform
