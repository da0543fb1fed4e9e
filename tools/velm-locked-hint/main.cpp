#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <iostream>
#include <string>
#include <vector>

#include "HeldHint.h"
#include "Locker.h"
#include "Signals.h"

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

int run(const std::vector<std::string>& command, const Signals& signals) {
    Locker locker(signals);
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

int waitFor(pid_t keeper, const Signals& signals) {
    int status = 0;
    while (waitpid(keeper, &status, WNOHANG) == 0) {
        const int signal = signals.next();
        if (signal != SIGCHLD) {
            kill(keeper, signal);
        }
    }
    return exitStatus(status);
}

// In a process of its own, which has no children but the locker's, whoever it was that executed this program,
// and which goes on when this one is killed.
int runInKeeper(const std::vector<std::string>& command) {
    const Signals signals;
    const pid_t keeper = fork();
    if (keeper < 0) {
        return complainOfStart(command.front(), errno);
    }
    return keeper == 0 ? run(command, signals) : waitFor(keeper, signals);
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
    return runInKeeper(arguments);
}
