#pragma once

#include <sys/types.h>

#include <memory>
#include <string>

#include "link/support/SystemLogSocket.h"
#include "link/support/TempDirectory.h"
#include "link/support/TimeZones.h"

namespace link_tests {

/// The parts of a machine that an agent reads and writes, copied aside: /etc with its time zone, /dev with
/// the system log's socket, and a home. An agent sees them in a mount namespace of its own; the machine that
/// the tests run on is left as it is.
class PrivateMachine {
public:
    /// The home belongs to `user`.
    explicit PrivateMachine(uid_t user);

    const TimeZones& timeZones() const { return *m_timeZones; }
    /// Writes a file of that name in /etc, new or not.
    void touchInEtc(const std::string& name) const;

    const SystemLogSocket& systemLog() const { return *m_systemLog; }
    /// Leaves the machine without a system log.
    void removeSystemLog();

    std::string home() const { return m_directory.path() + "/home"; }
    std::string logPath() const { return home() + "/Library/Logs/velmmonitord.log"; }
    /// Takes away the directory of the log file, which must not exist yet.
    void removeLogDirectory();
    /// A path for a test's own file.
    std::string pathOf(const std::string& name) const { return m_directory.path() + "/" + name; }

    /// In a new process, as root: enters a mount namespace of its own where this machine is the machine, and
    /// where `program` can be reached by all users at `programPath`.
    void enter(const std::string& program) const;
    std::string programPath() const { return pathOf("velmmonitord"); }

private:
    TempDirectory m_directory;
    uid_t m_user;
    std::unique_ptr<TimeZones> m_timeZones;
    std::unique_ptr<SystemLogSocket> m_systemLog;
};

}  // namespace link_tests
