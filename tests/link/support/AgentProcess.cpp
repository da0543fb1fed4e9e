#include "link/support/AgentProcess.h"

#include <fcntl.h>
#include <grp.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <system_error>
#include <vector>

#include "link/support/Await.h"

namespace link_tests {
namespace {

namespace fs = std::filesystem;

std::vector<std::string> environmentOf(const PrivateMachine& machine, const AgentOptions& options) {
    std::vector<std::string> environment{"PATH=/usr/bin:/bin", "HOME=" + machine.home(),
                                         "DBUS_SYSTEM_BUS_ADDRESS=" + options.systemBus};
    if (!options.sessionBus.empty()) {
        environment.push_back("DBUS_SESSION_BUS_ADDRESS=" + options.sessionBus);
    }
    environment.insert(environment.end(), options.environment.begin(), options.environment.end());
    for (const char* name : {"ASAN_OPTIONS", "LSAN_OPTIONS", "TSAN_OPTIONS", "UBSAN_OPTIONS"}) {
        if (const char* value = std::getenv(name)) {
            environment.push_back(std::string(name) + "=" + value);
        }
    }
    return environment;
}

void mustNotFail(int result, const char* what) {
    if (result < 0) {
        throw std::system_error(errno, std::generic_category(), what);
    }
}

void redirect(int target, const std::string& path) {
    const int file = ::open(path.c_str(), O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
    mustNotFail(file, path.c_str());
    mustNotFail(::dup2(file, target), "dup2");
}

void redirectToBrokenPipe(int target) {
    std::array<int, 2> ends{};
    mustNotFail(::pipe2(ends.data(), O_CLOEXEC), "pipe2");
    mustNotFail(::dup2(ends[1], target), "dup2");
    ::close(ends[0]);
}

void redirectToFullPipe(int target) {
    std::array<int, 2> ends{};
    mustNotFail(::pipe2(ends.data(), 0), "pipe2");
    // The other end stays open in the agent itself, which never reads it.
    mustNotFail(::fcntl(ends[1], F_SETFL, O_NONBLOCK), "fcntl");
    const std::array<char, 4096> filling{};
    while (::write(ends[1], filling.data(), filling.size()) > 0) {
    }
    mustNotFail(::fcntl(ends[1], F_SETFL, 0), "fcntl");
    mustNotFail(::dup2(ends[1], target), "dup2");
    ::close(ends[1]);
}

void prepareStreams(const PrivateMachine& machine, AgentOptions::Output output) {
    redirect(STDIN_FILENO, "/dev/null");
    redirect(STDERR_FILENO, machine.pathOf("stderr"));
    switch (output) {
        case AgentOptions::Output::File:
            redirect(STDOUT_FILENO, machine.pathOf("stdout"));
            break;
        case AgentOptions::Output::BrokenPipe:
            redirectToBrokenPipe(STDOUT_FILENO);
            break;
        case AgentOptions::Output::FullPipe:
            redirectToFullPipe(STDOUT_FILENO);
            break;
        case AgentOptions::Output::Closed:
            ::close(STDOUT_FILENO);
            break;
        case AgentOptions::Output::AllClosed:
            for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
                ::close(stream);
            }
            break;
    }
}

std::string fieldOf(const fs::path& file, const std::string& name) {
    std::ifstream status(file);
    std::string word;
    while (status >> word) {
        if (word == name) {
            status >> word;
            return word;
        }
    }
    return "0";
}

bool watchesSomething(pid_t pid) {
    std::error_code gone;
    for (const fs::directory_entry& entry :
         fs::directory_iterator("/proc/" + std::to_string(pid) + "/fdinfo", gone)) {
        std::ifstream info(entry.path());
        for (std::string line; std::getline(info, line);) {
            if (line.rfind("inotify wd:", 0) == 0) {
                return true;
            }
        }
    }
    return false;
}

}  // namespace

void becomeUser(uid_t user) {
    mustNotFail(::setgroups(0, nullptr), "setgroups");
    mustNotFail(::setresgid(user, user, user), "setresgid");
    mustNotFail(::setresuid(user, user, user), "setresuid");
}

AgentProcess::AgentProcess(const PrivateMachine& machine, const AgentOptions& options)
    : m_startTime(std::chrono::steady_clock::now()),
      m_log(machine.logPath()),
      m_output(machine.pathOf("stdout")),
      m_errors(machine.pathOf("stderr")) {
    m_process = std::make_unique<ChildProcess>(std::vector<std::string>{machine.programPath()},
                                               environmentOf(machine, options), [&] {
                                                   machine.enter(VELM_AGENT_PATH);
                                                   prepareStreams(machine, options.output);
                                                   if (options.asRoot) {
                                                       options.asRoot();
                                                   }
                                                   becomeUser(options.user);
                                               });
}

bool AgentProcess::awaitTaken(int number) const {
    const std::string status = "/proc/" + std::to_string(pid()) + "/status";
    return await(
        [&] { return (std::stoull(fieldOf(status, "ShdPnd:"), nullptr, 16) >> (number - 1) & 1) == 0; });
}

std::string AgentProcess::terminate() {
    signal(SIGTERM);
    return awaitEnd();
}

bool AgentProcess::awaitWatchOfEtc() const {
    return await([this] { return watchesSomething(pid()); });
}

std::size_t AgentProcess::residentMemory() const {
    return std::stoul(fieldOf("/proc/" + std::to_string(pid()) + "/status", "VmRSS:")) * 1024;
}

std::size_t AgentProcess::anonymousMemory() const {
    return std::stoul(fieldOf("/proc/" + std::to_string(pid()) + "/smaps_rollup", "Anonymous:")) * 1024;
}

std::map<pid_t, unsigned long> AgentProcess::voluntarySwitches() const {
    std::map<pid_t, unsigned long> switches;
    for (const fs::directory_entry& task :
         fs::directory_iterator("/proc/" + std::to_string(pid()) + "/task")) {
        switches[std::stoi(task.path().filename())] =
            std::stoul(fieldOf(task.path() / "status", "voluntary_ctxt_switches:"));
    }
    return switches;
}

}  // namespace link_tests
