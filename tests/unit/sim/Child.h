#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

/// A program that the test started, with pipes to its standard streams. Killed at the end of its life if it
/// still runs. Every wait has a cap, far above what is needed, and reports a failure when it is reached.
class Child {
public:
    /// `environment` is added to the test's own, as NAME=value.
    explicit Child(const std::vector<std::string>& arguments,
                   const std::vector<std::string>& environment = {});
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;
    Child(Child&&) = delete;
    Child& operator=(Child&&) = delete;
    ~Child();

    /// Waits for an output line that contains `part`, behind those that were returned before.
    std::string awaitLine(const std::string& part);
    /// Waits for the end; the exit status or, if a signal ended it, minus the signal.
    int awaitEnd();
    /// All of standard error; after the end.
    std::string errors();

    void say(const std::string& line) const;
    void closeInput();
    void closeOutput();
    void signal(int number) const;
    pid_t pid() const { return m_pid; }
    /// Whether it has not ended yet.
    bool running();

private:
    bool readMore(int timeoutMilliseconds);

    pid_t m_pid = -1;
    int m_status = 0;
    bool m_ended = false;
    int m_input = -1;
    int m_output = -1;
    int m_errors = -1;
    std::string m_unread;
};
