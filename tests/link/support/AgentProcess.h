#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "link/support/AgentLog.h"
#include "link/support/ChildProcess.h"
#include "link/support/PrivateMachine.h"

namespace link_tests {

/// How an agent is started.
struct AgentOptions {
    uid_t user = 0;
    std::string systemBus;   ///< address; where nothing listens there is no system bus
    std::string sessionBus;  ///< address; empty: no session bus
    /// What the agent finds as its standard output.
    enum class Output {
        File,        ///< a file that `output` reads
        BrokenPipe,  ///< a pipe that nobody reads
        FullPipe,    ///< a full pipe whose reader sleeps
        Closed,      ///< nothing: the first file that the agent opens gets its number
        AllClosed,   ///< nothing, and no standard input or error either
    } output = Output::File;
    /// Runs in the new process, still as root, last before it becomes the user; empty: nothing.
    std::function<void()> asRoot;
    std::vector<std::string> environment;  ///< more variables, as NAME=value
};

/// In a new process, as root: becomes that user for good. Throws std::system_error.
void becomeUser(uid_t user);

/// The real agent, in a private machine. Killed at the end if a test has not ended it.
class AgentProcess {
public:
    AgentProcess(const PrivateMachine& machine, const AgentOptions& options);

    pid_t pid() const { return m_process->pid(); }
    std::chrono::steady_clock::time_point startTime() const { return m_startTime; }

    /// The log file.
    AgentLog& log() { return m_log; }
    /// Standard output, which the agent does not flush: complete only once it has ended.
    AgentLog& output() { return m_output; }
    /// Standard error.
    AgentLog& errors() { return m_errors; }

    bool running() { return m_process->running(); }
    void signal(int number) { m_process->signal(number); }
    /// Waits until the agent has taken a signal that it blocks.
    bool awaitTaken(int number) const;
    /// See ChildProcess::awaitEnd.
    std::string awaitEnd() { return m_process->awaitEnd(); }
    /// SIGTERM, then the end.
    std::string terminate();

    /// Waits until the agent watches /etc.
    bool awaitWatchOfEtc() const;
    /// Resident memory in bytes.
    std::size_t residentMemory() const;
    /// Memory in bytes that is the agent's alone whatever else runs: heap, stacks and what it has written to.
    std::size_t anonymousMemory() const;
    /// How often each of the agent's threads has gone to sleep by itself.
    std::map<pid_t, unsigned long> voluntarySwitches() const;

private:
    std::chrono::steady_clock::time_point m_startTime;
    AgentLog m_log;
    AgentLog m_output;
    AgentLog m_errors;
    std::unique_ptr<ChildProcess> m_process;
};

}  // namespace link_tests
