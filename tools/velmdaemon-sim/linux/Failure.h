#pragma once

#include <systemd/sd-event.h>

#include <exception>
#include <stdexcept>
#include <string>

namespace sim {

/// What the program ends with; service managers and scripts tell the causes apart by it.
enum class ExitStatus {
    AsAsked = 0,
    Other = 1,
    Usage = 2,
    NoBus = 3,
    NoPermission = 4,
    NameTaken = 5,
    BusLost = 6,
    NameLost = 7,
    NotDone = 8
};

/// Why the program cannot go on: a line for the user, and the status to end with.
class Failure : public std::runtime_error {
public:
    Failure(ExitStatus status, const std::string& line) : std::runtime_error(line), m_status(status) {}

    ExitStatus status() const noexcept { return m_status; }

private:
    ExitStatus m_status;
};

/// Passes a result of libsystemd on or, if it is an error, throws Failure with `doing` and the error's text.
int checked(int result, const std::string& doing, ExitStatus status = ExitStatus::Other);

/// Says on standard error why the program ends; gives `status` as a number.
int complain(ExitStatus status, const std::string& why);

/// Ends the event loop, saying why, with `status` as its result.
void endLoop(sd_event* loop, ExitStatus status, const std::string& why);

/// The same because of `error`: with a Failure's own status, with Other for what else derives from
/// std::exception, which is all that is ever thrown.
void endLoop(sd_event* loop, const std::exception_ptr& error) noexcept;

}  // namespace sim
