#pragma once

/// The whole life of the agent: opens the log in the user's home directory, launches the monitors and the
/// link to the daemon, and runs the main run loop until the process is asked to end. Call once, on the main
/// thread, before any other thread exists. Returns the process's exit status, which is always 0.
///
/// A log file that cannot be opened costs one line in the system's own log; the agent then logs to standard
/// output only. Every other exception is left to end the process.
int runAgent();
