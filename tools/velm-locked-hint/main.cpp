#include <chrono>
#include <cstring>
#include <iostream>
#include <string>
#include <vector>

#include "HeldHint.h"
#include "Locker.h"

namespace {

constexpr const char* usage =
    "Usage: velm-locked-hint -- LOCKER [ARGUMENT]...\n"
    "\n"
    "Runs a screen locker, and keeps the session's locked hint at logind set while it runs.\n"
    "\n"
    "Status: that of LOCKER, 128 and the number of the signal that ended it, or\n"
    "  125  the command line is wrong\n"
    "  126  LOCKER cannot be run\n"
    "  127  there is no LOCKER\n";

constexpr int wrongCommandLine = 125;
constexpr int cannotRun = 126;
constexpr int notFound = 127;

// A locker that is gone by then could not lock, or has asked another process to, which nothing here could
// watch.
constexpr std::chrono::milliseconds timeToFail{500};

int complainOfStart(const std::string& program, int error) {
    std::cerr << "velm-locked-hint: " << program << ": " << std::strerror(error) << "\n";
    return error == ENOENT ? notFound : cannotRun;
}

int run(const std::vector<std::string>& command) {
    Locker locker;
    if (const int error = locker.start(command)) {
        return complainOfStart(command.front(), error);
    }
    if (locker.waitUntilGone(timeToFail)) {
        if (locker.status() == 0) {
            std::cerr << "velm-locked-hint: " << command.front()
                      << " ended at once and left nothing to watch; the locked hint is not touched\n";
        }
        return locker.status();
    }
    const HeldHint hint;
    locker.waitUntilGone();
    return locker.status();
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<std::string> arguments(argv + 1, argv + argc);
    if (arguments.size() == 1 && arguments.front() == "--help") {
        std::cout << usage;
        return 0;
    }
    if (arguments.size() == 1 && arguments.front() == "--version") {
        std::cout << "velm-locked-hint " << VELM_VERSION << "\n";
        return 0;
    }
    if (!arguments.empty() && arguments.front() == "--") {
        arguments.erase(arguments.begin());
    } else if (!arguments.empty() && arguments.front().rfind('-', 0) == 0) {
        arguments.clear();
    }
    if (arguments.empty()) {
        std::cerr << usage;
        return wrongCommandLine;
    }
    return run(arguments);
}
